#include "KestruneMCPKit/Link/FrameReader.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace mcpkit {

FrameReader::FrameReader(int fd, std::size_t maxBytes) : fd_(fd), maxBytes_(maxBytes) {}

FrameReader::Next FrameReader::next() {
    for (;;) {
        const char* base = buffer_.data() + start_;
        const std::size_t pending = buffer_.size() - start_;
        if (const void* lf = std::memchr(base + scanned_, '\n', pending - scanned_)) {
            const std::size_t length = static_cast<const char*>(lf) - base;
            std::string line(base, length);
            start_ += length + 1;
            scanned_ = 0;
            if (start_ == buffer_.size()) {
                buffer_.clear();
                start_ = 0;
            }
            if (line.size() > maxBytes_) return Next::tooLarge();
            if (line.empty()) continue;
            return Next::frame(std::move(line));
        }
        scanned_ = pending;
        if (pending > maxBytes_) return Next::tooLarge();

        // Drop consumed bytes before growing the buffer.
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
        if (n < 0) {
            buffer_.resize(used);
            return Next::failed();
        }
        buffer_.resize(used + static_cast<std::size_t>(n));
        if (n == 0) return Next::end();
    }
}

}  // namespace mcpkit
