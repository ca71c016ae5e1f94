// The original bytes of a message Kestrune holds. The store keeps what it
// needs to list, search and show mail, not the messages as they came, so
// the original is read again from where it lives: for an account with a
// mail server, from the server (BODY.PEEK[], only while the folder keeps
// the UIDVALIDITY the store knows); for mail imported from a Maildir or an
// mbox file, from the source the import recorded, found by the key its
// import ledger keeps (the Maildir unique name, or the SHA-1 of the message
// text with its copy number).
#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "MailCore/Store/SQLiteMailStore.h"
#include "kestrune_app/Host/HostPaths.h"

namespace kestrune {

// Throws HostError notFound, saying why, when the original cannot be had
// (the source moved or changed, the server no longer has the message);
// MailError when the server cannot be reached.
std::string rawMessageSource(const std::shared_ptr<mailcore::SQLiteMailStore>& store,
                             const HostPaths& paths, mailcore::MessageID id);

// Records that mail of `account` was imported from `source` (a Maildir
// tree, or with `mbox` an mbox file), where rawMessageSource looks for it.
void rememberImportSource(mailcore::SQLiteMailStore& store, const std::string& account,
                          const std::filesystem::path& source, bool mbox);

}  // namespace kestrune
