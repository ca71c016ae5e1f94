// SocketTLSTransport: a RawTransport over a POSIX TCP socket with OpenSSL 3
// for TLS. It serves both ways a mail server secures a connection: implicit
// TLS (the handshake runs right after the TCP connection, inside connect) and
// STARTTLS (the connection starts plain and upgradeToTLS runs the handshake
// when the protocol client asks). Once TLS, always TLS.
//
// Trust: with no extra anchors the platform trust store decides (OpenSSL's
// default verify paths); with extra anchors exactly those certificates are
// trusted and nothing else. The host name is always checked, and sent as
// SNI unless it is an IP address. Only TLS 1.2 and 1.3 are accepted.
//
// Threading: one I/O thread per connection ("mailcore.net.socket", cut to
// fifteen characters on Linux) owns the descriptor and the TLS session and
// does all the work: resolving, connecting, handshakes, reads and writes.
// connect, send, startReceive and upgradeToTLS only post a request under
// lock_ and wake the thread; connect, send and upgradeToTLS then wait for
// its answer. cancel() never blocks. Receive completions run on the I/O
// thread and must not destroy the transport. The destructor cancels and
// joins the thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "MailCore/Common/MailError.h"
#include "MailCore/Transport/ByteStream.h"
#include "MailCore/Transport/Certificate.h"
#include "MailCore/Transport/RawTransport.h"
#include "MailCore/Transport/TransportTypes.h"

namespace mailcore {

// POSIX error numbers as failures: ETIMEDOUT "connection timed out",
// ECONNREFUSED "connection refused", EPIPE/ECONNABORTED/ECONNRESET/ENOTCONN
// "connection lost", ENETDOWN/ENETUNREACH/EHOSTDOWN/EHOSTUNREACH "network
// unreachable", anything else network(other, "socket error <number>").
MailError mapErrno(int error);

// An OpenSSL certificate verification result (X509_V_ERR_...) as a failure:
// unknown or self-signed issuers "certificate not trusted", validity dates
// "certificate date invalid", host or IP mismatch "certificate does not
// match host", anything else "certificate invalid".
MailError mapVerifyResult(long result);

class SocketTLSTransport final : public RawTransport {
public:
    enum class Mode { plainUntilUpgrade, implicitTLS };

    // `handshakeTimeoutSeconds` bounds an upgradeToTLS handshake; an implicit
    // TLS handshake is bounded by what is left of the connect timeout.
    SocketTLSTransport(std::string host, std::uint16_t port, std::vector<Certificate> extraAnchors,
                       Mode mode = Mode::plainUntilUpgrade, double handshakeTimeoutSeconds = 30.0);
    ~SocketTLSTransport() override;

    SocketTLSTransport(const SocketTLSTransport&) = delete;
    SocketTLSTransport& operator=(const SocketTLSTransport&) = delete;

    // Resolution failures give network(dnsFailure, "host not found"); a name
    // not resolved and connected in time network(timeout, "connect timed
    // out"); refused or unreachable addresses their mapErrno failure (the
    // last address tried decides); a cancel meanwhile network(connectionLost,
    // "connection closed").
    void connect(double timeoutSeconds) override;
    void startReceive(int maxLength, ReceiveCompletion completion) override;
    void send(const Bytes& bytes) override;
    // Refused with tls(handshakeFailed, "cannot upgrade with a receive
    // outstanding") while a receive is pending, and with
    // protocolViolation(unexpectedResponse, "connection is already TLS") on a
    // TLS connection. A failed handshake leaves the transport failed.
    void upgradeToTLS(const std::string& serverName) override;
    void cancel() override;

    // "TLSv1.3", "TLSv1.2" once TLS is up; empty while plain.
    std::string negotiatedProtocol() const;

private:
    struct SendRequest {
        Bytes bytes;
        std::size_t offset = 0;
        std::promise<std::optional<MailError>> done;
    };
    struct UpgradeRequest {
        std::string serverName;
        std::promise<std::optional<MailError>> done;
    };
    struct ReceiveRequest {
        int maxLength;
        ReceiveCompletion completion;
    };
    struct Session;  // the descriptor and TLS state, owned by the I/O thread
    using Deadline = std::chrono::steady_clock::time_point;

    void ioMain(double connectTimeoutSeconds, std::promise<std::optional<MailError>> connected);
    std::optional<MailError> openSocket(Session& session, Deadline deadline);
    std::optional<MailError> performHandshake(Session& session, const std::string& serverName,
                                              Deadline deadline);
    MailError serve(Session& session);
    void finish(const MailError& failure);
    // Waits up to `timeoutMs` for `events` on the socket or for a posted request.
    void waitForSocket(Session& session, short events, int timeoutMs);
    bool isClosed() const;
    void wake();

    const std::string host_;
    const std::uint16_t port_;
    const std::vector<Certificate> extraAnchors_;
    const Mode mode_;
    const double handshakeTimeout_;
    int wakeRead_ = -1;
    int wakeWrite_ = -1;

    mutable std::mutex lock_;
    bool closed_ = false;                             // guarded by lock_; cancel() was called
    bool started_ = false;                            // guarded by lock_; the I/O thread exists
    bool running_ = false;                            // guarded by lock_; it takes requests
    std::optional<MailError> failure_;                // guarded by lock_; why it stopped
    std::optional<ReceiveRequest> receive_;           // guarded by lock_
    std::deque<std::shared_ptr<SendRequest>> sends_;  // guarded by lock_
    std::optional<std::shared_ptr<UpgradeRequest>> upgrade_;  // guarded by lock_
    std::string protocol_;                                    // guarded by lock_
    std::thread thread_;
};

// The production ByteStreamFactory: every endpoint, implicit TLS or
// STARTTLS, gets a BufferedByteStream over a SocketTLSTransport that carries
// the factory's extra trust anchors (empty: the platform trust store).
class SocketByteStreamFactory final : public ByteStreamFactory {
public:
    explicit SocketByteStreamFactory(std::vector<Certificate> extraAnchors = {});
    std::unique_ptr<ByteStream> make(const ServerEndpoint& endpoint,
                                     const ConnectionTimeouts& timeouts) override;

private:
    std::vector<Certificate> extraAnchors_;
};

}  // namespace mailcore
