#include "MailCore/Transport/LoopbackByteStream.h"

#include <algorithm>
#include <chrono>
#include <stop_token>
#include <utility>

#include "MailCore/Transport/Cancellation.h"

namespace mailcore {
namespace {

MailError streamClosed() {
    return MailError::network(NetworkFailureKind::connectionLost, "stream closed");
}

}  // namespace

LoopbackByteStream::LoopbackByteStream(double readTimeoutSeconds)
    : readTimeout_(readTimeoutSeconds) {}

void LoopbackByteStream::open() {
    std::lock_guard lock(lock_);
    if (closed_) throw streamClosed();
    if (openError_) throw *openError_;
    open_ = true;
}

void LoopbackByteStream::upgradeToTLS(const std::string& serverName) {
    std::lock_guard lock(lock_);
    if (closed_) throw streamClosed();
    if (upgradeError_) throw *upgradeError_;
    upgraded_ = true;
    upgradeServerName_ = serverName;
}

void LoopbackByteStream::write(const Bytes& bytes) {
    std::vector<std::string> lines;
    LineHook hook;
    {
        std::lock_guard lock(lock_);
        if (closed_) throw streamClosed();
        const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
        written_.insert(written_.end(), bytes.begin(), bytes.end());
        partialLine_.append(text);
        std::size_t start = 0;
        for (std::size_t lf; (lf = partialLine_.find('\n', start)) != std::string::npos;
             start = lf + 1) {
            std::size_t end = lf;
            if (end > start && partialLine_[end - 1] == '\r') --end;
            lines.emplace_back(partialLine_.substr(start, end - start));
        }
        partialLine_.erase(0, start);
        hook = onLine_;
    }
    if (hook) {
        for (const auto& line : lines) hook(line, *this);
    }
}

Bytes LoopbackByteStream::read(int maxLength) {
    const std::size_t limit = maxLength < 1 ? 1 : static_cast<std::size_t>(maxLength);
    const auto token = CancellationScope::current();
    std::stop_callback cancellation(token, [this] {
        std::lock_guard lock(lock_);
        readable_.notify_all();
    });
    const auto deadline = std::chrono::steady_clock::now() +
                          std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                              std::chrono::duration<double>(std::max(readTimeout_, 0.001)));
    std::unique_lock lock(lock_);
    for (;;) {
        if (incomingPosition_ < incoming_.size()) {
            const std::size_t n = std::min(limit, incoming_.size() - incomingPosition_);
            const auto first = incoming_.begin() + static_cast<std::ptrdiff_t>(incomingPosition_);
            Bytes out(first, first + static_cast<std::ptrdiff_t>(n));
            incomingPosition_ += n;
            if (incomingPosition_ == incoming_.size()) {
                incoming_.clear();
                incomingPosition_ = 0;
            }
            return out;
        }
        if (closed_) throw streamClosed();
        if (serverClosed_) return {};
        if (token.stop_requested()) throw MailError::cancelled();
        if (readable_.wait_until(lock, deadline) == std::cv_status::timeout &&
            incomingPosition_ == incoming_.size() && !closed_ && !serverClosed_ &&
            !token.stop_requested()) {
            throw MailError::network(NetworkFailureKind::timeout, "read timed out");
        }
    }
}

void LoopbackByteStream::close() {
    std::lock_guard lock(lock_);
    closed_ = true;
    readable_.notify_all();
}

void LoopbackByteStream::serverSend(const Bytes& bytes) {
    std::lock_guard lock(lock_);
    incoming_.insert(incoming_.end(), bytes.begin(), bytes.end());
    readable_.notify_all();
}

void LoopbackByteStream::serverSend(std::string_view text) { serverSend(toBytes(text)); }

void LoopbackByteStream::serverClose() {
    std::lock_guard lock(lock_);
    serverClosed_ = true;
    readable_.notify_all();
}

void LoopbackByteStream::setOnLine(LineHook hook) {
    std::lock_guard lock(lock_);
    onLine_ = std::move(hook);
}

void LoopbackByteStream::setOpenError(std::optional<MailError> error) {
    std::lock_guard lock(lock_);
    openError_ = std::move(error);
}

void LoopbackByteStream::setUpgradeError(std::optional<MailError> error) {
    std::lock_guard lock(lock_);
    upgradeError_ = std::move(error);
}

Bytes LoopbackByteStream::written() const {
    std::lock_guard lock(lock_);
    return written_;
}

std::string LoopbackByteStream::writtenString() const { return bytesToString(written()); }

bool LoopbackByteStream::isOpen() const {
    std::lock_guard lock(lock_);
    return open_;
}

bool LoopbackByteStream::isClosed() const {
    std::lock_guard lock(lock_);
    return closed_;
}

bool LoopbackByteStream::didUpgrade() const {
    std::lock_guard lock(lock_);
    return upgraded_;
}

std::optional<std::string> LoopbackByteStream::upgradeServerName() const {
    std::lock_guard lock(lock_);
    return upgradeServerName_;
}

}  // namespace mailcore
