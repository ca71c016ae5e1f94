#include <gtest/gtest.h>

#include <deque>
#include <random>
#include <string>
#include <vector>

#include "MailCore/Transport/StreamReader.h"
#include "TLSTestPeers.h"

namespace mailcore {
namespace {

const MailError closedByServer =
    MailError::network(NetworkFailureKind::connectionLost, "connection closed by server");
const MailError tooLong =
    MailError::protocolViolation(ProtocolIssueKind::responseTooLarge, "line too long");
const MailError pastScript = MailError::network(NetworkFailureKind::other, "read past script");

// A ByteStream that hands out scripted chunks, one per read (cut to the
// asked length), then either ends or fails with "read past script" so that
// a test can tell a failure decided early from one caused by running out.
class ChunkedStream final : public ByteStream {
public:
    ChunkedStream(std::vector<std::string> chunks, bool endsAfterScript)
        : chunks_(chunks.begin(), chunks.end()), ends_(endsAfterScript) {}

    void open() override {}
    void upgradeToTLS(const std::string&) override {}
    void write(const Bytes&) override {}
    void close() override {}
    Bytes read(int maxLength) override {
        if (chunks_.empty()) {
            if (ends_) return {};
            throw pastScript;
        }
        std::string& front = chunks_.front();
        const std::size_t n = std::min(front.size(), static_cast<std::size_t>(maxLength));
        maxLengths.push_back(maxLength);
        Bytes out = toBytes(std::string_view(front).substr(0, n));
        front.erase(0, n);
        if (front.empty()) chunks_.pop_front();
        return out;
    }

