// BufferedByteStream: the ByteStream built on any RawTransport. It keeps a
// receive buffer, asks the transport for at most 16384 bytes at a time,
// bounds each wait for bytes by the read timeout, and records the first
// transport failure for good: every later read reports it again.
//
// Thread-safety: all state is guarded by lock_, which is never held while
// calling into the transport. Reads are serialised among themselves; close()
// may be called from any thread and resumes a waiting reader, which then
// fails with "stream closed". Receive completions arrive on the transport's
// thread.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>

#include "MailCore/Common/MailError.h"
#include "MailCore/Transport/ByteStream.h"
#include "MailCore/Transport/RawTransport.h"
#include "MailCore/Transport/TransportTypes.h"

namespace mailcore {

class BufferedByteStream final : public ByteStream {
public:
    static constexpr int receiveChunkBytes = 16384;

    BufferedByteStream(std::unique_ptr<RawTransport> transport, ConnectionTimeouts timeouts);
    // Cancels the transport and waits until it can no longer call back.
    ~BufferedByteStream() override;

    BufferedByteStream(const BufferedByteStream&) = delete;
    BufferedByteStream& operator=(const BufferedByteStream&) = delete;

    // Fails with network(connectionLost, "stream closed") after close().
    void open() override;
    // Refused with tls(handshakeFailed, "receive outstanding during STARTTLS")
    // while a receive is outstanding on the transport.
    void upgradeToTLS(const std::string& serverName) override;
    void write(const Bytes& bytes) override;
    // Fails with network(timeout, "read timed out") when no bytes come within
    // the read timeout (not sticky), with cancelled() when the caller's
    // cancellation token stops, with "stream closed" after close(), and with
    // the recorded transport failure once there is one.
    Bytes read(int maxLength) override;
    void close() override;

private:
    enum class Wake { pending, activity, timedOut, cancelled };
    struct Waiter {
        std::uint64_t id;
        Wake wake;
    };

    void received(ReceiveResult result);
    // Waits until waiter `id` is resumed; throws for a timeout or cancellation.
    void waitForActivity(std::uint64_t id);
    void resumeWaiter(std::uint64_t id, Wake wake);

    std::unique_ptr<RawTransport> transport_;
    const ConnectionTimeouts timeouts_;

    std::mutex readerLock_;  // serialises read()
    std::mutex lock_;
    std::condition_variable activity_;
    Bytes buffer_;                      // guarded by lock_
    std::size_t bufferPosition_ = 0;    // guarded by lock_; bytes of buffer_ already read
    bool receiveOutstanding_ = false;   // guarded by lock_
    bool endOfStream_ = false;          // guarded by lock_
    std::optional<MailError> failure_;  // guarded by lock_
    bool closed_ = false;               // guarded by lock_
    std::optional<Waiter> waiter_;      // guarded by lock_
    std::uint64_t waiterCounter_ = 0;   // guarded by lock_
};

}  // namespace mailcore
