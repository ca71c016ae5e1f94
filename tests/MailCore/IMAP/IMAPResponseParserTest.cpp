// The response parser on recorded server transcripts (a Dovecot session and
// a file of rarer forms), fed whole, byte by byte and split at every point,
// and on hostile input that must fail with its MailError within the limits.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <functional>

#include "MailCore/Common/MailError.h"
#include "MailCore/IMAP/IMAPResponseParser.h"
#include "tests/fakes/TestFiles.h"

namespace mailcore {
namespace {

using PIK = ProtocolIssueKind;

ProtocolLimits limits(std::int64_t line = 65536, std::int64_t literal = 1 << 20,
                      std::int64_t response = 4 << 20, std::int64_t search = 65536) {
    return ProtocolLimits{line, literal, response, 1000, search, 1000};
}

std::string transcript(const std::string& name) {
    const char* source = std::getenv("KESTRUNE_SOURCE_DIR");
    const auto dir = (source ? std::filesystem::path(source) / "tests/MailCore/IMAP"
                             : std::filesystem::path(__FILE__).parent_path()) /
                     "transcripts";
    const std::string text = testfiles::readFile(dir / name);
    if (text.empty()) throw std::runtime_error("missing transcript " + name);
    return text;
}

// Feeds `bytes` in pieces cut at `cuts` and collects every response.
std::vector<IMAPResponse> parseInPieces(const std::string& bytes, std::vector<std::size_t> cuts,
                                        const ProtocolLimits& l = limits()) {
    IMAPResponseParser parser(l);
    std::vector<IMAPResponse> responses;
    cuts.push_back(bytes.size());
    std::size_t from = 0;
    for (std::size_t cut : cuts) {
        parser.feed(std::string_view(bytes).substr(from, cut - from));
        from = cut;
        while (auto r = parser.next()) responses.push_back(std::move(*r));
    }
    EXPECT_EQ(parser.pendingBytes(), 0u);
    return responses;
}

template <typename T>
std::vector<T> all(const std::vector<IMAPResponse>& responses) {
    std::vector<T> found;
    for (const auto& r : responses) {
        if (const T* v = r.as<T>()) found.push_back(*v);
    }
    return found;
}

const IMAPFetchData& fetchOf(const std::vector<IMAPResponse>& responses, UIDValue uid) {
    for (const auto& r : responses) {
        const auto* f = r.as<IMAPFetchData>();
        if (f && f->uid == uid && (f->envelope || !f->sections.empty() || f->internalDate)) {
            return *f;
        }
    }
    throw std::runtime_error("no FETCH for UID " + std::to_string(uid));
}

TEST(IMAPResponseParserTest, TranscriptsParseAlikeWholeByteByByteAndAtEverySplit) {
    for (const char* name : {"dovecot-session.txt", "edge-cases.txt"}) {
        SCOPED_TRACE(name);
        const std::string bytes = transcript(name);
        const auto whole = parseInPieces(bytes, {});
        std::size_t wire = 0;
        for (const auto& r : whole) wire += r.wireBytes;
        EXPECT_EQ(wire, bytes.size());

        std::vector<std::size_t> everyByte;
        for (std::size_t i = 1; i < bytes.size(); ++i) everyByte.push_back(i);
        ASSERT_EQ(parseInPieces(bytes, everyByte), whole);
        // Every split point of the file lies in one response: split there.
        std::size_t offset = 0;
        for (const auto& response : whole) {
            const std::string one = bytes.substr(offset, response.wireBytes);
            for (std::size_t cut = 1; cut < one.size(); ++cut) {
                ASSERT_EQ(parseInPieces(one, {cut}), std::vector<IMAPResponse>{response})
                    << "split at " << offset + cut;
            }
            offset += response.wireBytes;
        }
    }
}

TEST(IMAPResponseParserTest, DovecotSessionGivesItsMailboxesMessagesAndCodes) {
    const auto r = parseInPieces(transcript("dovecot-session.txt"), {});

    const auto lists = all<IMAPListData>(r);
    ASSERT_GE(lists.size(), 8u);
    EXPECT_EQ(lists[1].name, "Projekte/Größe");
    EXPECT_EQ(lists[1].rawName, "Projekte/Gr&APYA3w-e");
    EXPECT_EQ(lists[1].delimiter, '/');
    EXPECT_EQ(lists[5].attributes, std::vector<std::string>{"\\Sent"});
    EXPECT_EQ(all<IMAPMailboxStatusData>(r).back().attributes.at("HIGHESTMODSEQ"), 7u);

    const IMAPFetchData& first = fetchOf(r, 1);
    ASSERT_TRUE(first.bodyStructure && first.envelope);
    const IMAPBodyStructure& mixed = *first.bodyStructure;
    EXPECT_EQ(mixed.subtype, "MIXED");
    ASSERT_EQ(mixed.parts.size(), 3u);
    EXPECT_EQ(mixed.parts[0].subtype, "ALTERNATIVE");
    EXPECT_EQ(mixed.parts[0].parts[0].encoding, "QUOTED-PRINTABLE");
    EXPECT_EQ(mixed.parts[1].disposition, "ATTACHMENT");
    ASSERT_TRUE(mixed.parts[2].envelope);
    EXPECT_EQ(mixed.parts[2].envelope->subject, "forwarded");
    EXPECT_EQ(mixed.parts[2].parts.at(0).lines, 0u);
    EXPECT_EQ(mixed.parts[2].lines, 4u);
    EXPECT_EQ(first.envelope->to.size(), 4u);  // bob, the group's start and end, carl
    EXPECT_FALSE(first.envelope->to[1].host);
    EXPECT_EQ(first.modSeq, 2u);
    EXPECT_EQ(first.size, 828u);
    EXPECT_EQ(first.internalDate, dateFromSeconds(1795447937));  // 23-Nov-2026 15:32:17 +0000

    const auto fetches = all<IMAPFetchData>(r);
    const IMAPFetchData& sections = fetches.at(4);
    ASSERT_EQ(sections.sections.size(), 4u);
    EXPECT_EQ(*sections.section("HEADER.FIELDS (SUBJECT MESSAGE-ID)"),
              "Subject: =?UTF-8?Q?Gr=C3=BC=C3=9Fe?= and plans\r\nMessage-ID: "
              "<m1@example.com>\r\n\r\n");
    EXPECT_EQ(sections.sections[1].origin, 0u);
    EXPECT_TRUE(sections.sections[2].binary);
    EXPECT_EQ(sections.sections[2].data, "Hello \xC3\xBC");
    EXPECT_EQ(sections.section("")->size(), 828u);

    const auto esearch = all<IMAPESearchData>(r).at(0);
    EXPECT_EQ(esearch.tag, "a12");
    EXPECT_EQ(esearch.all, UIDSet::fromUIDs({1, 2, 3, 4}));
    EXPECT_EQ(esearch.count, 4u);
    EXPECT_EQ(all<IMAPSearchData>(r).at(1).modSeq, 7u);

    const auto statuses = all<IMAPStatusResponse>(r);
    auto code = [&](const std::string& tag) {
        for (const auto& s : statuses) {
            if (s.tag == tag) return s.code.value_or(IMAPResponseCode{});
        }
        return IMAPResponseCode{};
    };
    EXPECT_EQ(code("a15").modified, UIDSet(1));
    EXPECT_EQ(code("a17").destinationUIDs, UIDSet(1));
    EXPECT_EQ(code("a17").number, 1795446519u);
    EXPECT_EQ(code("a19").name, "APPENDUID");
    EXPECT_EQ(code("a21").name, "READ-ONLY");
    EXPECT_EQ(all<IMAPVanishedData>(r).at(0).uids, UIDSet(4));
}

TEST(IMAPResponseParserTest, RarerFormsKeepTheirDetails) {
    const auto r = parseInPieces(transcript("edge-cases.txt"), {});
    const auto statuses = all<IMAPStatusResponse>(r);
    EXPECT_EQ(statuses[0].status, IMAPStatus::preauth);
    EXPECT_EQ(statuses[0].code->list.at(1), "LITERAL-");
    EXPECT_EQ(statuses[2].code->name, "X-UNKNOWN-CODE");
    EXPECT_EQ(statuses[2].code->argument, "some (args) here");
    EXPECT_EQ(statuses.back().status, IMAPStatus::bye);

    const auto lists = all<IMAPListData>(r);
    EXPECT_FALSE(lists[0].delimiter);
    EXPECT_EQ(lists[1].name, "quote\"and\\back");
    EXPECT_EQ(lists[1].oldName, "Old\xC3\xA4");
    EXPECT_EQ(lists[1].extended.at(0).second, "(\"SUBSCRIBED\")");
    EXPECT_EQ(lists[2].name, "Sent/2026");
    EXPECT_EQ(lists[3].name, "INBOX");
    EXPECT_EQ(all<IMAPMailboxStatusData>(r).at(0).attributes.at("HIGHESTMODSEQ"),
              18446744073709551615u);

    const auto esearch = all<IMAPESearchData>(r);
    EXPECT_TRUE(esearch[0].all.isEmpty());
    EXPECT_EQ(esearch[1].all.imapString(), "1:3,7,9:10");
    EXPECT_TRUE(all<IMAPVanishedData>(r).at(0).earlier);

    const auto& image = fetchOf(r, 100).bodyStructure->parts.at(1);
    EXPECT_EQ(image.parameters.at(0).second, "x.png");
    EXPECT_EQ(image.id, "<cid@x>");
    EXPECT_EQ(image.md5, "md5sum");
    EXPECT_EQ(image.language, (std::vector<std::string>{"en", "de"}));
    EXPECT_EQ(image.location, "http://loc");
    EXPECT_EQ(fetchOf(r, 100).bodyStructure->language, std::vector<std::string>{"fr"});

    const auto& odd = fetchOf(r, 101);
    EXPECT_EQ(odd.internalDate, dateFromSeconds(1772674200));  // 5-Mar-2026 01:30 UTC
    EXPECT_FALSE(odd.sections.at(0).data);
    EXPECT_EQ(odd.other.at(0).first, "X-GM-LABELS");
    EXPECT_EQ(*fetchOf(r, 102).section("RFC822"), "");
    EXPECT_EQ(fetchOf(r, 102).sections.at(0).data, std::string("ab\x01"
                                                               "c"));
    EXPECT_EQ(all<IMAPContinuation>(r).at(1).text, "dGVzdA==");
}

struct Hostile {
    const char* name;
    std::function<std::string()> bytes;
    ProtocolLimits limits;
    MailError error;
};

MailError tooLarge(const char* d) { return MailError::protocolViolation(PIK::responseTooLarge, d); }
MailError bad(const char* d) { return MailError::protocolViolation(PIK::malformedResponse, d); }

TEST(IMAPResponseParserTest, HostileInputFailsWithinTheLimits) {
    const std::vector<Hostile> cases = {
        {"endless line", [] { return std::string(5000, 'a'); }, limits(4096),
         tooLarge("line too long")},
        {"announced literal over the limit", [] { return "* 1 FETCH (BODY[] {2000000}\r\n"; },
         limits(), tooLarge("literal too large")},
        {"literals adding up past the response limit",
         [] {
             std::string s = "* 1 FETCH (BODY[1] {900}\r\n" + std::string(900, 'x');
             for (int i = 0; i < 5; ++i) s += " BODY[2] {900}\r\n" + std::string(900, 'x');
             return s;
         },
         limits(4096, 1000, 4000), tooLarge("response too large")},
        {"deep nesting",
         [] { return "* 1 FETCH (BODYSTRUCTURE " + std::string(200, '(') + "\r\n"; }, limits(),
         tooLarge("response nested too deeply")},
        {"too many flags",
         [] {
             std::string s = "* FLAGS (";
             for (std::size_t i = 0; i <= IMAPResponseParser::maxListItems; ++i) s += "a ";
             return s + ")\r\n";
         },
         limits(1 << 20, 1 << 20, 4 << 20), tooLarge("list too long")},
        {"search result over its limit",
         [] { return "* SEARCH " + std::string(2000, '1') + "\r\n"; },
         limits(65536, 1000, 65536, 1000), tooLarge("search result too large")},
        {"garbage", [] { return "\x01\x02 hello\r\n"; }, limits(), bad("malformed response")},
        {"tagged word unknown", [] { return "a1 MAYBE fine\r\n"; }, limits(),
         bad("malformed tagged response")},
        {"UID not a number", [] { return "* 1 FETCH (UID x)\r\n"; }, limits(),
         bad("malformed FETCH")},
        {"count past 32 bits", [] { return "* 4294967296 EXISTS\r\n"; }, limits(),
         bad("malformed message number")},
        {"open quote", [] { return "* LIST () \"/\" \"abc\r\n"; }, limits(), bad("malformed LIST")},
        {"long delimiter", [] { return "* LIST () \"//\" x\r\n"; }, limits(),
         bad("malformed LIST")},
        {"literal shorter than said", [] { return "* 1 FETCH (BODY[] ~{x}\r\n"; }, limits(),
         bad("malformed BODY")},
        {"impossible date",
         [] { return "* 1 FETCH (INTERNALDATE \"31-Foo-2026 00:00:00 +0000\")\r\n"; }, limits(),
         bad("malformed INTERNALDATE")},
        {"unclosed FETCH", [] { return "* 1 FETCH (UID 3\r\n"; }, limits(), bad("malformed FETCH")},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        IMAPResponseParser parser(c.limits);
        const std::string bytes = c.bytes();
        const auto error = testfiles::caught<MailError>([&] {
            for (char b : bytes) {
                parser.feed(std::string_view(&b, 1));
                while (parser.next()) {
                }
            }
        });
        ASSERT_TRUE(error);
        EXPECT_EQ(*error, c.error);
        // Never more than a line and a literal is held, and the failure sticks.
        EXPECT_LE(parser.pendingBytes(),
                  static_cast<std::size_t>(c.limits.maxResponseBytes + c.limits.maxLineBytes));
        EXPECT_EQ(testfiles::caught<MailError>([&] { parser.next(); }), c.error);
    }
}

}  // namespace
}  // namespace mailcore
