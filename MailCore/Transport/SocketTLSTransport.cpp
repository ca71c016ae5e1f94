#include "MailCore/Transport/SocketTLSTransport.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>

#include "MailCore/Transport/BufferedByteStream.h"

namespace mailcore {
namespace {

using SteadyClock = std::chrono::steady_clock;

MailError connectionClosed() {
    return MailError::network(NetworkFailureKind::connectionLost, "connection closed");
}

MailError lostDuringHandshake() {
    return MailError::network(NetworkFailureKind::connectionLost,
                              "connection closed during the TLS handshake");
}

int millisecondsUntil(SteadyClock::time_point deadline, int cap) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - SteadyClock::now())
            .count();
    return static_cast<int>(std::clamp<long long>(left, 0, cap));
}

bool setNonBlocking(int fd) {
    const int flags = fcntl(fd, F_GETFL, 0);
    return flags >= 0 && fcntl(fd, F_SETFL, flags | O_NONBLOCK) == 0 &&
           fcntl(fd, F_SETFD, FD_CLOEXEC) == 0;
}

#ifdef MSG_NOSIGNAL
constexpr int sendFlags = MSG_NOSIGNAL;
#else
constexpr int sendFlags = 0;  // SO_NOSIGPIPE is set on the socket instead
#endif

// The transport's own BIO: reads and writes on the descriptor with recv and
// send (never raising SIGPIPE), keeping the errno of the last failure.
struct SocketBioState {
    int fd = -1;
    int lastErrno = 0;
};

int socketBioWrite(BIO* bio, const char* data, int length) {
    auto* state = static_cast<SocketBioState*>(BIO_get_data(bio));
    BIO_clear_retry_flags(bio);
    const ssize_t n = ::send(state->fd, data, static_cast<std::size_t>(length), sendFlags);
    if (n >= 0) return static_cast<int>(n);
    if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) {
        BIO_set_retry_write(bio);
    } else {
        state->lastErrno = errno;
    }
    return -1;
}

int socketBioRead(BIO* bio, char* data, int length) {
    auto* state = static_cast<SocketBioState*>(BIO_get_data(bio));
    BIO_clear_retry_flags(bio);
    const ssize_t n = ::recv(state->fd, data, static_cast<std::size_t>(length), 0);
    if (n >= 0) return static_cast<int>(n);
    if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) {
        BIO_set_retry_read(bio);
    } else {
        state->lastErrno = errno;
    }
    return -1;
}

long socketBioControl(BIO*, int command, long, void*) { return command == BIO_CTRL_FLUSH ? 1 : 0; }

int socketBioCreate(BIO* bio) {
    BIO_set_init(bio, 1);
    return 1;
}

BIO_METHOD* socketBioMethod() {
    static BIO_METHOD* method = [] {
        BIO_METHOD* m = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "mailcore socket");
        BIO_meth_set_write(m, socketBioWrite);
        BIO_meth_set_read(m, socketBioRead);
        BIO_meth_set_ctrl(m, socketBioControl);
        BIO_meth_set_create(m, socketBioCreate);
        return m;
    }();
    return method;
}

bool isIPAddress(const std::string& host) {
    in6_addr v6{};
    in_addr v4{};
    return inet_pton(AF_INET, host.c_str(), &v4) == 1 ||
           inet_pton(AF_INET6, host.c_str(), &v6) == 1;
}

void nameThisThread() {
#if defined(__APPLE__)
    pthread_setname_np("mailcore.net.socket");
#else
    pthread_setname_np(pthread_self(), "mailcore.net.so");  // fifteen characters at most
#endif
}

struct IOResult {
    enum Kind { data, endOfStream, wantRead, wantWrite, failed } kind;
    std::size_t count = 0;
    std::optional<MailError> error = std::nullopt;
};

