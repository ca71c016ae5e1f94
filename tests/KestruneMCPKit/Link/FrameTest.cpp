#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <nlohmann/json.hpp>
#include <random>
#include <thread>

#include "KestruneMCPKit/Link/Frame.h"
#include "KestruneMCPKit/Link/FrameReader.h"

namespace {

using mailcore::Json;
using mcpkit::FrameReader;
using Kind = FrameReader::Next::Kind;

// Line feeds inside strings stay escaped; invalid UTF-8 becomes U+FFFD
// instead of failing the encoding.
TEST(FrameTest, EncodesCompactJsonOnOneLine) {
    const Json object{{"text", "line one\nline two"}, {"path", "a/b"}, {"n", 1}};
    const std::string frame = mcpkit::Frame::encode(object);
    EXPECT_EQ(frame, "{\"text\":\"line one\\nline two\",\"path\":\"a/b\",\"n\":1}\n");
    EXPECT_EQ(mailcore::parseJson(frame), object);
    EXPECT_EQ(mcpkit::Frame::encode(Json{{"s", std::string("a\xFF") + "b"}}),
              "{\"s\":\"a\xEF\xBF\xBD"
              "b\"}\n");
}

// Writes `chunks` into one end of a socket pair from a thread and collects
// what a reader on the other end answers until it gives something else
// than a frame.
struct ReadOutcome {
    std::vector<std::string> frames;
    Kind last;
};

ReadOutcome readChunks(const std::vector<std::string>& chunks, std::size_t maxBytes) {
    int fds[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    std::thread writer([&] {
        for (const auto& c : chunks) {
            if (::send(fds[1], c.data(), c.size(), MSG_NOSIGNAL) < 0) break;
        }
        ::shutdown(fds[1], SHUT_WR);
    });
    ReadOutcome outcome;
    FrameReader reader(fds[0], maxBytes);
    for (;;) {
        auto next = reader.next();
        if (next.kind != Kind::frame) {
            outcome.last = next.kind;
            break;
        }
        outcome.frames.push_back(next.bytes);
    }
    ::close(fds[0]);  // unblocks a writer stuck on a refused oversized frame
    writer.join();
    ::close(fds[1]);
    return outcome;
}

std::vector<std::string> splitEvery(const std::string& s, std::size_t n) {
    std::vector<std::string> out;
    for (std::size_t i = 0; i < s.size(); i += n) out.push_back(s.substr(i, n));
    return out;
}

std::vector<std::string> randomSplits(const std::string& s, unsigned seed) {
    std::mt19937 rng(seed);
    std::vector<std::string> out;
    std::size_t i = 0;
    while (i < s.size()) {
        std::size_t n = std::uniform_int_distribution<std::size_t>(1, 7)(rng);
        out.push_back(s.substr(i, n));
        i += n;
    }
    return out;
}

struct StreamCase {
    const char* name;
    std::string input;
    std::size_t maxBytes;
    std::vector<std::string> frames;
    Kind last;
};

std::vector<StreamCase> streamCases() {
    return {
        {"two frames", "{\"a\":1}\n{\"b\":2}\n", 100, {"{\"a\":1}", "{\"b\":2}"}, Kind::end},
        {"blank lines between and before",
         "\n\n{\"a\":1}\n\n\n{\"b\":2}\n\n",
         100,
         {"{\"a\":1}", "{\"b\":2}"},
         Kind::end},
        {"unterminated tail is not a frame", "{\"a\":1}\n{\"b\"", 100, {"{\"a\":1}"}, Kind::end},
        {"empty stream", "", 100, {}, Kind::end},
        {"line of exactly the limit",
         std::string(10, 'x') + "\n",
         10,
         {std::string(10, 'x')},
         Kind::end},
        {"line one byte over the limit",
         "ok\n" + std::string(11, 'x') + "\nnext\n",
         10,
         {"ok"},
         Kind::tooLarge},
        {"spaces are content, not blank", "  \n", 10, {"  "}, Kind::end},
        {"carriage return is kept", "a\r\n", 10, {"a\r"}, Kind::end},
    };
}

TEST(FrameReaderTest, SplitsStreamsWholeBytewiseAndInRandomPieces) {
    for (const auto& c : streamCases()) {
        SCOPED_TRACE(c.name);
        std::vector<std::vector<std::string>> feeds = {{c.input}, splitEvery(c.input, 1)};
        for (unsigned seed = 1; seed <= 3; ++seed) feeds.push_back(randomSplits(c.input, seed));
        for (const auto& feed : feeds) {
            ReadOutcome outcome = readChunks(feed, c.maxBytes);
            EXPECT_EQ(outcome.frames, c.frames);
            EXPECT_EQ(outcome.last, c.last);
        }
    }
}

TEST(FrameReaderTest, RefusesAnEndlessLineWithoutReadingItAll) {
    // 4 MiB without a line feed against a 64 KiB limit: the reader gives up
    // once it holds more than the limit, and the writer is then cut off.
    ReadOutcome outcome = readChunks(splitEvery(std::string(4 << 20, 'z'), 65536), 65536);
    EXPECT_TRUE(outcome.frames.empty());
    EXPECT_EQ(outcome.last, Kind::tooLarge);
}

TEST(FrameReaderTest, ReportsAReadErrorAsFailed) {
    FrameReader reader(-1, 100);
    EXPECT_EQ(reader.next().kind, Kind::failed);
}

}  // namespace
