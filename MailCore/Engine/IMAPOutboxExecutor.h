// IMAPOutboxExecutor: carries the flag changes, moves and deletes of server
// accounts out on their IMAP server; every other item (sends, draft saves,
// accounts without an IMAP server) goes on to the next executor.
//
// Flag changes add and remove exactly the flags the user changed (UID STORE
// +FLAGS / -FLAGS), so that another client's changes to other flags stay.
// A move uses MOVE (or its fallback) and binds the local row to the UID the
// server gives the copy; a delete moves the message to the account's Trash,
// or, in the Trash itself, marks it \Deleted and expunges it. A message
// whose UID is not known yet waits; one the server no longer has, or a
// destination folder that is gone, fails for good.
//
// Thread-safety: each execute() uses its own session; the store serialises
// itself.
#pragma once

#include <functional>
#include <memory>

#include "MailCore/Engine/OutboxExecutor.h"
#include "MailCore/IMAP/IMAPSession.h"
#include "MailCore/Store/SQLiteMailStore.h"

namespace mailcore {

class IMAPOutboxExecutor final : public OutboxExecutor {
public:
    // A signed-in session for the account; nothing when the account has no
    // IMAP server. Throws MailError.
    using SessionMaker = std::function<std::unique_ptr<IMAPSession>(const AccountID&)>;

    IMAPOutboxExecutor(SQLiteMailStore& store, SessionMaker sessions, OutboxExecutor& others);

    OutboxResult execute(const OutboxItem& item) override;
    SentState verifySent(const OutboxItem& item) override { return others_.verifySent(item); }

private:
    OutboxResult apply(IMAPSession& session, const OutboxItem& item);

    SQLiteMailStore& store_;
    SessionMaker sessions_;
    OutboxExecutor& others_;
};

// IMAP flag names of the system flags in `system` and the keywords.
std::vector<std::string> imapFlags(std::int64_t system, const std::vector<std::string>& keywords);

}  // namespace mailcore
