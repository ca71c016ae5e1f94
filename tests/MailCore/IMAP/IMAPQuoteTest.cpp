#include <gtest/gtest.h>

#include "MailCore/Common/MailError.h"
#include "MailCore/IMAP/IMAPQuote.h"

namespace mailcore {
namespace {

TEST(IMAPQuoteTest, QuotedEscapesQuotesAndBackslashes) {
    struct Case {
        std::string text;
        std::optional<std::string> quoted;
    };
    const Case cases[] = {
        {"INBOX", "\"INBOX\""},
        {"", "\"\""},
        {"say \"hi\"", "\"say \\\"hi\\\"\""},
        {"a\\b", "\"a\\\\b\""},
        {"Grüße", "\"Grüße\""},  // UTF-8 inside the quotes
        {"tab\there", "\"tab\there\""},
        {"line\nbreak", std::nullopt},
        {"carriage\rreturn", std::nullopt},
        {std::string("nul\0byte", 8), std::nullopt},
    };
    for (const auto& c : cases) EXPECT_EQ(IMAPQuote::quoted(c.text), c.quoted) << c.text;
}

TEST(IMAPQuoteTest, MailboxIsEncodedThenQuoted) {
    EXPECT_EQ(IMAPQuote::mailbox("INBOX"), "\"INBOX\"");
    EXPECT_EQ(IMAPQuote::mailbox("Tom & \"Jerry\""), "\"Tom &- \\\"Jerry\\\"\"");
    EXPECT_EQ(IMAPQuote::mailbox("Archiv/Entwürfe"), "\"Archiv/Entw&APw-rfe\"");
    EXPECT_EQ(IMAPQuote::mailbox("back\\slash"), "\"back\\\\slash\"");
}

TEST(IMAPQuoteTest, MailboxRejectsEmptyNamesAndControlCharacters) {
    const std::string invalid[] = {"",        "tab\tname", "new\nline", std::string("nul\0", 4),
                                   "del\x7f", "esc\x1b"};
    for (const auto& name : invalid) {
        try {
            IMAPQuote::mailbox(name);
            ADD_FAILURE() << "accepted " << name;
        } catch (const MailError& error) {
            EXPECT_EQ(error, MailError::protocolViolation(ProtocolIssueKind::invalidInput,
                                                          "invalid mailbox name"));
        }
    }
}

}  // namespace
}  // namespace mailcore