MailError mapHandshakeFailure(SSL* ssl, int sslError, int lastErrno, bool withAnchors) {
    const long verify = SSL_get_verify_result(ssl);
    const unsigned long error = ERR_peek_last_error();
    const int reason = ERR_GET_REASON(error);
    const bool fromSSL = ERR_GET_LIB(error) == ERR_LIB_SSL;
    ERR_clear_error();
    if (verify != X509_V_OK || (fromSSL && reason == SSL_R_CERTIFICATE_VERIFY_FAILED)) {
        // With extra anchors the anchors alone decide, and any refusal is
        // reported as an invalid certificate.
        if (withAnchors) {
            return MailError::tls(TLSFailureKind::certificateInvalid, "certificate invalid");
        }
        return mapVerifyResult(verify);
    }
    if (sslError == SSL_ERROR_ZERO_RETURN) return lostDuringHandshake();
    if (sslError == SSL_ERROR_SYSCALL) {
        if (lastErrno == 0 || lastErrno == ECONNRESET || lastErrno == EPIPE ||
            lastErrno == ECONNABORTED) {
            return lostDuringHandshake();
        }
        return mapErrno(lastErrno);
    }
    if (fromSSL) {
        switch (reason) {
            case SSL_R_TLSV1_ALERT_PROTOCOL_VERSION:
            case SSL_R_UNSUPPORTED_PROTOCOL:
            case SSL_R_NO_PROTOCOLS_AVAILABLE:
            case SSL_R_VERSION_TOO_LOW:
                return MailError::tls(TLSFailureKind::protocolVersionTooLow,
                                      "protocol version not acceptable");
            case SSL_R_UNEXPECTED_EOF_WHILE_READING:
                return lostDuringHandshake();
            default:
                break;
        }
    }
    return MailError::tls(TLSFailureKind::handshakeFailed,
                          "TLS handshake failed (" + std::to_string(reason) + ")");
}

}  // namespace

MailError mapErrno(int error) {
    using K = NetworkFailureKind;
    switch (error) {
        case ETIMEDOUT:
            return MailError::network(K::timeout, "connection timed out");
        case ECONNREFUSED:
            return MailError::network(K::connectionRefused, "connection refused");
        case EPIPE:
        case ECONNABORTED:
        case ECONNRESET:
        case ENOTCONN:
            return MailError::network(K::connectionLost, "connection lost");
        case ENETDOWN:
        case ENETUNREACH:
        case EHOSTDOWN:
        case EHOSTUNREACH:
            return MailError::network(K::unreachable, "network unreachable");
        default:
            return MailError::network(K::other, "socket error " + std::to_string(error));
    }
}

MailError mapVerifyResult(long result) {
    switch (result) {
        case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
        case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
        case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
        case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
        case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
            return MailError::tls(TLSFailureKind::untrustedRoot, "certificate not trusted");
        case X509_V_ERR_CERT_HAS_EXPIRED:
        case X509_V_ERR_CERT_NOT_YET_VALID:
            return MailError::tls(TLSFailureKind::certificateExpired, "certificate date invalid");
        case X509_V_ERR_HOSTNAME_MISMATCH:
        case X509_V_ERR_IP_ADDRESS_MISMATCH:
            return MailError::tls(TLSFailureKind::hostnameMismatch,
                                  "certificate does not match host");
        default:
            return MailError::tls(TLSFailureKind::certificateInvalid, "certificate invalid");
    }
}

struct SocketTLSTransport::Session {
    int fd = -1;
    SocketBioState bio;
    std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> context{nullptr, &SSL_CTX_free};
    std::unique_ptr<SSL, decltype(&SSL_free)> ssl{nullptr, &SSL_free};

    ~Session() {
        ssl.reset();
        context.reset();
        if (fd >= 0) ::close(fd);
    }

