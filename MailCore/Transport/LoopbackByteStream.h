// LoopbackByteStream: an in-memory ByteStream whose server side is driven by
// calls, for running the protocol clients without a network. The client side
// is the ByteStream interface; the server side queues bytes to be read, ends
// or fails the stream, makes chosen writes fail, and may answer each line the
// client writes through the onLine hook.
//
// Thread-safety: every operation may be called from any thread; state is
// guarded by lock_, which is never held while the hook runs.
#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "MailCore/Common/MailError.h"
#include "MailCore/Transport/ByteStream.h"

namespace mailcore {

class LoopbackByteStream final : public ByteStream {
public:
    // Called with each complete line the client writes (without its line
    // end) and the stream itself, on the writing thread.
    using LineHook = std::function<void(const std::string& line, LoopbackByteStream& stream)>;

    // A read with nothing buffered waits at most `readTimeoutSeconds`, then
    // fails with network(timeout, "read timed out").
    explicit LoopbackByteStream(double readTimeoutSeconds = 5.0);

    // Client side.
    void open() override;
    void upgradeToTLS(const std::string& serverName) override;
    void write(const Bytes& bytes) override;
    Bytes read(int maxLength) override;
    void close() override;

    // Server side.
    void serverSend(const Bytes& bytes);
    void serverSend(std::string_view text);
    // Reads return end of stream once what was sent is read.
    void serverClose();
    void setOnLine(LineHook hook);
    // When set, open() or upgradeToTLS() fail with the error.
    void setOpenError(std::optional<MailError> error);
    void setUpgradeError(std::optional<MailError> error);

    // What the client did.
    Bytes written() const;
    std::string writtenString() const;
    bool isOpen() const;
    bool isClosed() const;
    bool didUpgrade() const;
    std::optional<std::string> upgradeServerName() const;

private:
    const double readTimeout_;
    mutable std::mutex lock_;
    std::condition_variable readable_;
    Bytes incoming_;                                // guarded by lock_
    std::size_t incomingPosition_ = 0;              // guarded by lock_
    bool serverClosed_ = false;                     // guarded by lock_
    LineHook onLine_;                               // guarded by lock_
    std::optional<MailError> openError_;            // guarded by lock_
    std::optional<MailError> upgradeError_;         // guarded by lock_
    Bytes written_;                                 // guarded by lock_
    std::string partialLine_;                       // guarded by lock_
    bool open_ = false;                             // guarded by lock_
    bool closed_ = false;                           // guarded by lock_
    bool upgraded_ = false;                         // guarded by lock_
    std::optional<std::string> upgradeServerName_;  // guarded by lock_
};

}  // namespace mailcore
