#include "kestrune_app/Host/MailIngest.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "MailCore/MIME/MessageIngestor.h"
#include "kestrune_app/Host/HostError.h"

namespace kestrune {

using namespace mailcore;

namespace {

std::optional<HostAccount> accountFromConfig(const Json& config) {
    if (!config.is_object()) return std::nullopt;
    auto email = config.find("email");
    if (email == config.end() || !email->is_string()) return std::nullopt;
    HostAccount a;
    a.email = email->get<std::string>();
    a.label = config.value("label", a.email);
    a.demo = config.value("demo", false);
    return a;
}

}  // namespace

std::optional<HostAccount> hostAccount(SQLiteMailStore& store, const std::string& email) {
    auto config = store.accountConfig(AccountID(email));
    if (!config) return std::nullopt;
    return accountFromConfig(*config);
}

std::vector<HostAccount> hostAccounts(SQLiteMailStore& store) {
    std::vector<HostAccount> out;
    for (const auto& config : store.accountConfigs()) {
        if (auto a = accountFromConfig(config)) out.push_back(*a);
    }
    return out;
}

HostAccount ensureAccount(SQLiteMailStore& store, const HostAccount& account, Date now) {
    if (account.email.find('@') == std::string::npos || account.email.size() > 320)
        throw HostError(HostError::Kind::invalidInput, "not a mail address: " + account.email);
    if (auto existing = hostAccount(store, account.email)) return *existing;
    return store.write([&](SQLiteDatabase&) {
        Json config{{"email", account.email},
                    {"label", account.label.empty() ? account.email : account.label},
                    {"demo", account.demo}};
        store.saveAccount(AccountID(account.email), config, now);
        const std::pair<const char*, FolderRole> folders[] = {{"INBOX", FolderRole::inbox},
                                                              {"Sent", FolderRole::sent},
                                                              {"Drafts", FolderRole::drafts},
                                                              {"Archive", FolderRole::archive},
                                                              {"Trash", FolderRole::trash}};
        for (const auto& [path, role] : folders) {
            FolderListing listing;
            listing.path = path;
            listing.delimiter = "/";
            listing.serverRole = role;
            store.createFolder(AccountID(account.email), listing);
        }
        return *accountFromConfig(config);
    });
}

FolderID folderWithRole(SQLiteMailStore& store, const std::string& account, FolderRole role) {
    for (const auto& f : store.folders(AccountID(account))) {
        if (f.role == role) return f.id;
    }
    throw HostError(HostError::Kind::notFound,
                    "account " + account + " has no " + std::string(rawValue(role)) + " folder");
}

MessageID fileMessage(SQLiteMailStore& store, const std::string& account, FolderID folder,
                      std::string_view raw, const MessageFlags& flags, Date now) {
    IncomingMessage incoming;
    incoming.folderID = folder;
    incoming.flags = flags;
    incoming.internalDate = now;
    MessageIngestor ingestor(store, {}, [now] { return now; });
    return ingestor.ingest(AccountID(account), incoming, raw);
}

namespace {

ImportResult result(const ImportReport& report) {
    ImportResult r;
    r.imported = static_cast<std::int64_t>(report.imported);
    r.skipped = static_cast<std::int64_t>(report.skipped + report.failed);
    return r;
}

}  // namespace

ImportResult importMaildir(SQLiteMailStore& store, const std::string& account,
                           const std::filesystem::path& dir, Date now,
                           const ImportProgressHandler& progress) {
    namespace fs = std::filesystem;
    if (!fs::is_directory(dir / "cur") && !fs::is_directory(dir / "new"))
        throw HostError(HostError::Kind::invalidInput,
                        dir.string() + " is not a Maildir (no cur/ or new/)");
    MailImporter importer(store, AccountID(account), {}, [now] { return now; });
    ImportOptions options;
    options.progress = progress;
    return result(importer.importMaildir(dir, options));
}

ImportResult importMbox(SQLiteMailStore& store, const std::string& account,
                        const std::filesystem::path& file, Date now,
                        const ImportProgressHandler& progress) {
    if (!std::filesystem::is_regular_file(file))
        throw HostError(HostError::Kind::invalidInput, file.string() + " is not a file");
    MailImporter importer(store, AccountID(account), {}, [now] { return now; });
    ImportOptions options;
    options.progress = progress;
    return result(importer.importMbox(file, "INBOX", options));
}

}  // namespace kestrune
