// FrameReader: reads line frames from a descriptor, one at a time, with a
// byte limit per frame. Blank lines are skipped. The reader never holds more
// than the limit plus one read block (16 KiB) of unread data. Not
// thread-safe: one reader per descriptor and thread. It does not own `fd`.
#pragma once

#include <cstddef>
#include <string>

#include "KestruneMCPKit/Link/LineBuffer.h"

namespace mcpkit {

class FrameReader {
public:
    struct Next {
        enum class Kind { frame, end, failed, tooLarge };
        Kind kind;
        std::string bytes;  // the frame without its line feed (frame only)

        static Next frame(std::string bytes) { return {Kind::frame, std::move(bytes)}; }
        static Next end() { return {Kind::end, {}}; }
        static Next failed() { return {Kind::failed, {}}; }
        static Next tooLarge() { return {Kind::tooLarge, {}}; }
    };

    static constexpr std::size_t readBlockBytes = 16384;

    FrameReader(int fd, std::size_t maxBytes);

    // The next non-empty line (without its line feed); `end` when the peer
    // closed the stream, `failed` on a read error, `tooLarge` when a line is
    // longer than maxBytes (the line feed not counted). After anything but
    // `frame` the stream is not to be read further.
    Next next();

private:
    LineBuffer buffer_;
    std::size_t maxBytes_;
};

}  // namespace mcpkit
