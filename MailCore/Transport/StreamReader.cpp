#include "MailCore/Transport/StreamReader.h"

#include <algorithm>
#include <cstring>

#include "MailCore/Common/MailError.h"

namespace mailcore {
namespace {

constexpr std::uint8_t lineFeed = 10;
constexpr std::uint8_t carriageReturn = 13;

MailError lineTooLong() {
    return MailError::protocolViolation(ProtocolIssueKind::responseTooLarge, "line too long");
}

}  // namespace

StreamReader::StreamReader(ByteStream& stream) : stream_(stream) {}

Bytes StreamReader::readLine(std::size_t maxBytes) {
    for (;;) {
        const std::size_t from = std::max(scanned_, position_);
        const void* found = from < buffer_.size() ? std::memchr(buffer_.data() + from, lineFeed,
                                                                buffer_.size() - from)
                                                  : nullptr;
        if (found) {
            const auto i =
                static_cast<std::size_t>(static_cast<const std::uint8_t*>(found) - buffer_.data());
            std::size_t end = i;
            if (i > position_ && buffer_[i - 1] == carriageReturn) end = i - 1;
            if (end - position_ > maxBytes) throw lineTooLong();
            Bytes line(buffer_.begin() + static_cast<std::ptrdiff_t>(position_),
                       buffer_.begin() + static_cast<std::ptrdiff_t>(end));
            position_ = i + 1;
            scanned_ = position_;
            compact();
            return line;
        }
        scanned_ = buffer_.size();
        // Unread bytes beyond the limit fail at once, except for a final CR
        // whose LF has not arrived: that CR may still end a line of exactly
        // `maxBytes`.
        const std::size_t unread = buffer_.size() - position_;
        if (unread > maxBytes && (unread - maxBytes > 1 || buffer_.back() != carriageReturn)) {
            throw lineTooLong();
        }
        fill();
    }
}

Bytes StreamReader::readBytes(std::size_t count) {
    while (buffer_.size() - position_ < count) fill();
    const auto first = buffer_.begin() + static_cast<std::ptrdiff_t>(position_);
    Bytes out(first, first + static_cast<std::ptrdiff_t>(count));
    position_ += count;
    compact();
    return out;
}

void StreamReader::fill() {
    Bytes chunk = stream_.read(static_cast<int>(chunkBytes));
    if (chunk.empty()) {
        throw MailError::network(NetworkFailureKind::connectionLost, "connection closed by server");
    }
    buffer_.insert(buffer_.end(), chunk.begin(), chunk.end());
}

void StreamReader::compact() {
    if (position_ == buffer_.size()) {
        buffer_.clear();
        position_ = 0;
        scanned_ = 0;
    } else if (position_ > compactionThreshold) {
        buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(position_));
        scanned_ = scanned_ > position_ ? scanned_ - position_ : 0;
        position_ = 0;
    }
}

}  // namespace mailcore
