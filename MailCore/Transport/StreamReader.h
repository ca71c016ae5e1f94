// StreamReader: line and counted-byte reading over a ByteStream, for the
// protocol clients. It consumes its buffer by moving a read position and
// drops the consumed prefix only when more than 65536 bytes are consumed or
// everything buffered is, so that a long response is not copied once per
// line. Not thread-safe: one protocol client owns it.
#pragma once

#include <cstddef>

#include "MailCore/Transport/ByteStream.h"

namespace mailcore {

class StreamReader {
public:
    static constexpr std::size_t chunkBytes = 16384;
    static constexpr std::size_t compactionThreshold = 65536;

    // `stream` must outlive the reader.
    explicit StreamReader(ByteStream& stream);

    // The next line without its line end (CR LF or a bare LF; a CR elsewhere
    // stays in the line). A line longer than `maxBytes` fails with
    // protocolViolation(responseTooLarge, "line too long"), as soon as that
    // is certain, before its line end arrives. The end of the stream fails
    // with network(connectionLost, "connection closed by server").
    Bytes readLine(std::size_t maxBytes);
    // Exactly `count` bytes; the end of the stream fails as for readLine.
    Bytes readBytes(std::size_t count);

    // Bytes held, the consumed prefix not yet dropped included.
    std::size_t retainedBytes() const { return buffer_.size(); }
    // Bytes received and not yet returned.
    std::size_t unreadBytes() const { return buffer_.size() - position_; }

private:
    void fill();
    void compact();

    ByteStream& stream_;
    Bytes buffer_;
    std::size_t position_ = 0;  // first unread byte
    std::size_t scanned_ = 0;   // bytes before this index hold no line feed
};

}  // namespace mailcore
