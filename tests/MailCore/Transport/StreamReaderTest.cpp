#include <gtest/gtest.h>

#include <deque>
#include <random>
#include <string>
#include <vector>

#include "MailCore/Transport/StreamReader.h"
#include "TLSTestPeers.h"

namespace mailcore {
namespace {

const MailError closed =
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

// Each input, read whole, byte by byte and in random splits, with a line
// limit: the lines it gives and the failure that ends it ("read past
// script" when the reader waits for more).
TEST(StreamReaderTest, SplitsLinesTheSameWayHoweverTheInputArrives) {
    struct Case {
        std::string input;
        std::size_t maxBytes;
        bool endsAfterScript;
        std::vector<std::string> lines;
        MailError end;
    };
    const std::string x8(8, 'x');
    const Case cases[] = {
        {"A1 OK\r\n* 1\n\r\n\n", 100, true, {"A1 OK", "* 1", "", ""}, closed},  // CR LF, LF
        {"a\rb\r\r\n\rc\n", 100, true, {"a\rb\r", "\rc"}, closed},              // inner CRs stay
        {x8 + "\r\n" + x8 + "\n", 8, true, {x8, x8}, closed},                   // exactly maxBytes
        {x8 + "y\r\n", 8, true, {}, tooLong},                                   // one byte more
        {x8 + "y", 8, false, {}, tooLong},      // before the line end
        {x8 + "\r", 8, false, {}, pastScript},  // the CR at maxBytes + 1 may end the line
        {x8 + "\ry", 8, false, {}, tooLong},    // but not with more after it
        {"ok\n" + x8 + "yy", 8, false, {"ok"}, tooLong},
        {"A1 OK\r\nA2 O", 100, true, {"A1 OK"}, closed},  // a partial last line
        {"", 100, true, {}, closed},
    };
    for (const auto& c : cases) {
        for (Split how : allSplits) {
            SCOPED_TRACE(c.input + " / split " + std::to_string(static_cast<int>(how)));
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
        EXPECT_EQ(testing::errorOf([&] { reader.readBytes(10); }), closed);
    }
}

// The stream is asked for at most 16 KiB at a time. The consumed prefix
// stays until more than 64 KiB are consumed (or all is), so lines are not
// copied once each.
TEST(StreamReaderTest, ReadsInSixteenKiBChunksAndCompactsPastSixtyFourKiB) {
    // 69 bytes and CR LF: 71, which meets a chunk end only every 1163264
    // bytes, so lines end inside chunks.
    std::string line = "* 12345 FETCH (UID 67890 FLAGS (\\Seen) RFC822.SIZE 4242)";
    line.resize(69, '.');
    std::string input;
    for (int i = 0; i < 3000; ++i) input += line + "\r\n";
    ChunkedStream stream({input}, true);
    StreamReader reader(stream);
    std::size_t largestPrefix = 0, previousPrefix = 0;
    int drops = 0;
    for (int i = 0; i < 3000; ++i) {
        ASSERT_EQ(bytesToString(reader.readLine(1000)), line);
        const std::size_t prefix = reader.retainedBytes() - reader.unreadBytes();
        ASSERT_LE(prefix, StreamReader::compactionThreshold);
        if (prefix < previousPrefix) ++drops;
        largestPrefix = std::max(largestPrefix, prefix);
        previousPrefix = prefix;
    }
    EXPECT_GT(largestPrefix, StreamReader::compactionThreshold - 2 * 71);
    EXPECT_GE(drops, static_cast<int>(input.size() / 65536));      // once per 64 KiB,
    EXPECT_LE(drops, static_cast<int>(input.size() / 65536) + 1);  // not once per line
    EXPECT_EQ(reader.retainedBytes(), 0u);  // everything consumed: all dropped
    EXPECT_EQ(stream.maxLengths, std::vector<int>(stream.maxLengths.size(), 16384));
    EXPECT_EQ(stream.maxLengths.size(), input.size() / 16384 + 1);
}

}  // namespace
}  // namespace mailcore
