// `kestrune sync --once` on an account added from the command line, against
// a private Dovecot: the mail lands in the store, and a second run finds
// nothing new.
#include <gtest/gtest.h>

#include <cstdlib>
#include <nlohmann/json.hpp>

#include "MailCore/Store/SQLiteMailStore.h"
#include "tests/MailCore/Store/StoreTestSupport.h"
#include "tests/fakes/DovecotServer.h"

namespace kestrune {
namespace {

using mailcore::testing::TempDir;

TEST(SyncCommand, OnceBringsTheServerMailIntoTheStoreAndThenFindsNothingNew) {
    mailcore::testing::DovecotServer server;
    for (int n = 1; n <= 7; ++n)
        server.writeMessage("alice", n < 6 ? "INBOX" : "Projects",
                            "From: a@example.com\r\nSubject: s" + std::to_string(n) +
                                "\r\nMessage-ID: <c" + std::to_string(n) +
                                "@example.com>\r\n\r\nbody\r\n");
    TempDir home;
    const auto data = home.path() / "data";
    const auto kestrune = [&](std::vector<std::string> args, const std::string& input = "") {
        args.insert(args.begin(), {"--data-dir", data.string()});
        const char* dir = std::getenv("KESTRUNE_BINARY_DIR");
        return testfiles::runProgram(std::string(dir ? dir : ".") + "/kestrune_app/kestrune", args,
                                     {"HOME=" + home.path().string(), "PATH=/usr/bin:/bin",
                                      "DBUS_SESSION_BUS_ADDRESS=unix:path=/nonexistent/bus"},
                                     input);
    };
    const std::string imap = "127.0.0.1:" + std::to_string(server.imapTLSPort());
    const auto added = kestrune(
        {"accounts", "add", "alice@example.test", "--imap", imap, "--smtp", "127.0.0.1:1", "--user",
         "alice", "--ca-file", server.caPath(), "--password-stdin", "--no-check"},
        "secret\n");
    ASSERT_EQ(added.status, 0) << added.out << added.err;

    const auto first = kestrune({"sync", "alice@example.test", "--once"});
    ASSERT_EQ(first.status, 0) << first.out << first.err;
    EXPECT_NE(first.out.find("alice@example.test: 7 messages added"), std::string::npos)
        << first.out;
    {
        mailcore::SQLiteMailStore store(
            mailcore::StoreLocation::file((data / "mail.sqlite").string()));
        mailcore::SearchQuery query;
        query.text = "s6";
        ASSERT_EQ(store.search(query).size(), 1u);
    }
    // `show --raw` reads the original from the server.
    const auto found = kestrune({"search", "s6", "--json"});
    const auto id = nlohmann::json::parse(found.out).at(0).at("id").get<std::string>();
    EXPECT_EQ(kestrune({"show", id, "--raw"}).out,
              "From: a@example.com\r\nSubject: s6\r\nMessage-ID: <c6@example.com>\r\n\r\nbody\r\n");

    const auto again = kestrune({"sync", "--once"});
    EXPECT_NE(again.out.find("alice@example.test: 0 messages added"), std::string::npos)
        << again.out;

    // A wrong password is explained, and the command fails.
    server.addUser("alice", "changed");
    const auto refused = kestrune({"sync", "--once"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.out.find("refused the user name or password"), std::string::npos)
        << refused.out;
}

}  // namespace
}  // namespace kestrune