    IOResult readSome(std::uint8_t* buffer, int length) {
        if (!ssl) {
            const ssize_t n = ::recv(fd, buffer, static_cast<std::size_t>(length), 0);
            if (n > 0) return {IOResult::data, static_cast<std::size_t>(n)};
            if (n == 0) return {IOResult::endOfStream};
            if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) {
                return {IOResult::wantRead};
            }
            return {IOResult::failed, 0, mapErrno(errno)};
        }
        ERR_clear_error();
        bio.lastErrno = 0;
        const int n = SSL_read(ssl.get(), buffer, length);
        if (n > 0) return {IOResult::data, static_cast<std::size_t>(n)};
        return sslOutcome(SSL_get_error(ssl.get(), n));
    }

    IOResult writeSome(const std::uint8_t* data, std::size_t length) {
        if (!ssl) {
            const ssize_t n = ::send(fd, data, length, sendFlags);
            if (n >= 0) return {IOResult::data, static_cast<std::size_t>(n)};
            if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) {
                return {IOResult::wantWrite};
            }
            return {IOResult::failed, 0, mapErrno(errno)};
        }
        ERR_clear_error();
        bio.lastErrno = 0;
        const int chunk = static_cast<int>(std::min<std::size_t>(length, 1 << 20));
        const int n = SSL_write(ssl.get(), data, chunk);
        if (n > 0) return {IOResult::data, static_cast<std::size_t>(n)};
        IOResult outcome = sslOutcome(SSL_get_error(ssl.get(), n));
        if (outcome.kind == IOResult::endOfStream) {
            outcome = {IOResult::failed, 0, mapErrno(EPIPE)};
        }
        return outcome;
    }

    IOResult sslOutcome(int error) {
        switch (error) {
            case SSL_ERROR_WANT_READ:
                return {IOResult::wantRead};
            case SSL_ERROR_WANT_WRITE:
                return {IOResult::wantWrite};
            case SSL_ERROR_ZERO_RETURN:
                return {IOResult::endOfStream};
            case SSL_ERROR_SYSCALL:
                ERR_clear_error();
                if (bio.lastErrno == 0) return {IOResult::endOfStream};
                return {IOResult::failed, 0, mapErrno(bio.lastErrno)};
            default:
                ERR_clear_error();
                return {IOResult::failed, 0,
                        MailError::network(NetworkFailureKind::connectionLost, "connection lost")};
        }
    }
};

SocketTLSTransport::SocketTLSTransport(std::string host, std::uint16_t port,
                                       std::vector<Certificate> extraAnchors, Mode mode,
                                       double handshakeTimeoutSeconds)
    : host_(std::move(host)),
      port_(port),
      extraAnchors_(std::move(extraAnchors)),
      mode_(mode),
      handshakeTimeout_(handshakeTimeoutSeconds) {
    int fds[2];
    if (pipe(fds) == 0) {
        wakeRead_ = fds[0];
        wakeWrite_ = fds[1];
        setNonBlocking(wakeRead_);
        setNonBlocking(wakeWrite_);
    }
}

SocketTLSTransport::~SocketTLSTransport() {
    cancel();
    if (thread_.joinable()) {
        if (thread_.get_id() == std::this_thread::get_id()) {
            thread_.detach();
        } else {
            thread_.join();
        }
    }
    if (wakeRead_ >= 0) ::close(wakeRead_);
    if (wakeWrite_ >= 0) ::close(wakeWrite_);
}

void SocketTLSTransport::connect(double timeoutSeconds) {
    {
        std::lock_guard lock(lock_);
        if (closed_) throw connectionClosed();
        if (started_) {
            throw MailError::protocolViolation(ProtocolIssueKind::invalidInput,
                                               "transport already connected");
        }
        if (wakeRead_ < 0) throw mapErrno(errno);
        started_ = true;
    }
    std::promise<std::optional<MailError>> connected;
    auto result = connected.get_future();
    thread_ = std::thread(&SocketTLSTransport::ioMain, this, timeoutSeconds, std::move(connected));
    if (auto error = result.get()) throw *error;
}

