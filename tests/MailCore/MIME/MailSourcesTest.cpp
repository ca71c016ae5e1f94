// Reading mail sources: maildir folders, flags and messages; mbox files.
#include <gtest/gtest.h>

#include "MIMETestSupport.h"
#include "MailCore/Common/MailError.h"
#include "MailCore/MIME/MailSources.h"

namespace mailcore::testing {
namespace {

namespace fs = std::filesystem;

TEST(MaildirSources, InfoSuffixGivesFlags) {
    using F = MessageFlags;
    const std::tuple<const char*, std::int64_t, std::vector<std::string>> cases[] = {
        {"1700000000.M1P2.host:2,S", F::seen, {}},
        {"1700000000.M1P2.host:2,FRS", F::flagged | F::answered | F::seen, {}},
        {"1700000000.M1P2.host:2,DT", F::draft | F::deleted, {}},
        {"1700000000.M1P2.host:2,PS", F::seen, {"$Forwarded"}},
        {"1700000000.M1P2.host!2,S", F::seen, {}},
        {"1700000000.M1P2.host:2,", 0, {}},
        {"1700000000.M1P2.host", 0, {}},
        {"1700000000.M1P2.host:2,Sab", F::seen, {}},  // lower case: other programs' keywords
    };
    for (const auto& [name, system, keywords] : cases) {
        const MessageFlags flags = flagsFromMaildirName(name);
        EXPECT_EQ(flags.system, system) << name;
        EXPECT_EQ(flags.keywords, keywords) << name;
    }
}

TEST(MaildirSources, FoldersWithRolesAndMessagesFromCurAndNewNeverTmp) {
    TempDir tmp;
    const fs::path root = tmp.path();
    for (const fs::path& dir : {root, root / ".Sent", root / ".Work.Projects",
                                root / "Archive" / "2024", root / "Spam"}) {
        makeMaildir(dir);
    }
    fs::create_directories(root / ".hidden-tool-dir");
    fs::create_directories(root / ".NotAMaildir");
    std::vector<std::string> found;
    for (const auto& f : findMaildirFolders(root)) {
        found.push_back(f.path + " " + f.delimiter.value_or("-") + " " +
                        std::string(rawValue(f.role)));
    }
    EXPECT_EQ(found,
              (std::vector<std::string>{"INBOX - inbox", "Sent . sent", "Work.Projects . custom",
                                        "Archive/2024 / custom", "Spam / junk"}));

    writeFile(root / "cur" / "200.B:2,S", "Subject: b\n\nb\n");
    writeFile(root / "new" / "100.A", "Subject: a\n\na\n");
    writeFile(root / "tmp" / "300.C", "Subject: c\n\nc\n");
    writeFile(root / "cur" / ".hidden", "x");
    // The same message left in new/ and cur/ by an interrupted rename.
    writeFile(root / "new" / "400.D", "Subject: d\n\nd\n");
    writeFile(root / "cur" / "400.D:2,S", "Subject: d\n\nd\n");
    const auto messages = listMaildirMessages(root);
    std::vector<std::string> names;
    for (const auto& m : messages) names.push_back(m.uniqueName);
    EXPECT_EQ(names, (std::vector<std::string>{"100.A", "200.B", "400.D"}));
    EXPECT_EQ(messages[0].flags.system, 0);
    EXPECT_EQ(messages[1].flags.system, MessageFlags::seen);

    try {
        findMaildirFolders("/nonexistent/kestrune-maildir");
        ADD_FAILURE() << "expected an error";
    } catch (const MailError& e) {
        EXPECT_EQ(e.detail(), "cannot read maildir /nonexistent/kestrune-maildir");
    }
}

TEST(MboxSource, SplitsOnFromLinesAndReadsFlagsAndDates) {
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
    EXPECT_EQ(messages[0].flags.system,
              MessageFlags::seen | MessageFlags::answered | MessageFlags::flagged);
    ASSERT_TRUE(messages[0].internalDate.has_value());
    EXPECT_EQ(secondsSince1970(*messages[0].internalDate), 820631134.0);
    // A body line starting with "From " but naming no time is text, not a separator.
    EXPECT_EQ(mboxMessageText(mbox, messages[1]),
              "Subject: two\n\nFrom here on, a line that is not a separator\n");
    EXPECT_EQ(mboxMessageText(mbox, messages[2]), "Subject: three\n\nlast\n");
    EXPECT_EQ(messages[1].flags.system, 0);

    EXPECT_TRUE(splitMbox("").empty());
    EXPECT_TRUE(splitMbox("just some text\nwithout any separator\n").empty());
    const auto leading = splitMbox("Subject: no separator line\n\nbody\n");
    ASSERT_EQ(leading.size(), 1u);
    EXPECT_EQ(leading[0].offset, 0u);
}

}  // namespace
}  // namespace mailcore::testing
