// Filing raw messages into the mail store: accounts with their standard
// folders, one RFC 5322 message parsed and filed with its body and
// attachment records, and whole Maildir folders or mbox files imported.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "MailCore/MIME/MailImporter.h"
#include "MailCore/Store/SQLiteMailStore.h"

namespace kestrune {

// The account configuration kept in the store: {"email", "label", "demo"}.
// A demo account delivers sends into its own Sent folder.
struct HostAccount {
    std::string email;
    std::string label;
    bool demo = false;
};

std::optional<HostAccount> hostAccount(mailcore::SQLiteMailStore& store, const std::string& email);
std::vector<HostAccount> hostAccounts(mailcore::SQLiteMailStore& store);

// Creates the account (when missing) with the folders INBOX, Sent, Drafts,
// Archive and Trash. Returns the account as stored. Throws HostError invalidInput
// for an address without "@".
HostAccount ensureAccount(mailcore::SQLiteMailStore& store, const HostAccount& account,
                          mailcore::Date now);

// The account's folder with `role` (inbox, sent, drafts, ...). Throws
// HostError notFound when the account has none.
mailcore::FolderID folderWithRole(mailcore::SQLiteMailStore& store, const std::string& account,
                                  mailcore::FolderRole role);

// Parses `raw` and files it through the message ingestor in `folder` of
// `account` with `flags`, body and attachment records included. Throws
// MailError for an empty message.
mailcore::MessageID fileMessage(mailcore::SQLiteMailStore& store, const std::string& account,
                                mailcore::FolderID folder, std::string_view raw,
                                const mailcore::MessageFlags& flags, mailcore::Date now);

struct ImportResult {
    std::int64_t imported = 0;
    std::int64_t skipped = 0;  // empty or unreadable entries
};

using ImportProgressHandler = std::function<void(const mailcore::ImportProgress&)>;

// A Maildir tree into the account (the mail importer maps its folders and
// flags), `progress` called after every filed batch. Throws HostError invalidInput when `dir` is
// not a Maildir, MailError when it cannot be read.
ImportResult importMaildir(mailcore::SQLiteMailStore& store, const std::string& account,
                           const std::filesystem::path& dir, mailcore::Date now,
                           const ImportProgressHandler& progress = {});

// Every message of an mbox file into the account's INBOX. Throws
// HostError invalidInput when the file is missing, MailError when it cannot be
// read.
ImportResult importMbox(mailcore::SQLiteMailStore& store, const std::string& account,
                        const std::filesystem::path& file, mailcore::Date now,
                        const ImportProgressHandler& progress = {});

}  // namespace kestrune