void SocketTLSTransport::startReceive(int maxLength, ReceiveCompletion completion) {
    std::optional<MailError> refusal;
    {
        std::lock_guard lock(lock_);
        if (!running_) {
            refusal = failure_.value_or(connectionClosed());
        } else if (receive_) {
            refusal = MailError::protocolViolation(ProtocolIssueKind::invalidInput,
                                                   "receive already outstanding");
        } else {
            receive_ = ReceiveRequest{std::max(maxLength, 1), std::move(completion)};
        }
    }
    if (refusal) {
        completion(*refusal);
        return;
    }
    wake();
}

void SocketTLSTransport::send(const Bytes& bytes) {
    auto request = std::make_shared<SendRequest>();
    request->bytes = bytes;
    auto done = request->done.get_future();
    {
        std::lock_guard lock(lock_);
        if (!running_) throw failure_.value_or(connectionClosed());
        sends_.push_back(request);
    }
    wake();
    if (auto error = done.get()) throw *error;
}

void SocketTLSTransport::upgradeToTLS(const std::string& serverName) {
    auto request = std::make_shared<UpgradeRequest>();
    request->serverName = serverName;
    auto done = request->done.get_future();
    {
        std::lock_guard lock(lock_);
        if (!running_) throw failure_.value_or(connectionClosed());
        if (receive_) {
            throw MailError::tls(TLSFailureKind::handshakeFailed,
                                 "cannot upgrade with a receive outstanding");
        }
        if (upgrade_) {
            throw MailError::protocolViolation(ProtocolIssueKind::invalidInput,
                                               "upgrade already requested");
        }
        upgrade_ = request;
    }
    wake();
    if (auto error = done.get()) throw *error;
}

void SocketTLSTransport::cancel() {
    {
        std::lock_guard lock(lock_);
        closed_ = true;
    }
    wake();
}

std::string SocketTLSTransport::negotiatedProtocol() const {
    std::lock_guard lock(lock_);
    return protocol_;
}

bool SocketTLSTransport::isClosed() const {
    std::lock_guard lock(lock_);
    return closed_;
}

void SocketTLSTransport::wake() {
    if (wakeWrite_ < 0) return;
    const char byte = 1;
    [[maybe_unused]] const ssize_t n = ::write(wakeWrite_, &byte, 1);  // a full pipe wakes anyway
}

void SocketTLSTransport::waitForSocket(Session& session, short events, int timeoutMs) {
    pollfd fds[2] = {{events != 0 ? session.fd : -1, events, 0}, {wakeRead_, POLLIN, 0}};
    if (::poll(fds, 2, timeoutMs) > 0 && (fds[1].revents & POLLIN)) {
        char drain[64];
        while (::read(wakeRead_, drain, sizeof drain) > 0) {
        }
    }
}

void SocketTLSTransport::ioMain(double connectTimeoutSeconds,
                                std::promise<std::optional<MailError>> connected) {
    nameThisThread();
    Session session;
    const auto deadline = SteadyClock::now() +
                          std::chrono::duration_cast<SteadyClock::duration>(
                              std::chrono::duration<double>(std::max(connectTimeoutSeconds, 0.0)));
    std::optional<MailError> error = openSocket(session, deadline);
    if (!error && mode_ == Mode::implicitTLS) error = performHandshake(session, host_, deadline);
    if (!error) {
        std::lock_guard lock(lock_);
        if (closed_) {
            error = connectionClosed();
        } else {
            running_ = true;
        }
    }
    if (error) {
        finish(*error);
        connected.set_value(error);
        return;
    }
    connected.set_value(std::nullopt);
    finish(serve(session));
}

