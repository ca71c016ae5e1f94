// Text helpers of mail content: UTF-8 repair and snippets.
#include <gtest/gtest.h>

#include "MailCore/Common/UTF8.h"
#include "MailCore/MIME/MIMEText.h"

namespace mailcore {
namespace {

TEST(MIMEText, SanitizeRepairsUTF8AndDropsNUL) {
    EXPECT_EQ(sanitizeUTF8(std::string("ok \xC3\xA9 \xC3\0b", 9)), "ok é \uFFFDb");
}

TEST(MIMEText, SnippetEdgeCases) {
    EXPECT_EQ(makeSnippet(""), "");
    EXPECT_EQ(makeSnippet("> only a quote\n> more\n"), "");
    EXPECT_EQ(makeSnippet("\xE2\x80\x8C\xC2\xA0 \t hi\xC2\xA0there"), "hi there");
    EXPECT_EQ(makeSnippet("Thanks!\r\n\r\n-- \r\nsig"), "Thanks!");
    EXPECT_EQ(makeSnippet("Thanks!\n--\nsig"), "Thanks!");  // separator without its space
    EXPECT_EQ(makeSnippet("Ending with a colon:\nnot a quote"), "Ending with a colon: not a quote");
    EXPECT_EQ(makeSnippet("ééééé", 3), "ééé");
}

}  // namespace
}  // namespace mailcore