    std::vector<int> maxLengths;

private:
    std::deque<std::string> chunks_;
    bool ends_;
};

enum class Split { whole, byteByByte, random1, random2, random3 };

std::vector<std::string> split(const std::string& input, Split how) {
    std::vector<std::string> chunks;
    if (how == Split::whole) {
        if (!input.empty()) chunks.push_back(input);
        return chunks;
    }
    std::mt19937 random(static_cast<unsigned>(how));
    for (std::size_t i = 0; i < input.size();) {
        std::size_t n = how == Split::byteByByte ? 1 : 1 + random() % 7;
        n = std::min(n, input.size() - i);
        chunks.push_back(input.substr(i, n));
        i += n;
    }
    return chunks;
}

const Split allSplits[] = {Split::whole, Split::byteByByte, Split::random1, Split::random2,
                           Split::random3};

// Runs readLine(maxBytes) until it throws; returns the lines and what ended it.
std::pair<std::vector<std::string>, MailError> readAllLines(ByteStream& stream,
                                                            std::size_t maxBytes) {
    StreamReader reader(stream);
    std::vector<std::string> lines;
    try {
        for (;;) lines.push_back(bytesToString(reader.readLine(maxBytes)));
    } catch (const MailError& e) {
        return {lines, e};
    }
}

TEST(StreamReaderTest, SplitsLinesTheSameWayHoweverTheInputArrives) {
    struct Case {
        const char* name;
        std::string input;
        std::size_t maxBytes;
        bool endsAfterScript;
        std::vector<std::string> lines;
        MailError end;
    };
    const std::string eight(8, 'x');
    const std::vector<Case> cases = {
        {"CR LF and bare LF",
         "A1 OK done\r\n* 1 EXISTS\n\r\n\n",
         100,
         true,
         {"A1 OK done", "* 1 EXISTS", "", ""},
         closedByServer},
        {"a CR inside a line stays",
         "a\rb\r\r\n\rc\n",
         100,
         true,
         {"a\rb\r", "\rc"},
         closedByServer},
        {"a line of exactly maxBytes with CR LF",
         eight + "\r\n" + eight + "\n",
         8,
         true,
         {eight, eight},
         closedByServer},
        {"one byte more is too long", eight + "y\r\n", 8, true, {}, tooLong},
        {"too long before the line end arrives", eight + "y", 8, false, {}, tooLong},
        {"a pending CR at maxBytes + 1 may still end the line",
         eight + "\r",
         8,
         false,
         {},
         pastScript},
        {"a CR followed by more at maxBytes + 2 is too long", eight + "\ry", 8, false, {}, tooLong},
        {"a line after a long one is not affected",
         "ok\n" + eight + "yy",
         8,
         false,
         {"ok"},
         tooLong},
        {"partial last line at the end of the stream",
         "A1 OK\r\nA2 O",
         100,
         true,
         {"A1 OK"},
         closedByServer},
        {"empty stream", "", 100, true, {}, closedByServer},
    };
    for (const auto& c : cases) {
        for (Split how : allSplits) {
            SCOPED_TRACE(std::string(c.name) + " / split " + std::to_string(static_cast<int>(how)));
            ChunkedStream stream(split(c.input, how), c.endsAfterScript);
            auto [lines, end] = readAllLines(stream, c.maxBytes);
            EXPECT_EQ(lines, c.lines);
            EXPECT_EQ(end, c.end);
        }
    }
}

TEST(StreamReaderTest, MixesCountedReadsWithLines) {
    const std::string input = "* 1 FETCH (BODY[] {11}\r\nhello\r\nworld)\r\nA1 OK\r\n";
    for (Split how : allSplits) {
        SCOPED_TRACE(static_cast<int>(how));
        ChunkedStream stream(split(input, how), true);
        StreamReader reader(stream);
        EXPECT_EQ(bytesToString(reader.readLine(100)), "* 1 FETCH (BODY[] {11}");
        EXPECT_EQ(bytesToString(reader.readBytes(0)), "");
        EXPECT_EQ(bytesToString(reader.readBytes(11)), "hello\r\nworl");
        EXPECT_EQ(bytesToString(reader.readLine(100)), "d)");
        EXPECT_EQ(bytesToString(reader.readBytes(3)), "A1 ");
        EXPECT_EQ(testing::errorOf([&] { reader.readBytes(10); }), closedByServer);
    }
}

TEST(StreamReaderTest, AsksTheStreamForChunksOfAtMost16KiB) {
    const std::string big(40000, 'b');
    ChunkedStream stream({big}, true);
    StreamReader reader(stream);
    EXPECT_EQ(reader.readBytes(40000).size(), 40000u);
    EXPECT_EQ(stream.maxLengths, (std::vector<int>{16384, 16384, 16384}));
}

// The consumed prefix stays until more than 64 KiB are consumed (or all
// is), so lines are not copied once each.
TEST(StreamReaderTest, CompactsOnlyPastSixtyFourKiBConsumed) {
    // 69 bytes and CR LF: 71, whose multiples meet the 1024-byte chunk ends
    // only every 72704 bytes, so most lines end inside a chunk.
    std::string line = "* 12345 FETCH (UID 67890 FLAGS (\\Seen) RFC822.SIZE 4242)";
    line.resize(69, '.');
    const int count = 3000;
    std::string input;
    for (int i = 0; i < count; ++i) input += line + "\r\n";
    std::vector<std::string> chunks;
    for (std::size_t i = 0; i < input.size(); i += 1024) chunks.push_back(input.substr(i, 1024));
    ChunkedStream stream(chunks, true);
    StreamReader reader(stream);
    std::size_t largestPrefix = 0;
    std::size_t previousPrefix = 0;
    int drops = 0;
    for (int i = 0; i < count; ++i) {
        ASSERT_EQ(bytesToString(reader.readLine(1000)), line);
        const std::size_t prefix = reader.retainedBytes() - reader.unreadBytes();
        ASSERT_LE(prefix, StreamReader::compactionThreshold);
        if (prefix < previousPrefix) ++drops;
        largestPrefix = std::max(largestPrefix, prefix);
        previousPrefix = prefix;
    }
    EXPECT_GT(largestPrefix, StreamReader::compactionThreshold - 2 * 71);
    // About one drop per 64 KiB read (plus the rare chunk-aligned line end),
    // not one per line.
    EXPECT_GE(drops, static_cast<int>(input.size() / 72704));
    EXPECT_LE(drops, static_cast<int>(2 * input.size() / 65536) + 2);
    EXPECT_EQ(reader.retainedBytes(), 0u);  // everything consumed: all dropped
}

}  // namespace
}  // namespace mailcore
