#include "MIMETestSupport.h"

#include "MailCore/Common/MailError.h"
#include "MailCore/MIME/MailSources.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace mailcore {
namespace {

namespace fs = std::filesystem;
using testing::TemporaryDirectory;
using testing::writeFile;

void makeMaildir(const fs::path& dir) {
    for (const char* sub : {"cur", "new", "tmp"}) fs::create_directories(dir / sub);
}

TEST(MaildirFlags, InfoSuffixGivesFlags) {
    struct Case {
        const char* name;
        std::int64_t system;
        std::vector<std::string> keywords;
    };
    const std::vector<Case> cases = {
        {"1700000000.M1P2.host:2,S", MessageFlags::seen, {}},
        {"1700000000.M1P2.host:2,FRS", MessageFlags::flagged | MessageFlags::answered | MessageFlags::seen, {}},
        {"1700000000.M1P2.host:2,DT", MessageFlags::draft | MessageFlags::deleted, {}},
        {"1700000000.M1P2.host:2,PS", MessageFlags::seen, {"$Forwarded"}},
        {"1700000000.M1P2.host!2,S", MessageFlags::seen, {}},
        {"1700000000.M1P2.host:2,", 0, {}},
        {"1700000000.M1P2.host", 0, {}},
        {"1700000000.M1P2.host:2,Sab", MessageFlags::seen, {}},  // lower-case letters are keywords of other programs
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const MessageFlags flags = flagsFromMaildirName(c.name);
        EXPECT_EQ(flags.system, c.system);
        EXPECT_EQ(flags.keywords, c.keywords);
    }
}

TEST(MaildirFolders, RootSubfoldersAndNestedFoldersWithRoles) {
    TemporaryDirectory tmp;
    const fs::path root = tmp.path();
    makeMaildir(root);
    makeMaildir(root / ".Sent");
    makeMaildir(root / ".Work.Projects");
    makeMaildir(root / "Archive" / "2024");
    makeMaildir(root / "Spam");
    fs::create_directories(root / ".hidden-tool-dir");
    fs::create_directories(root / ".NotAMaildir");

    std::vector<std::string> found;
    for (const auto& f : findMaildirFolders(root)) {
        found.push_back(f.path + " " + f.delimiter.value_or("-") + " " + std::string(rawValue(f.role)));
    }
    EXPECT_EQ(found, (std::vector<std::string>{"INBOX - inbox", "Sent . sent", "Work.Projects . custom",
                                                "Archive/2024 / custom", "Spam / junk"}));
}

TEST(MaildirFolders, UnreadableRootIsAnError) {
    try {
        findMaildirFolders("/nonexistent/kestrune-maildir");
        FAIL() << "expected an error";
    } catch (const MailError& e) {
        EXPECT_EQ(e.detail(), "cannot read maildir /nonexistent/kestrune-maildir");
    }
}

TEST(MaildirMessages, ListsCurAndNewNeverTmp) {
    TemporaryDirectory tmp;
    const fs::path dir = tmp.path();
    makeMaildir(dir);
    writeFile((dir / "cur" / "200.B:2,S").string(), "Subject: b\n\nb\n");
    writeFile((dir / "new" / "100.A").string(), "Subject: a\n\na\n");
    writeFile((dir / "tmp" / "300.C").string(), "Subject: c\n\nc\n");
    writeFile((dir / "cur" / ".hidden").string(), "x");
    // The same message left in new/ and cur/ by an interrupted rename.
    writeFile((dir / "new" / "400.D").string(), "Subject: d\n\nd\n");
    writeFile((dir / "cur" / "400.D:2,S").string(), "Subject: d\n\nd\n");
    const auto messages = listMaildirMessages(dir);
    std::vector<std::string> names;
    for (const auto& m : messages) names.push_back(m.uniqueName);
    EXPECT_EQ(names, (std::vector<std::string>{"100.A", "200.B", "400.D"}));
    EXPECT_EQ(messages[1].flags.system, MessageFlags::seen);
    EXPECT_EQ(messages[0].flags.system, 0);
}

TEST(Mbox, SplitsOnFromLinesAndReadsFlagsAndDates) {
    const std::string mbox =
        "From alice@example.com Sat Jan  3 01:05:34 1996\n"
        "Subject: one\nStatus: RO\nX-Status: AF\n\nbody one\n>From the start\n>>From deeper\n\n"
        "From bob@example.com Mon Feb 12 10:00:00 2024\n"
        "Subject: two\n\nFrom here on, a line that is not a separator\n\n"
        "From carol@example.com Tue Feb 13 10:00:00 2024\n"
        "Subject: three\n\nlast\n";
    const auto messages = splitMbox(mbox);
    ASSERT_EQ(messages.size(), 3u);
    EXPECT_EQ(mboxMessageText(mbox, messages[0]),
              "Subject: one\nStatus: RO\nX-Status: AF\n\nbody one\nFrom the start\n>From deeper\n");
    EXPECT_EQ(messages[0].flags.system, MessageFlags::seen | MessageFlags::answered | MessageFlags::flagged);
    ASSERT_TRUE(messages[0].internalDate.has_value());
    EXPECT_EQ(secondsSince1970(*messages[0].internalDate), 820631134.0);
    // A body line starting with "From " but naming no time is text, not a separator.
    EXPECT_EQ(mboxMessageText(mbox, messages[1]),
              "Subject: two\n\nFrom here on, a line that is not a separator\n");
    EXPECT_EQ(mboxMessageText(mbox, messages[2]), "Subject: three\n\nlast\n");
    EXPECT_EQ(messages[1].flags.system, 0);
}

TEST(Mbox, EmptyAndHeaderlessInput) {
    EXPECT_TRUE(splitMbox("").empty());
    EXPECT_TRUE(splitMbox("just some text\nwithout any separator\n").empty());
    const auto leading = splitMbox("Subject: no separator line\n\nbody\n");
    ASSERT_EQ(leading.size(), 1u);
    EXPECT_EQ(leading[0].offset, 0u);
}

}  // namespace
}  // namespace mailcore
