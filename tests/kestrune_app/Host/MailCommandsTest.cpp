// `kestrune search` and `kestrune show` through the command line's entry,
// on a store filled by `kestrune import` from a Maildir.
#include <gtest/gtest.h>

#include <fstream>
#include <nlohmann/json.hpp>

#include "AppTestSupport.h"
#include "kestrune_app/Host/HostCommands.h"

namespace kestrune {
namespace {

namespace fs = std::filesystem;

struct MailCommandsTest : ::testing::Test {
    testing::TempDir dir;
    std::string out, err, written;
    bool terminal = false;
    // A message whose text tries to retitle the terminal (the parser already
    // makes headers plain text).
    const std::string hostile = testing::rawMessage("Mallory <m@example.com>", "Invoice paid",
                                                    "Mon, 16 Nov 2026 10:00:00 +0000",
                                                    "Pay here\033]0;owned\007\r\n\u009b2J thanks");

    void SetUp() override {
        const fs::path maildir = dir.path / "Maildir";
        for (const char* sub : {"cur", "new", "tmp"}) fs::create_directories(maildir / sub);
        std::ofstream(maildir / "cur" / "1700000000.a.host:2,S")
            << testing::rawMessage("Ada <ada@example.com>", "Budget review",
                                   "Sun, 15 Nov 2026 09:00:00 +0000", "The budget is fine.");
        std::ofstream(maildir / "new" / "1700000001.b.host", std::ios::binary) << hostile;
        ASSERT_EQ(run({"import", "--account", "me@example.com", "--maildir", maildir.string()}), 0)
            << err;
    }

    int run(std::vector<std::string> args) {
        out.clear();
        err.clear();
        written.clear();
        args.insert(args.end(), {"--data-dir", (dir.path / "data").string()});
        HostCommands::Environment env;
        env.home = dir.path / "home";
        env.out = [this](const std::string& t) { out += t + "\n"; };
        env.err = [this](const std::string& t) { err += t + "\n"; };
        env.write = [this](std::string_view bytes) { written += bytes; };
        env.outIsTerminal = terminal;
        return HostCommands::run(args, env);
    }

    // The handle of the one message matching `query`.
    std::string handle(const std::string& query) {
        EXPECT_EQ(run({"search", query, "--json"}), 0) << err;
        const auto list = nlohmann::json::parse(out);
        EXPECT_EQ(list.size(), 1u) << out;
        return list.empty() ? "" : list[0]["id"].get<std::string>();
    }
};

TEST_F(MailCommandsTest, HandlesThatMatchNothingFailWithASentence) {
    const struct {
        std::vector<std::string> args;
        int status;
        std::string says;
    } cases[] = {
        {{"show", "m999999"}, 1, "No message has the handle m999999."},
        {{"show", "budget"}, 1, "not a message handle"},
        {{"show"}, 64, "missing the message handle"},
        {{"search", "budget", "--limit", "0"}, 64, "--limit must be 1 to 1000"},
        {{"search", "budget", "--folder", "Nowhere"}, 1, "There is no folder Nowhere."},
        {{"search", "zebra"}, 0, "No message matches."},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(run(c.args), c.status) << c.args[0] << " " << err;
        EXPECT_NE(err.find(c.says), std::string::npos) << err;
        EXPECT_EQ(out, "") << c.args[0];
    }
}

TEST_F(MailCommandsTest, MailCannotSendEscapeCodesToTheTerminal) {
    const std::string id = handle("invoice");
    terminal = true;
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{"search", "invoice"}, "Invoice paid"},
        {{"show", id}, "Pay here·]0;owned·\n·2J thanks"},
        {{"show", id, "--raw"}, "Pay here·]0;owned·\n·2J thanks"},
        {{"show", id, "--json"}, R"(Pay here\u001b]0;owned\u0007\n\u009b2J thanks)"},
    };
    for (const auto& [args, shown] : cases) {
        ASSERT_EQ(run(args), 0) << err;
        for (const std::string code : {"\033", "\u009b"})
            EXPECT_EQ((out + written).find(code), std::string::npos) << out << written;
        EXPECT_NE(out.find(shown), std::string::npos) << out;
    }

    // Into a file or a pipe, --raw is the original message byte for byte.
    terminal = false;
    ASSERT_EQ(run({"show", id, "--raw"}), 0) << err;
    EXPECT_EQ(written, hostile);
}

TEST_F(MailCommandsTest, RawReadsTheImportedMboxAgainAndSaysWhenItIsGone) {
    const std::string second = testing::rawMessage("b@example.com", "Second letter",
                                                   "Tue, 17 Nov 2026 10:00:00 +0000", "two");
    const fs::path mbox = dir.path / "saved.mbox";
    std::ofstream(mbox) << "From a Mon Jan 1 00:00:00 2026\n"
                        << testing::rawMessage("a@example.com", "First letter",
                                               "Mon, 16 Nov 2026 10:00:00 +0000", "one")
                        << "\nFrom b Mon Jan 1 00:00:00 2026\n"
                        << second;
    ASSERT_EQ(run({"import", "--account", "box@example.com", "--mbox", mbox.string()}), 0) << err;
    const std::string id = handle("second");
    ASSERT_EQ(run({"show", id, "--raw"}), 0) << err;
    EXPECT_EQ(written, second);

    fs::remove(mbox);
    EXPECT_EQ(run({"show", id, "--raw"}), 1);
    EXPECT_NE(err.find("no longer in the Maildir or mbox it was imported from"), std::string::npos)
        << err;
}

TEST_F(MailCommandsTest, JsonOutputParses) {
    ASSERT_EQ(run({"search", "--json", "--unread"}), 0) << err;
    const auto unread = nlohmann::json::parse(out);
    ASSERT_EQ(unread.size(), 1u);  // the Maildir's "S" flag marks the other one read
    EXPECT_EQ(unread[0]["subject"], "Invoice paid");

    ASSERT_EQ(run({"show", handle("budget"), "--json"}), 0) << err;
    const auto message = nlohmann::json::parse(out);
    EXPECT_EQ(message["from"][0]["email"], "ada@example.com");
    EXPECT_EQ(message["body"], "The budget is fine.\n");
    EXPECT_EQ(message["unread"], false);
}

}  // namespace
}  // namespace kestrune
