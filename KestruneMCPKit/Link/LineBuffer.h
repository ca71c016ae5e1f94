// LineBuffer: the bytes of a descriptor, read in blocks and handed out one
// line at a time. It remembers how far it has already looked for a line
// feed, so a long line is scanned once however many reads it takes. The
// policies (blank lines, a limit, what an unfinished last line means) are the
// caller's: FrameReader for the agent link, MCPInputLines for the helper's
// stdin. Not thread-safe; it does not own the descriptor.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace mcpkit {

class LineBuffer {
public:
    enum class Fill { data, end, failed };

    LineBuffer(int fd, std::size_t blockBytes);

    // The next complete line without its line feed; none when the bytes held
    // contain no line feed (yet).
    std::optional<std::string> takeLine();

    // How many bytes are held that do not end in a line feed yet.
    std::size_t pending() const { return buffer_.size() - start_; }

    // Forgets the bytes held, for a line too long to keep.
    void discard();

    // Takes the bytes held: an unterminated last line.
    std::string takeRest();

    // Reads one more block (at most blockBytes): `data` when bytes came,
    // `end` at the end of the stream, `failed` on a read error.
    Fill fill();

private:
    int fd_;
    std::size_t blockBytes_;
    std::string buffer_;
    std::size_t start_ = 0;    // first byte not handed out
    std::size_t scanned_ = 0;  // bytes after start_ known to hold no line feed
};

}  // namespace mcpkit
