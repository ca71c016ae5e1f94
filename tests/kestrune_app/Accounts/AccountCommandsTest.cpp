#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

#include "tests/MailCore/Store/StoreTestSupport.h"
#include "tests/fakes/KeyringSession.h"

namespace kestrune {
namespace {

using mailcore::testing::TempDir;

std::string kestrunePath() {
    const char* dir = std::getenv("KESTRUNE_BINARY_DIR");
    return std::string(dir ? dir : ".") + "/kestrune_app/kestrune";
}

// Every file below `dir` whose bytes contain `text`.
std::vector<std::string> filesHolding(const std::filesystem::path& dir, const std::string& text) {
    std::vector<std::string> found;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(dir)) {
        if (entry.is_regular_file() &&
            testfiles::readFile(entry.path()).find(text) != std::string::npos)
            found.push_back(entry.path().string());
    }
    return found;
}

class AccountCommands : public ::testing::Test {
protected:
    testfiles::ProcessOutcome kestrune(const std::vector<std::string>& args,
                                       const std::string& input = "") {
        std::vector<std::string> all{"--data-dir", (home.path() / "data").string()};
        all.insert(all.end(), args.begin(), args.end());
        return testfiles::runProgram(kestrunePath(), all,
                                     {"HOME=" + home.path().string(), "PATH=/usr/bin:/bin",
                                      "DBUS_SESSION_BUS_ADDRESS=" + bus},
                                     input);
    }
    TempDir home;
    std::string bus = "unix:path=/nonexistent/bus";
};

TEST_F(AccountCommands, WithoutASecretServiceThePasswordGoesToThePrivateFileWithAWarning) {
    const auto added = kestrune({"accounts", "add", "ada@example.test", "--imap", "127.0.0.1:1",
                                 "--smtp", "127.0.0.1:2", "--password-stdin", "--no-check"},
                                "file-stored-pw\n");
    ASSERT_EQ(added.status, 0) << added.out << added.err;
    EXPECT_NE(added.out.find("No Secret Service answers"), std::string::npos) << added.out;
    const auto file = home.path() / "data" / "credentials.json";
    EXPECT_EQ(testfiles::fileMode(file), 0600u);
    EXPECT_EQ(filesHolding(home.path(), "file-stored-pw"), std::vector<std::string>{file.string()});

    const auto listed = kestrune({"accounts"});
    EXPECT_NE(listed.out.find("ada@example.test (ada@example.test): shared with agents; IMAP "
                              "127.0.0.1:1 (SSL/TLS), SMTP 127.0.0.1:2 (SSL/TLS)"),
              std::string::npos)
        << listed.out;

    EXPECT_EQ(kestrune({"accounts", "remove", "ada@example.test"}).status, 64);  // no terminal
    ASSERT_EQ(kestrune({"accounts", "remove", "ada@example.test", "--yes"}).status, 0);
    EXPECT_TRUE(filesHolding(home.path(), "file-stored-pw").empty());
    EXPECT_EQ(kestrune({"accounts"}).out.find("ada@example.test"), std::string::npos);
}

TEST_F(AccountCommands, WithTheSecretServiceThePasswordIsNowhereOnDisk) {
    TempDir keyringRoot;
    testfiles::KeyringSession keyring(keyringRoot.path());
    if (!keyring.available()) GTEST_SKIP() << keyring.why();
    bus = keyring.busAddress();
    const auto added = kestrune({"accounts", "add", "bea@example.test", "--imap", "127.0.0.1:1",
                                 "--smtp", "127.0.0.1:2", "--password-stdin", "--no-check"},
                                "keyring-held-pw\n");
    ASSERT_EQ(added.status, 0) << added.out << added.err;
    EXPECT_NE(added.out.find("kept in the Secret Service"), std::string::npos) << added.out;
    EXPECT_EQ(keyring.lookup("account bea@example.test kind password"), "keyring-held-pw");
    EXPECT_TRUE(filesHolding(home.path(), "keyring-held-pw").empty());
    ASSERT_EQ(kestrune({"accounts", "remove", "bea@example.test", "--yes"}).status, 0);
    EXPECT_EQ(keyring.lookup("account bea@example.test kind password"), "");
}

TEST_F(AccountCommands, AFailedCheckSavesNothingAndSaysWhy) {
    const auto added = kestrune({"accounts", "add", "cy@example.test", "--imap", "127.0.0.1:1",
                                 "--smtp", "127.0.0.1:1", "--password-stdin"},
                                "failed-check-pw\n");
    EXPECT_EQ(added.status, 1);
    EXPECT_NE(added.out.find("The IMAP server 127.0.0.1:1 refused the connection: check the host "
                             "name and port 1."),
              std::string::npos)
        << added.out;
    EXPECT_NE(added.err.find("The account was not saved"), std::string::npos) << added.err;
    EXPECT_EQ(kestrune({"accounts"}).out.find("cy@example.test"), std::string::npos);
    EXPECT_TRUE(filesHolding(home.path(), "failed-check-pw").empty());
}

TEST_F(AccountCommands, MistakesAreUsageErrors) {
    const std::vector<std::vector<std::string>> mistakes{
        {"accounts", "add", "not-an-address"},
        {"accounts", "add", "a@b.test", "--imap-security", "ssl"},
        {"accounts", "add", "a@b.test", "--imap", "host:99999", "--smtp", "h"},
        {"accounts", "add", "a@b.test", "--oauth", "--password-stdin"},
        {"accounts", "add", "a@b.test", "--bogus"},
        {"accounts", "test"},
    };
    for (const auto& args : mistakes) EXPECT_EQ(kestrune(args).status, 64) << args.back();
    const auto unknown = kestrune({"accounts", "test", "nobody@example.test"});
    EXPECT_EQ(unknown.status, 1);
    EXPECT_NE(unknown.err.find("kestrune accounts add nobody@example.test"), std::string::npos);
}

}  // namespace
}  // namespace kestrune
