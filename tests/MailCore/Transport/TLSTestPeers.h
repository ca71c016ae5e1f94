// Real peers for the socket transport tests, all on 127.0.0.1: a private
// PKI made with the openssl tool at run time, `openssl s_server` processes
// started and always stopped by their owners, a plain front that plays an
// IMAP greeting and STARTTLS before relaying to a TLS server, and bare
// listeners for scripted failures.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "MailCore/Common/MailError.h"
#include "tests/fakes/TestFiles.h"

namespace mailcore::testing {

// The MailError that a call throws; none when it returns.
inline const auto errorOf = &testfiles::caught<MailError>;

// A port that was free a moment ago on 127.0.0.1.
std::uint16_t freePort();

// Certificates "<name>.pem" with keys "<name>.key" in a private temporary
// directory, removed at exit: ca (trusted root), rogue (a root nobody
// trusts), leaf (localhost and 127.0.0.1, by ca), other (other.example, by
// ca), expired (localhost, by ca, expired in 2020), rogueleaf (localhost, by
// rogue), self (localhost, self-signed). `ca` is made the process's platform
// trust store (SSL_CERT_FILE, with an empty SSL_CERT_DIR), so "trusted by
// the system" means "issued by ca".
struct TestPKI {
    static const TestPKI& shared();
    // The s_server arguments that present `name`.
    std::vector<std::string> serve(const std::string& name) const {
        return {"-cert", dir + "/" + name + ".pem", "-key", dir + "/" + name + ".key"};
    }
    std::string pemText(const std::string& name) const;

    std::string dir;
};

// `openssl s_server` on 127.0.0.1 with the given arguments (after
// "s_server"; -accept is added). Ready when constructed; killed and reaped
// when destroyed.
class OpenSSLServer {
public:
    explicit OpenSSLServer(std::vector<std::string> arguments);
    ~OpenSSLServer();
    OpenSSLServer(const OpenSSLServer&) = delete;
    OpenSSLServer& operator=(const OpenSSLServer&) = delete;

    std::uint16_t port() const { return port_; }
    std::string log() const;

private:
    bool start(const std::vector<std::string>& arguments);
    void stop();

    int pid_ = -1;
    std::uint16_t port_ = 0;
    std::string logPath_;
};

// A listening TCP socket on 127.0.0.1 that accepts only when told to.
class Listener {
public:
    explicit Listener(int backlog = 8);
    ~Listener();
    std::uint16_t port() const { return port_; }
    // The next connection, or -1 after `timeoutMs`.
    int accept(int timeoutMs = 5000);

private:
    int fd_ = -1;
    std::uint16_t port_ = 0;
};

// A listener whose accept queue is full: connection attempts to it never
// complete.
class FullListener {
public:
    FullListener();
    ~FullListener();
    std::uint16_t port() const { return listener_.port(); }

private:
    Listener listener_{0};
    int filler_ = -1;
};

// Runs `script` with each accepted connection on its own thread; the
// descriptor is closed after the script returns. Joined when destroyed.
class ScriptedServer {
public:
    explicit ScriptedServer(std::function<void(int fd)> script);
    ~ScriptedServer();
    std::uint16_t port() const { return listener_.port(); }

private:
    Listener listener_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

// Plain IMAP-like greeting and STARTTLS exchange, then a byte relay to the
// TLS server on `backendPort`.
class StartTLSFront {
public:
    explicit StartTLSFront(std::uint16_t backendPort);
    std::uint16_t port() const { return server_.port(); }

private:
    std::uint16_t backend_;
    ScriptedServer server_;
};

// Sends every byte; false when the peer is gone.
bool sendAll(int fd, const std::string& bytes);
// Reads up to and including the next line feed; empty at end of stream.
std::string readLine(int fd);
// Closes with a reset (linger 0).
void resetConnection(int fd);

}  // namespace mailcore::testing
