#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include "KestruneMCPKit/Shim/MCPInputLines.h"

namespace {

using mcpkit::MCPInputLines;

// What the reader gives for `input` fed in pieces of `piece` bytes: each
// line as its text, an oversized one as "<oversized>".
std::vector<std::string> readAllLines(const std::string& input, std::size_t maxBytes,
                                      std::size_t piece) {
    int fds[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    std::thread writer([&] {
        for (std::size_t i = 0; i < input.size(); i += piece) {
            const std::string chunk = input.substr(i, piece);
            if (::send(fds[1], chunk.data(), chunk.size(), MSG_NOSIGNAL) < 0) break;
        }
        ::close(fds[1]);
    });
    std::vector<std::string> lines;
    MCPInputLines reader(fds[0], maxBytes);
    while (auto line = reader.next())
        lines.push_back(line->oversized ? "<oversized>" : line->bytes);
    writer.join();
    ::close(fds[0]);
    return lines;
}

TEST(MCPInputLinesTest, SplitsLinesKeepsBlanksAndBoundsLength) {
    struct Case {
        const char* name;
        std::string input;
        std::size_t maxBytes;
        std::vector<std::string> lines;
    };
    const Case cases[] = {
        {"plain", "a\nbc\n", 10, {"a", "bc"}},
        {"blank lines are reported (the caller skips them)", "\na\n\n", 10, {"", "a", ""}},
        {"last line without line feed", "a\nlast", 10, {"a", "last"}},
        {"nothing", "", 10, {}},
        {"exactly the limit", std::string(10, 'x') + "\n", 10, {std::string(10, 'x')}},
        {"one over the limit, then normal lines go on",
         std::string(11, 'x') + "\nnext\n",
         10,
         {"<oversized>", "next"}},
        {"a very long line is skipped to its end",
         std::string(300000, 'y') + "\nafter\n",
         1000,
         {"<oversized>", "after"}},
        {"an oversized unterminated last line",
         "ok\n" + std::string(50, 'z'),
         10,
         {"ok", "<oversized>"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        for (std::size_t piece : {std::size_t(1), std::size_t(3), c.input.size() + 1}) {
            if (piece == 1 && c.input.size() > 1000) continue;  // whole and 3-byte pieces suffice
            EXPECT_EQ(readAllLines(c.input, c.maxBytes, piece), c.lines) << "piece " << piece;
        }
    }
}

}  // namespace