std::optional<MailError> SocketTLSTransport::openSocket(Session& session, Deadline deadline) {
    if (host_.empty() || port_ == 0) {
        return MailError::network(NetworkFailureKind::other, "invalid endpoint");
    }
    // The name is resolved on a helper thread of its own so that a slow
    // resolver cannot hold the connection past its deadline or a cancel; a
    // late answer is dropped with the shared state.
    struct Resolution {
        std::mutex lock;
        std::condition_variable done;
        bool finished = false;
        addrinfo* addresses = nullptr;
        ~Resolution() {
            if (addresses) freeaddrinfo(addresses);
        }
    };
    auto resolution = std::make_shared<Resolution>();
    std::thread([resolution, host = host_, port = std::to_string(port_)] {
        addrinfo hints{};
        hints.ai_family = AF_UNSPEC;
        hints.ai_socktype = SOCK_STREAM;
        addrinfo* found = nullptr;
        if (getaddrinfo(host.c_str(), port.c_str(), &hints, &found) != 0) found = nullptr;
        std::lock_guard lock(resolution->lock);
        resolution->addresses = found;
        resolution->finished = true;
        resolution->done.notify_all();
    }).detach();
    addrinfo* addresses = nullptr;
    {
        std::unique_lock lock(resolution->lock);
        while (!resolution->finished) {
            if (isClosed()) return connectionClosed();
            if (SteadyClock::now() >= deadline) {
                return MailError::network(NetworkFailureKind::timeout, "connect timed out");
            }
            resolution->done.wait_for(
                lock, std::chrono::milliseconds(millisecondsUntil(deadline, 50) + 1));
        }
        addresses = resolution->addresses;
    }
    if (!addresses) return MailError::network(NetworkFailureKind::dnsFailure, "host not found");
    std::optional<MailError> last;
    for (const addrinfo* a = addresses; a; a = a->ai_next) {
        const int fd = ::socket(a->ai_family, a->ai_socktype, a->ai_protocol);
        if (fd < 0) {
            last = mapErrno(errno);
            continue;
        }
        if (!setNonBlocking(fd)) {
            last = mapErrno(errno);
            ::close(fd);
            continue;
        }
#ifdef SO_NOSIGPIPE
        const int one = 1;
        setsockopt(fd, SOL_SOCKET, SO_NOSIGPIPE, &one, sizeof one);
#endif
        int result = ::connect(fd, a->ai_addr, a->ai_addrlen);
        int error = result == 0 ? 0 : errno;
        while (error == EINPROGRESS || error == EINTR) {
            if (isClosed()) {
                ::close(fd);
                return connectionClosed();
            }
            if (SteadyClock::now() >= deadline) {
                ::close(fd);
                return MailError::network(NetworkFailureKind::timeout, "connect timed out");
            }
            session.fd = fd;
            waitForSocket(session, POLLOUT, millisecondsUntil(deadline, 1000));
            session.fd = -1;
            pollfd check{fd, POLLOUT, 0};
            if (::poll(&check, 1, 0) > 0) {
                socklen_t length = sizeof error;
                if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0) error = errno;
            }
        }
        if (error != 0) {
            last = mapErrno(error);
            ::close(fd);
            continue;
        }
        const int noDelay = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof noDelay);
        session.fd = fd;
        return std::nullopt;
    }
    return last.value_or(MailError::network(NetworkFailureKind::other, "invalid endpoint"));
}

