// AccountDirectory: the accounts of the mail store as AccountRecords. The
// engine asks it for an account's endpoints, login and sent-mail filing; the
// account set-up saves and removes accounts through it; the engine records
// here that an account needs the user to sign in again.
//
// Thread-safety: as the store's; it holds no state of its own.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "MailCore/Accounts/AccountRecord.h"
#include "MailCore/Store/SQLiteMailStore.h"

namespace mailcore {

class AccountDirectory {
public:
    explicit AccountDirectory(SQLiteMailStore& store) : store_(store) {}

    // Every account, by creation order. A row that does not decode is left
    // out of the list (it still answers `find` with the decoding error).
    std::vector<AccountRecord> all();
    // The server accounts only.
    std::vector<AccountRecord> serverAccounts();
    std::optional<AccountRecord> find(const AccountID& id);
    // Throws MailError::storage(notFound, "account not found").
    AccountRecord require(const AccountID& id);

    // Creates the account, or replaces its record keeping its creation time.
    void save(const AccountRecord& account, Date now);
    // Records whether the account's credentials still work; `detail` says
    // why not. Throws "account not found".
    void setAuthState(const AccountID& id, AccountAuthState state,
                      std::optional<std::string> detail = std::nullopt);
    // The account and, by cascade, its folders, messages, outbox and drafts.
    // Its credentials are the caller's to remove.
    void remove(const AccountID& id);

private:
    SQLiteMailStore& store_;
};

}  // namespace mailcore
