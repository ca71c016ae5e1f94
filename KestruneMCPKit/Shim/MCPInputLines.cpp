#include "KestruneMCPKit/Shim/MCPInputLines.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace mcpkit {

namespace {
constexpr std::size_t readBlockBytes = 65536;
}

MCPInputLines::MCPInputLines(int fd, std::size_t maxBytes) : fd_(fd), maxBytes_(maxBytes) {}

bool MCPInputLines::fill() {
    if (ended_) return false;
    if (start_ > 0) {
        buffer_.erase(0, start_);
        start_ = 0;
    }
    const std::size_t used = buffer_.size();
    buffer_.resize(used + readBlockBytes);
    ssize_t n;
    do {
        n = ::read(fd_, buffer_.data() + used, readBlockBytes);
    } while (n < 0 && errno == EINTR);
    buffer_.resize(used + static_cast<std::size_t>(n > 0 ? n : 0));
    if (n <= 0) ended_ = true;
    return n > 0;
}

std::optional<MCPInputLines::Line> MCPInputLines::next() {
    std::size_t scanned = 0;  // bytes after start_ known to hold no line feed
    bool oversized = false;
    for (;;) {
        const char* base = buffer_.data() + start_;
        const std::size_t pending = buffer_.size() - start_;
        if (const void* lf = std::memchr(base + scanned, '\n', pending - scanned)) {
            const std::size_t length = static_cast<const char*>(lf) - base;
            Line line;
            if (oversized || length > maxBytes_) {
                line.oversized = true;
            } else {
                line.bytes.assign(base, length);
            }
            start_ += length + 1;
            return line;
        }
        if (pending > maxBytes_) {
            // Too long already: drop what is held and keep looking for its end.
            oversized = true;
            start_ = buffer_.size();
            scanned = 0;
        } else {
            scanned = pending;
        }
        if (!fill()) {
            const std::size_t rest = buffer_.size() - start_;
            if (rest == 0 && !oversized) return std::nullopt;
            Line line;
            if (oversized) {
                line.oversized = true;
            } else {
                line.bytes.assign(buffer_.data() + start_, rest);
            }
            start_ = buffer_.size();
            return line;
        }
    }
}

}  // namespace mcpkit