std::optional<MailError> SocketTLSTransport::performHandshake(Session& session,
                                                              const std::string& serverName,
                                                              Deadline deadline) {
    ERR_clear_error();
    const MailError cannotConfigure =
        MailError::tls(TLSFailureKind::handshakeFailed, "cannot configure TLS");
    std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> context(SSL_CTX_new(TLS_client_method()),
                                                              &SSL_CTX_free);
    if (!context) {
        ERR_clear_error();
        return MailError::tls(TLSFailureKind::handshakeFailed, "cannot create TLS context");
    }
    SSL_CTX* ctx = context.get();
    if (SSL_CTX_set_min_proto_version(ctx, TLS1_2_VERSION) != 1) return cannotConfigure;
    SSL_CTX_set_options(ctx, SSL_OP_IGNORE_UNEXPECTED_EOF);
    SSL_CTX_set_mode(ctx, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    SSL_CTX_set_verify(ctx, SSL_VERIFY_PEER, nullptr);
    if (extraAnchors_.empty()) {
        if (SSL_CTX_set_default_verify_paths(ctx) != 1) return cannotConfigure;
    } else {
        X509_STORE* store = SSL_CTX_get_cert_store(ctx);
        for (const auto& anchor : extraAnchors_) {
            const unsigned char* der = anchor.der.data();
            std::unique_ptr<X509, decltype(&X509_free)> cert(
                d2i_X509(nullptr, &der, static_cast<long>(anchor.der.size())), &X509_free);
            if (!cert || X509_STORE_add_cert(store, cert.get()) != 1) {
                ERR_clear_error();
                return cannotConfigure;
            }
        }
        // An anchor need not be a self-signed root: any listed certificate ends a chain.
        X509_STORE_set_flags(store, X509_V_FLAG_PARTIAL_CHAIN);
    }
    std::unique_ptr<SSL, decltype(&SSL_free)> ssl(SSL_new(ctx), &SSL_free);
    if (!ssl) return cannotConfigure;
    BIO* bio = BIO_new(socketBioMethod());
    if (!bio) return cannotConfigure;
    session.bio.fd = session.fd;
    BIO_set_data(bio, &session.bio);
    SSL_set_bio(ssl.get(), bio, bio);
    if (isIPAddress(serverName)) {
        if (X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(ssl.get()), serverName.c_str()) != 1) {
            return cannotConfigure;
        }
    } else if (SSL_set_tlsext_host_name(ssl.get(), serverName.c_str()) != 1 ||
               SSL_set1_host(ssl.get(), serverName.c_str()) != 1) {
        return cannotConfigure;
    }
    SSL_set_hostflags(ssl.get(), X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
    SSL_set_connect_state(ssl.get());

    for (;;) {
        ERR_clear_error();
        session.bio.lastErrno = 0;
        const int result = SSL_do_handshake(ssl.get());
        if (result == 1) break;
        const int error = SSL_get_error(ssl.get(), result);
        if (error != SSL_ERROR_WANT_READ && error != SSL_ERROR_WANT_WRITE) {
            return mapHandshakeFailure(ssl.get(), error, session.bio.lastErrno,
                                       !extraAnchors_.empty());
        }
        if (isClosed()) return connectionClosed();
        if (SteadyClock::now() >= deadline) {
            return MailError::network(NetworkFailureKind::timeout, "TLS handshake timed out");
        }
        waitForSocket(session, error == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT,
                      millisecondsUntil(deadline, 50));
    }
    const int version = SSL_version(ssl.get());
    if (version != TLS1_2_VERSION && version != TLS1_3_VERSION) {
        SSL_shutdown(ssl.get());
        ERR_clear_error();
        return MailError::tls(TLSFailureKind::protocolVersionTooLow,
                              "negotiated protocol below TLS 1.2");
    }
    {
        std::lock_guard lock(lock_);
        protocol_ = SSL_get_version(ssl.get());
    }
    session.context = std::move(context);
    session.ssl = std::move(ssl);
    return std::nullopt;
}

MailError SocketTLSTransport::serve(Session& session) {
    Bytes readBuffer;
    for (;;) {
        std::shared_ptr<UpgradeRequest> upgrade;
        std::shared_ptr<SendRequest> sending;
        int receiveLength = 0;
        {
            std::lock_guard lock(lock_);
            if (closed_) return connectionClosed();
            if (upgrade_) {
                upgrade = *upgrade_;
                upgrade_.reset();
            }
            if (!sends_.empty()) sending = sends_.front();
            if (receive_) receiveLength = receive_->maxLength;
        }
        if (upgrade) {
            if (receiveLength > 0) {
                upgrade->done.set_value(MailError::tls(
                    TLSFailureKind::handshakeFailed, "cannot upgrade with a receive outstanding"));
            } else if (session.ssl) {
                upgrade->done.set_value(MailError::protocolViolation(
                    ProtocolIssueKind::unexpectedResponse, "connection is already TLS"));
            } else {
                const auto deadline =
                    SteadyClock::now() + std::chrono::duration_cast<SteadyClock::duration>(
                                             std::chrono::duration<double>(handshakeTimeout_));
                auto failure = performHandshake(session, upgrade->serverName, deadline);
                upgrade->done.set_value(failure);
                if (failure) return *failure;
            }
            continue;
        }

        bool progress = false;
        short events = 0;
        if (sending) {
            const std::size_t left = sending->bytes.size() - sending->offset;
            IOResult r = left == 0
                             ? IOResult{IOResult::data, 0}
                             : session.writeSome(sending->bytes.data() + sending->offset, left);
            switch (r.kind) {
                case IOResult::data:
                    sending->offset += r.count;
                    progress = true;
                    if (sending->offset == sending->bytes.size()) {
                        {
                            std::lock_guard lock(lock_);
                            sends_.pop_front();
                        }
                        sending->done.set_value(std::nullopt);
                    }
                    break;
                case IOResult::wantRead:
                    events |= POLLIN;
                    break;
                case IOResult::wantWrite:
                    events |= POLLOUT;
                    break;
                default:
                    return r.error.value_or(mapErrno(EPIPE));
            }
        }
        if (receiveLength > 0) {
            readBuffer.resize(static_cast<std::size_t>(receiveLength));
            IOResult r = session.readSome(readBuffer.data(), receiveLength);
            if (r.kind == IOResult::data || r.kind == IOResult::endOfStream) {
                std::optional<ReceiveRequest> request;
                {
                    std::lock_guard lock(lock_);
                    request.swap(receive_);
                }
                const auto end = readBuffer.begin() + static_cast<std::ptrdiff_t>(r.count);
                request->completion(Bytes(readBuffer.begin(), end));
                progress = true;
            } else if (r.kind == IOResult::wantRead) {
                events |= POLLIN;
            } else if (r.kind == IOResult::wantWrite) {
                events |= POLLOUT;
            } else {
                return *r.error;
            }
        }
        if (!progress) waitForSocket(session, events, 1000);
    }
}

void SocketTLSTransport::finish(const MailError& failure) {
    std::optional<ReceiveRequest> receive;
    std::deque<std::shared_ptr<SendRequest>> sends;
    std::optional<std::shared_ptr<UpgradeRequest>> upgrade;
    {
        std::lock_guard lock(lock_);
        running_ = false;
        if (!failure_) failure_ = failure;
        receive.swap(receive_);
        sends.swap(sends_);
        upgrade.swap(upgrade_);
    }
    for (auto& s : sends) s->done.set_value(failure);
    if (upgrade) (*upgrade)->done.set_value(failure);
    if (receive) receive->completion(failure);
}

SocketByteStreamFactory::SocketByteStreamFactory(std::vector<Certificate> extraAnchors)
    : extraAnchors_(std::move(extraAnchors)) {}

std::unique_ptr<ByteStream> SocketByteStreamFactory::make(const ServerEndpoint& endpoint,
                                                          const ConnectionTimeouts& timeouts) {
    const auto mode = endpoint.security == TransportSecurity::implicitTLS
                          ? SocketTLSTransport::Mode::implicitTLS
                          : SocketTLSTransport::Mode::plainUntilUpgrade;
    return std::make_unique<BufferedByteStream>(
        std::make_unique<SocketTLSTransport>(endpoint.host, endpoint.port, extraAnchors_, mode),
        timeouts);
}

}  // namespace mailcore
