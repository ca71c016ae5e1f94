// ByteStream: the pull-style byte pipe that the IMAP and SMTP clients read
// and write. One client uses a stream at a time; close() may come from any
// thread. Every failure is a MailError; a failed stream stays failed.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "MailCore/Transport/Bytes.h"
#include "MailCore/Transport/TransportTypes.h"

namespace mailcore {

class ByteStream {
public:
    virtual ~ByteStream() = default;

    virtual void open() = 0;
    virtual void upgradeToTLS(const std::string& serverName) = 0;
    virtual void write(const Bytes& bytes) = 0;
    // Between 1 and `maxLength` bytes (a `maxLength` below 1 counts as 1), or
    // an empty result once the peer has ended the stream and everything
    // before it was read. Honours CancellationScope::current().
    virtual Bytes read(int maxLength) = 0;
    virtual void close() = 0;

    void writeText(std::string_view text) { write(toBytes(text)); }
};

// Makes the stream for one connection to `endpoint`; the stream is not yet
// open.
class ByteStreamFactory {
public:
    virtual ~ByteStreamFactory() = default;
    virtual std::unique_ptr<ByteStream> make(const ServerEndpoint& endpoint,
                                             const ConnectionTimeouts& timeouts) = 0;
};

}  // namespace mailcore
