#include <gtest/gtest.h>

#include <string>

#include "MailCore/AI/AIContentSanitizer.h"

namespace mailcore {
namespace {

using S = AIContentSanitizer;

struct Case {
    std::string input;
    int limit;
    std::string output;
};

TEST(QuotesAndSignaturesTest, DeepQuotesCollapseToOnePlaceholderPerRun) {
    const Case cases[] = {
        {"reply\n> one\n>> two\n>>> three\n> one again", 1,
         "reply\n> one\n[quoted text removed]\n> one again"},
        {"> > two\n> >> three\n>  > two", 1, "[quoted text removed]"},
        {"a\n>> x\n\n>> y\nb", 1, "a\n[quoted text removed]\nb"},   // blank line inside the run
        {"a\n>> x\n>\n>> y\nb", 1, "a\n[quoted text removed]\nb"},  // empty quote line too
        {"a\n>> x\n\nb", 1, "a\n[quoted text removed]\n\nb"},
        {"a\n>> x\n> kept\n>> y", 1, "a\n[quoted text removed]\n> kept\n[quoted text removed]"},
        {"a\n> x\n>> y", 0, "a\n[quoted text removed]"},
        {"a\n> x\n>> y", -3, "a\n[quoted text removed]"},
        {"a\n> x\n>> y\n>>> z", 2, "a\n> x\n>> y\n[quoted text removed]"},
        {"  > indented\n \t>> deep", 1, "  > indented\n[quoted text removed]"},
        {"a > b\n>>> deep", 1, "a > b\n[quoted text removed]"},
        {"no quotes at all", 1, "no quotes at all"},
        {"", 1, ""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(S::collapseQuotes(c.input, c.limit), c.output) << c.input;
    }
}

TEST(QuotesAndSignaturesTest, OnlyLongSignaturesAreDropped) {
    const std::string six = "Jane Doe\nEngineer\nACME\n+1 555 0100\nacme.example\nBerlin";
    const Case cases[] = {
        {"Thanks\n-- \n" + six, 6, "Thanks\n-- \n" + six},  // six lines stay
        {"Thanks\n-- \n" + six + "\nTwitter", 6, "Thanks\n[signature removed]"},
        {"Thanks\n--\n" + six + "\n\n\nTwitter\n\n", 6, "Thanks\n[signature removed]"},
        {"Thanks\n-- \na\n\n\nb", 1, "Thanks\n[signature removed]"},  // blank lines not counted
        {"Thanks\n-- \na\n\n\n", 1, "Thanks\n-- \na\n\n\n"},
        {"Thanks\n-- \na", 0, "Thanks\n[signature removed]"},
        {"Thanks\n-- \na", -1, "Thanks\n[signature removed]"},
        // The last separator counts; the first signature stays.
        {"Hi\n-- \nfirst\n---- forwarded ----\nbody\n-- \n1\n2\n3", 2,
         "Hi\n-- \nfirst\n---- forwarded ----\nbody\n[signature removed]"},
        // The signature ends at the quoted history below it.
        {"Hi\n-- \n1\n2\n3\n> quoted\n> more", 2, "Hi\n[signature removed]\n> quoted\n> more"},
        {"Hi\n---\n1\n2\n3", 1, "Hi\n---\n1\n2\n3"},  // not a separator
        {"Hi\n -- \n1\n2\n3", 1, "Hi\n -- \n1\n2\n3"},
        {"Hi\n-- \n1\n2\n  > quoted", 1, "Hi\n[signature removed]\n  > quoted"},
        {"x -- y\n1\n2", 0, "x -- y\n1\n2"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(S::dropLongSignature(c.input, c.limit), c.output) << c.input;
    }
}

TEST(QuotesAndSignaturesTest, BlankLinesCollapseAndTextIsTrimmed) {
    struct Blank {
        std::string input;
        std::string output;
    };
    const Blank cases[] = {
        {"a\n\n\n\nb", "a\n\nb"},
        {"a\n \t \n\t\nb", "a\n\nb"},
        {"\n\n  a  \nb\t\n\n\n", "a\nb"},
        {"a\nb", "a\nb"},
        {"   ", ""},
        {"", ""},
        {"  indented first\n  indented second", "indented first\n  indented second"},
    };
    for (const auto& c : cases) EXPECT_EQ(S::collapseBlankLines(c.input), c.output) << c.input;
}

}  // namespace
}  // namespace mailcore
