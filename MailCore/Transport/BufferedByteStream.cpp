#include "MailCore/Transport/BufferedByteStream.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "MailCore/Transport/Cancellation.h"

namespace mailcore {
namespace {

MailError streamClosed() {
    return MailError::network(NetworkFailureKind::connectionLost, "stream closed");
}

}  // namespace

BufferedByteStream::BufferedByteStream(std::unique_ptr<RawTransport> transport,
                                       ConnectionTimeouts timeouts)
    : transport_(std::move(transport)), timeouts_(timeouts) {}

BufferedByteStream::~BufferedByteStream() {
    {
        std::lock_guard lock(lock_);
        closed_ = true;
    }
    transport_->cancel();
    // Destroying the transport waits for its last completion, which still
    // finds every member alive.
    transport_.reset();
}

void BufferedByteStream::open() {
    {
        std::lock_guard lock(lock_);
        if (closed_) throw streamClosed();
    }
    transport_->connect(timeouts_.connect);
}

void BufferedByteStream::upgradeToTLS(const std::string& serverName) {
    {
        std::lock_guard lock(lock_);
        if (receiveOutstanding_) {
            throw MailError::tls(TLSFailureKind::handshakeFailed,
                                 "receive outstanding during STARTTLS");
        }
    }
    transport_->upgradeToTLS(serverName);
}

void BufferedByteStream::write(const Bytes& bytes) { transport_->send(bytes); }

Bytes BufferedByteStream::read(int maxLength) {
    const std::size_t limit = maxLength < 1 ? 1 : static_cast<std::size_t>(maxLength);
    std::lock_guard reader(readerLock_);
    for (;;) {
        bool startReceive = false;
        std::uint64_t id = 0;
        {
            std::lock_guard lock(lock_);
            if (bufferPosition_ < buffer_.size()) {
                const std::size_t n = std::min(limit, buffer_.size() - bufferPosition_);
                const auto first = buffer_.begin() + static_cast<std::ptrdiff_t>(bufferPosition_);
                Bytes out(first, first + static_cast<std::ptrdiff_t>(n));
                bufferPosition_ += n;
                if (bufferPosition_ == buffer_.size()) {
                    buffer_.clear();
                    bufferPosition_ = 0;
                }
                return out;
            }
            if (closed_) throw streamClosed();
            if (failure_) throw *failure_;
            if (endOfStream_) return {};
            if (!receiveOutstanding_) {
                receiveOutstanding_ = true;
                startReceive = true;
            }
            id = ++waiterCounter_;
            waiter_ = Waiter{id, Wake::pending};
        }
        if (startReceive) {
            transport_->startReceive(receiveChunkBytes,
                                     [this](ReceiveResult result) { received(std::move(result)); });
        }
        waitForActivity(id);
    }
}

void BufferedByteStream::received(ReceiveResult result) {
    std::lock_guard lock(lock_);
    receiveOutstanding_ = false;
    if (auto* error = std::get_if<MailError>(&result)) {
        if (!failure_) failure_ = std::move(*error);
    } else {
        auto& bytes = std::get<Bytes>(result);
        if (bytes.empty()) {
            endOfStream_ = true;
        } else {
            buffer_.insert(buffer_.end(), bytes.begin(), bytes.end());
        }
    }
    if (waiter_ && waiter_->wake == Wake::pending) {
        waiter_->wake = Wake::activity;
        activity_.notify_all();
    }
}

void BufferedByteStream::resumeWaiter(std::uint64_t id, Wake wake) {
    std::lock_guard lock(lock_);
    if (waiter_ && waiter_->id == id && waiter_->wake == Wake::pending) {
        waiter_->wake = wake;
        activity_.notify_all();
    }
}

void BufferedByteStream::waitForActivity(std::uint64_t id) {
    const double seconds = std::max(timeouts_.read, 0.001);
    const auto deadline = std::chrono::steady_clock::now() +
                          std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                              std::chrono::duration<double>(seconds));
    Wake wake;
    {
        // Registered outside lock_: a token that is already stopped runs the
        // handler at once, and the handler takes lock_. Leaving this block
        // unregisters it, waiting for a handler that is running.
        std::stop_callback cancellation(CancellationScope::current(),
                                        [this, id] { resumeWaiter(id, Wake::cancelled); });
        std::unique_lock lock(lock_);
        while (waiter_->wake == Wake::pending) {
            if (activity_.wait_until(lock, deadline) == std::cv_status::timeout &&
                waiter_->wake == Wake::pending) {
                waiter_->wake = Wake::timedOut;
            }
        }
        wake = waiter_->wake;
        waiter_.reset();
    }
    switch (wake) {
        case Wake::timedOut:
            throw MailError::network(NetworkFailureKind::timeout, "read timed out");
        case Wake::cancelled:
            throw MailError::cancelled();
        default:
            return;
    }
}

void BufferedByteStream::close() {
    {
        std::lock_guard lock(lock_);
        closed_ = true;
        if (waiter_ && waiter_->wake == Wake::pending) {
            waiter_->wake = Wake::activity;
            activity_.notify_all();
        }
    }
    transport_->cancel();
}

}  // namespace mailcore
