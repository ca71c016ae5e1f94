#include <gtest/gtest.h>

#include <string>

#include "MailCore/AI/AIContentSanitizer.h"

namespace mailcore {
namespace {

using S = AIContentSanitizer;

struct Case {
    std::string input;
    std::string output;
};

TEST(LinksAndDataTest, EmbeddedAndBinaryData) {
    const std::string line(76, 'Q');
    const Case cases[] = {
        {"img data:image/png;base64,iVBORw0KGgoAAAANSUhEUgAAAAEAAAABCAYAAAAfFcSJAAAADUlEQVR42mNk "
         "end",
         "img [embedded data removed] end"},
        {"short data:image/png;base64,iVBORw0K end", "short data:image/png;base64,iVBORw0K end"},
        {"blob " + line + " end", "blob [binary data removed] end"},
        {line + "\n" + line + "\n" + line + "\nafter", "[binary data removed]\nafter"},
        {line + "\n\n" + line, "[binary data removed]\n\n[binary data removed]"},
        {std::string(59, 'a'), std::string(59, 'a')},
        {std::string(60, 'a'), "[binary data removed]"},
        {"sha " + std::string(64, 'f'), "sha [binary data removed]"},
        // A blob's short last line goes with it; ordinary lines after it stay.
        {line + "\n" + line + "\nQmx1ZSBza3k=\nThanks", "[binary data removed]\nThanks"},
        {line + "\n" + line + "\njnknZaMedcNq+OQHpHEsvzdP\n", "[binary data removed]\n"},
        {line + "\n" + line + "\nThanks", "[binary data removed]\nThanks"},
        {line + "\n" + line + "\nSee you, Jo", "[binary data removed]\nSee you, Jo"},
        {line + "\nQmx1ZSBza3k=", "[binary data removed]\nQmx1ZSBza3k="},  // a single line: no blob
    };
    for (const auto& c : cases) EXPECT_EQ(S::removeEmbeddedData(c.input), c.output) << c.input;
}

TEST(LinksAndDataTest, TrackingHostsAndPaths) {
    const char* const tracking[] = {
        "https://click.example.com/x",
        "http://clicks.shop.example/abc",
        "https://track.example.com",
        "https://trk.example.com/y",
        "https://links.example.com/a",
        "https://link.example.com/a",
        "https://email.example.com/a",
        "https://e.example.com/a",
        "https://go.example.com/a",
        "https://r.example.com/a",
        "https://t.example.com/a",
        "https://u12345.ct.sendgrid.net/ls/click?upn=x",
        "https://url9412.example.com/a",
        "https://elink.example.com/a",
        "https://elink42.example.com/a",
        "https://tracking3.example.com/a",
        "https://mandrillapp.com/track/click/1",
        "https://sendgrid.net/wf/click?upn=1",
        "https://example.us5.list-manage.com/track/click?u=1",
        "https://x.hubspotlinks.com/a",
        "https://x.rs6.net/tn.jsp?f=1",
        "https://x.rs12.net/a",
        "https://clicks.mlsend.com/tl/c/x",
        "https://links.iterable.com/a",
        "https://trk.klclick.com/ls/click?x",
        "HTTPS://CLICK.EXAMPLE.COM/X",
        "https://user:pw@click.example.com:8443/x",
        "https://example.com/track/abc",
        "https://example.com/click?x=1",
        "https://example.com/a/open",
        "https://example.com/pixel/1.gif",
        "https://example.com/beacon",
        "https://example.com/redirect?to=x",
        "https://example.com/wf/click?upn=1",
        "https://example.com/e/c/abc",
        "https://example.com/ls/click?x",
        "https://example.com/CLICKS/",
    };
    for (const char* address : tracking) {
        EXPECT_EQ(S::cleanLinks(std::string("see ") + address + " now"),
                  "see [tracking link removed] now")
            << address;
    }
    const char* const ordinary[] = {
        "https://example.com/",
        "https://example.com/clicker",
        "https://example.com/opening/x",
        "https://email-example.com/x",
        "https://goals.example.com/x",
        "https://example.com/list-manage",
        "https://docs.example.com/a?page=2&lang=en#top",
        "https://example.com/p?utm_source",  // no '=': not a parameter value
    };
    for (const char* address : ordinary) {
        EXPECT_EQ(S::cleanLinks(std::string("see ") + address + " now"),
                  std::string("see ") + address + " now");
    }
}

TEST(LinksAndDataTest, TrackingParametersAreDroppedFromOtherAddresses) {
    const Case cases[] = {
        {"https://shop.example.com/p/42?utm_source=news&utm_medium=email&id=7",
         "https://shop.example.com/p/42?id=7"},
        {"https://shop.example.com/p/42?id=7&utm_campaign=x#reviews",
         "https://shop.example.com/p/42?id=7#reviews"},
        // Only tracking parameters: the bare address remains.
        {"https://shop.example.com/p/42?utm_source=news&fbclid=abc",
         "https://shop.example.com/p/42"},
        {"https://shop.example.com/?gclid=1#top", "https://shop.example.com/#top"},
        {"https://shop.example.com?mc_eid=1&mc_cid=2", "https://shop.example.com"},
        {"https://x.example/?SID=1&sidebar=2&cid=3&ref_id=4&refid=5&trk=6",
         "https://x.example/?sidebar=2"},
        {"https://x.example/?a=1&&_hsenc=p2&_hsmi=3&mkt_tok=4&b=2", "https://x.example/?a=1&b=2"},
    };
    for (const auto& c : cases) EXPECT_EQ(S::cleanLinks(c.input), c.output) << c.input;
}

TEST(LinksAndDataTest, AddressBoundariesFollowTheAddressPattern) {
    EXPECT_EQ(S::cleanLinks("(https://click.example.com/a) and \"https://t.example.com/b\""),
              "([tracking link removed]) and \"[tracking link removed]\"");
    EXPECT_EQ(S::cleanLinks("[https://click.example.com/a]"), "[[tracking link removed]]");
    EXPECT_EQ(S::cleanLinks("xhttps://click.example.com/a"), "xhttps://click.example.com/a");
    // A placeholder that step 4 put inside an address stays inside it.
    std::string broken =
        "https://click.example.com/" + std::string(AIContentSanitizer::binaryDataRemoved) + "/x y";
    EXPECT_EQ(S::cleanLinks(broken), "[tracking link removed] y");
}

}  // namespace
}  // namespace mailcore
