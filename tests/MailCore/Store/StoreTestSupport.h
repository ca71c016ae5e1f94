// Helpers shared by the store tests: a temporary directory that removes
// itself, and message records built with little ceremony.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>

#include "MailCore/Store/SQLiteMailStore.h"

namespace mailcore::testing {

class TempDir {
public:
    TempDir() {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "kestrune-store-XXXXXX").string();
        char* made = ::mkdtemp(pattern.data());
        if (made == nullptr) throw std::runtime_error("mkdtemp failed");
        path_ = made;
    }
    ~TempDir() {
        std::error_code ec;
        std::filesystem::permissions(path_, std::filesystem::perms::owner_all,
                                     std::filesystem::perm_options::add, ec);
        std::filesystem::remove_all(path_, ec);
    }
    const std::filesystem::path& path() const { return path_; }
    std::string file(const std::string& name) const { return (path_ / name).string(); }

private:
    std::filesystem::path path_;
};

inline MailAddress addr(const std::string& email, const std::string& name = "") {
    return MailAddress{name, email};
}

inline Date at(double seconds) { return dateFromSeconds(seconds); }

// A message in `folder` with the given UID, Message-ID, references and
// subject, from `from` to `to`.
inline MessageIndexFields message(const AccountID& account, FolderID folder, std::uint32_t uid,
                                  const std::string& messageID, const std::string& inReplyTo,
                                  const std::string& references, const std::string& subject,
                                  const std::string& from = "alice@example.com",
                                  const std::string& to = "bob@example.com", double date = 1000) {
    MessageIndexFields f;
    f.accountID = account;
    f.folderID = folder;
    f.uid = IMAPUID(uid);
    f.threading = ThreadingKeys::fromHeaders(messageID, inReplyTo, references, subject);
    f.subject = subject;
    f.from = {addr(from)};
    f.to = {addr(to)};
    f.date = at(date);
    f.size = 100;
    return f;
}

// A store on a temporary file with one account "acct" and its inbox.
struct StoreFixture : ::testing::Test {
    TempDir dir;
    std::unique_ptr<SQLiteMailStore> store;
    AccountID account{"acct"};
    FolderID inbox;

    void SetUp() override {
        store = std::make_unique<SQLiteMailStore>(StoreLocation::file(dir.file("mail.db")));
        store->saveAccount(account, Json::object(), at(1));
        inbox = store->createFolder(account, FolderListing{"INBOX", "/", FolderRole::inbox, {}});
    }
};

}  // namespace mailcore::testing
