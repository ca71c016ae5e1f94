#include "MailCore/Accounts/AccountDirectory.h"

#include <nlohmann/json.hpp>

#include "MailCore/Common/MailError.h"
#include "MailCore/Store/StorageCodec.h"

namespace mailcore {

std::vector<AccountRecord> AccountDirectory::all() {
    std::vector<AccountRecord> out;
    for (const Json& config : store_.accountConfigs()) {
        try {
            out.push_back(accountRecordFromJson(config));
        } catch (const MailError&) {
        }
    }
    return out;
}

std::vector<AccountRecord> AccountDirectory::serverAccounts() {
    std::vector<AccountRecord> out;
    for (auto& a : all())
        if (a.isServerAccount()) out.push_back(std::move(a));
    return out;
}

std::optional<AccountRecord> AccountDirectory::find(const AccountID& id) {
    const auto config = store_.accountConfig(id);
    if (!config) return std::nullopt;
    AccountRecord record = accountRecordFromJson(*config);
    record.id = id;
    return record;
}

AccountRecord AccountDirectory::require(const AccountID& id) {
    auto record = find(id);
    if (!record) throw MailError::storage(StorageFailureKind::notFound, "account not found");
    return *record;
}

void AccountDirectory::save(const AccountRecord& account, Date now) {
    store_.write([&](SQLiteDatabase& db) {
        const Blob config = StorageCodec::encodeBytes(toJson(account));
        if (db.run("UPDATE accounts SET config = ? WHERE id = ?", {config, account.id}) == 0)
            store_.saveAccount(account.id, toJson(account), now);
    });
}

void AccountDirectory::setAuthState(const AccountID& id, AccountAuthState state,
                                    std::optional<std::string> detail) {
    store_.write([&](SQLiteDatabase&) {
        AccountRecord record = require(id);
        record.authState = state;
        record.authDetail = state == AccountAuthState::ok ? std::nullopt : std::move(detail);
        save(record, Date{});
    });
}

void AccountDirectory::remove(const AccountID& id) { store_.removeAccount(id); }

}  // namespace mailcore
