// Feeds arbitrary bytes through a socket to the frame reader and compares
// what it returns with a direct model of the framing rules.
// Input: <limit byte> <stream bytes>; the frame limit is 1 + limit byte.
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "KestruneMCPKit/Link/FrameReader.h"

namespace {

using mcpkit::FrameReader;
using Kind = FrameReader::Next::Kind;

void check(bool condition) {
    if (!condition) std::abort();
}

// The frames the rules give for `stream`, and how reading ends.
std::pair<std::vector<std::string>, Kind> model(std::string_view stream, std::size_t limit) {
    std::vector<std::string> frames;
    std::size_t start = 0;
    for (;;) {
        const std::size_t lf = stream.find('\n', start);
        if (lf == std::string_view::npos) {
            // Only an unterminated tail longer than the limit is refused;
            // otherwise the stream simply ends.
            return {frames, stream.size() - start > limit ? Kind::tooLarge : Kind::end};
        }
        const std::string_view line = stream.substr(start, lf - start);
        start = lf + 1;
        if (line.size() > limit) return {frames, Kind::tooLarge};
        if (!line.empty()) frames.emplace_back(line);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 1 || size > 100000) return 0;
    const std::size_t limit = 1 + data[0];
    const std::string_view stream(reinterpret_cast<const char*>(data) + 1, size - 1);
    int fds[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) return 0;
    std::size_t done = 0;
    while (done < stream.size()) {
        ssize_t n = ::send(fds[1], stream.data() + done, stream.size() - done, MSG_NOSIGNAL);
        if (n <= 0) break;
        done += static_cast<std::size_t>(n);
    }
    ::shutdown(fds[1], SHUT_WR);
    check(done == stream.size());

    FrameReader reader(fds[0], limit);
    std::vector<std::string> frames;
    Kind last;
    for (;;) {
        auto next = reader.next();
        if (next.kind != Kind::frame) {
            last = next.kind;
            break;
        }
        check(!next.bytes.empty() && next.bytes.size() <= limit);
        check(next.bytes.find('\n') == std::string::npos);
        frames.push_back(std::move(next.bytes));
    }
    ::close(fds[0]);
    ::close(fds[1]);
    const auto expected = model(stream, limit);
    check(frames == expected.first);
    check(last == expected.second);
    return 0;
}
