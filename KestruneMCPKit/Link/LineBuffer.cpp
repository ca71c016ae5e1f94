#include "KestruneMCPKit/Link/LineBuffer.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace mcpkit {

LineBuffer::LineBuffer(int fd, std::size_t blockBytes) : fd_(fd), blockBytes_(blockBytes) {}

std::optional<std::string> LineBuffer::takeLine() {
    const char* base = buffer_.data() + start_;
    const std::size_t held = pending();
    const void* lf = std::memchr(base + scanned_, '\n', held - scanned_);
    if (!lf) {
        scanned_ = held;
        return std::nullopt;
    }
    const std::size_t length = static_cast<std::size_t>(static_cast<const char*>(lf) - base);
    std::string line(base, length);
    start_ += length + 1;
    scanned_ = 0;
    if (start_ == buffer_.size()) discard();
    return line;
}

void LineBuffer::discard() {
    buffer_.clear();
    start_ = 0;
    scanned_ = 0;
}

std::string LineBuffer::takeRest() {
    std::string rest = buffer_.substr(start_);
    discard();
    return rest;
}

LineBuffer::Fill LineBuffer::fill() {
    // Drop what was handed out before growing the buffer.
    if (start_ > 0) {
        buffer_.erase(0, start_);
        start_ = 0;
    }
    const std::size_t used = buffer_.size();
    buffer_.resize(used + blockBytes_);
    ssize_t n;
    do {
        n = ::read(fd_, buffer_.data() + used, blockBytes_);
    } while (n < 0 && errno == EINTR);
    buffer_.resize(used + static_cast<std::size_t>(n > 0 ? n : 0));
    if (n < 0) return Fill::failed;
    return n == 0 ? Fill::end : Fill::data;
}

}  // namespace mcpkit
