// The socket transport against real peers on 127.0.0.1: `openssl s_server`
// for TLS versions, trust decisions and STARTTLS, and scripted listeners for
// refused, silent, reset and closing servers.
#include <gtest/gtest.h>
#include <openssl/ssl.h>
#include <pthread.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <future>

#include "MailCore/Transport/BufferedByteStream.h"
#include "MailCore/Transport/SocketTLSTransport.h"
#include "MailCore/Transport/StreamReader.h"
#include "TLSTestPeers.h"

namespace mailcore {
namespace {

using namespace std::chrono_literals;
using testing::errorOf;
using testing::OpenSSLServer;
using testing::TestPKI;
using Mode = SocketTLSTransport::Mode;
using NK = NetworkFailureKind;

ConnectionTimeouts timeouts(double connect = 5, double read = 5) {
    return ConnectionTimeouts{connect, read, 0, 0, 0};
}

const MailError untrusted =
    MailError::tls(TLSFailureKind::untrustedRoot, "certificate not trusted");
const MailError mismatch =
    MailError::tls(TLSFailureKind::hostnameMismatch, "certificate does not match host");
const MailError invalid = MailError::tls(TLSFailureKind::certificateInvalid, "certificate invalid");
const MailError expired =
    MailError::tls(TLSFailureKind::certificateExpired, "certificate date invalid");

// A stream over a socket transport, keeping a view of the transport.
struct Connection {
    Connection(const std::string& host, std::uint16_t port, Mode mode,
               std::vector<Certificate> anchors = {}, ConnectionTimeouts t = timeouts(),
               double handshakeTimeout = 30)
        : transport(new SocketTLSTransport(host, port, std::move(anchors), mode, handshakeTimeout)),
          stream(std::unique_ptr<RawTransport>(transport), t),
          reader(stream) {}

    std::string line() { return bytesToString(reader.readLine(100000)); }

    SocketTLSTransport* transport;
    BufferedByteStream stream;
    StreamReader reader;
};

// Server arguments: `name`'s certificate, then `extra`, then -rev (each
// line comes back reversed).
std::vector<std::string> reversing(const std::string& name, std::vector<std::string> extra = {}) {
    auto arguments = TestPKI::shared().serve(name);
    arguments.insert(arguments.end(), extra.begin(), extra.end());
    arguments.push_back("-rev");
    return arguments;
}

// (The trust failures are mapped by the real-TLS cases below.)
TEST(SocketTLSTransportTest, MapsErrnoValuesByName) {
    const std::pair<int, MailError> cases[] = {
        {ETIMEDOUT, MailError::network(NK::timeout, "connection timed out")},
        {ECONNRESET, MailError::network(NK::connectionLost, "connection lost")},
        {EPIPE, MailError::network(NK::connectionLost, "connection lost")},
        {ENETUNREACH, MailError::network(NK::unreachable, "network unreachable")},
        {EHOSTUNREACH, MailError::network(NK::unreachable, "network unreachable")},
        {EPERM, MailError::network(NK::other, "socket error " + std::to_string(EPERM))},
    };
    for (const auto& [value, expected] : cases) EXPECT_EQ(mapErrno(value), expected) << value;
}

TEST(SocketTLSTransportTest, ReadsCertificatesFromPEM) {
    const TestPKI& pki = TestPKI::shared();
    const auto both = Certificate::fromPEM(pki.pemText("ca") + pki.pemText("rogue"));
    EXPECT_EQ(both.size(), 2u);
    EXPECT_NE(both[0], both[1]);
    for (const std::string bad :
         {"", "not a certificate",
          "-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n"}) {
        EXPECT_EQ(errorOf([&] { Certificate::fromPEM(bad); }), invalid);
    }
}

TEST(SocketTLSTransportTest, ImplicitTLSCarriesDataWithTLS13AndTLS12) {
    for (const auto& [flag, protocol] :
         {std::pair<std::string, std::string>{"-tls1_3", "TLSv1.3"}, {"-tls1_2", "TLSv1.2"}}) {
        SCOPED_TRACE(flag);
        OpenSSLServer server(reversing("leaf", {flag}));
        {
            Connection c("localhost", server.port(), Mode::implicitTLS);
            c.stream.open();
            EXPECT_EQ(c.transport->negotiatedProtocol(), protocol);
            // Many lines in one write, more than one TLS record and receive.
            std::string batch;
            for (int i = 0; i < 2000; ++i)
                batch += std::string(60, 'a' + i % 26) + std::to_string(i) + "\n";
            c.stream.writeText(batch);
            for (int i = 0; i < 2000; ++i) {
                std::string expected = std::to_string(i);
                std::reverse(expected.begin(), expected.end());
                ASSERT_EQ(c.line(), expected + std::string(60, 'a' + i % 26));
            }
        }
        // s_server serves one connection at a time: the first one is closed now.
        // The production factory builds the same kind of stream.
        auto stream = SocketByteStreamFactory().make(
            {"localhost", server.port(), TransportSecurity::implicitTLS}, timeouts());
        stream->open();
        stream->writeText("abc\n");
        StreamReader reader(*stream);
        EXPECT_EQ(bytesToString(reader.readLine(100)), "cba");
    }
}

TEST(SocketTLSTransportTest, StartsPlainAndUpgradesWithStartTLS) {
    OpenSSLServer server(reversing("leaf"));
    testing::StartTLSFront front(server.port());
    auto stream = SocketByteStreamFactory().make(
        {"localhost", front.port(), TransportSecurity::startTLS}, timeouts(5, 0.05));
    StreamReader reader(*stream);
    stream->open();
    EXPECT_EQ(bytesToString(reader.readLine(100)), "* OK ready");
    // A read that timed out leaves its receive outstanding: no STARTTLS then.
    EXPECT_EQ(errorOf([&] { stream->read(10); }),
              MailError::network(NK::timeout, "read timed out"));
    EXPECT_EQ(
        errorOf([&] { stream->upgradeToTLS("localhost"); }),
        MailError::tls(TLSFailureKind::handshakeFailed, "receive outstanding during STARTTLS"));
    stream->writeText("A1 STARTTLS\r\n");
    EXPECT_EQ(bytesToString(reader.readLine(100)), "A1 OK begin TLS");
    stream->upgradeToTLS("localhost");
    stream->writeText("secure\n");
    EXPECT_EQ(bytesToString(reader.readLine(100)), "eruces");
    EXPECT_EQ(errorOf([&] { stream->upgradeToTLS("localhost"); }),
              MailError::protocolViolation(ProtocolIssueKind::unexpectedResponse,
                                           "connection is already TLS"));
}

TEST(SocketTLSTransportTest, TransportRefusesStartTLSWithAReceiveOutstanding) {
    // A server that greets only when asked: the receive below is certainly
    // pending when the upgrade is asked for.
    testing::ScriptedServer onRequest([](int fd) {
        if (testing::readLine(fd) == "greet\n") testing::sendAll(fd, "* OK ready\r\n");
        testing::readLine(fd);
    });
    SocketTLSTransport transport("127.0.0.1", onRequest.port(), {});
    transport.connect(5);
    std::promise<ReceiveResult> received;
    std::string completionThread;
    transport.startReceive(100, [&](ReceiveResult r) {
        char name[32] = {};
        pthread_getname_np(pthread_self(), name, sizeof name);
        completionThread = name;
        received.set_value(std::move(r));
    });
    auto result = received.get_future();
    EXPECT_EQ(errorOf([&] { transport.upgradeToTLS("localhost"); }),
              MailError::tls(TLSFailureKind::handshakeFailed,
                             "cannot upgrade with a receive outstanding"));
    transport.send(toBytes("greet\n"));
    EXPECT_EQ(bytesToString(std::get<Bytes>(result.get())), "* OK ready\r\n");
    // Completions come from the connection's own I/O thread.
    EXPECT_EQ(completionThread, "mailcore.net.so");
}

// Each server certificate with the host and anchors the client uses and
// the outcome it must see.
TEST(SocketTLSTransportTest, TrustDecisionsAndTheirFailures) {
    const auto rogueAnchor = Certificate::fromPEM(TestPKI::shared().pemText("rogue"));
    // The server presents the localhost certificate only to a client that
    // names localhost in SNI, and another host's otherwise.
    const auto sni = TestPKI::shared().serve("leaf");
    const std::vector<std::string> byName = {"-cert2", sni[1],        "-key2",
                                             sni[3],   "-servername", "localhost"};
    struct Case {
        const char* name;
        const char* certificate;
        std::string host;
        std::optional<MailError> expected;  // nullopt: the connection works
        std::vector<Certificate> anchors = {};
        std::vector<std::string> extra = {};
    };
    const Case cases[] = {
        {"a leaf from the system-trusted CA", "leaf", "localhost", std::nullopt},
        {"the IP address is checked against the IP name", "leaf", "127.0.0.1", std::nullopt},
        {"an untrusted root", "rogueleaf", "localhost", untrusted},
        {"a self-signed certificate", "self", "localhost", untrusted},
        {"an expired certificate", "expired", "localhost", expired},
        {"a certificate for another host", "other", "localhost", mismatch},
        {"an extra anchor accepts its own chain", "rogueleaf", "localhost", std::nullopt,
         rogueAnchor},
        {"an extra anchor refuses a chain the system trusts", "leaf", "localhost", invalid,
         rogueAnchor},
        {"SNI is sent", "other", "localhost", std::nullopt, {}, byName},
        {"no SNI for an IP address", "other", "127.0.0.1", mismatch, {}, byName},
        {"a server capped at TLS 1.1",
         "leaf",
         "localhost",
         MailError::tls(TLSFailureKind::protocolVersionTooLow, "protocol version not acceptable"),
         {},
         {"-tls1_1", "-cipher", "DEFAULT@SECLEVEL=0"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        OpenSSLServer server(reversing(c.certificate, c.extra));
        Connection conn(c.host, server.port(), Mode::implicitTLS, c.anchors);
        if (c.expected) {
            EXPECT_EQ(errorOf([&] { conn.stream.open(); }), *c.expected) << server.log();
            continue;
        }
        try {
            conn.stream.open();
            conn.stream.writeText("ping\n");
            EXPECT_EQ(conn.line(), "gnip");
        } catch (const MailError& e) {
            ADD_FAILURE() << "failed with " << e.what() << "\n" << server.log();
        }
    }
}

TEST(SocketTLSTransportTest, ConnectFailuresAndTimeouts) {
    const auto timedOut = MailError::network(NK::timeout, "TLS handshake timed out");
    testing::Listener silent;  // connections wait in its queue, never answered
    testing::FullListener full;
    struct Case {
        std::uint16_t port;
        Mode mode;
        MailError expected;
    } cases[] = {
        // Nothing listens on a port that was just free.
        {testing::freePort(), Mode::plainUntilUpgrade,
         MailError::network(NK::connectionRefused, "connection refused")},
        {0, Mode::implicitTLS, MailError::network(NK::other, "invalid endpoint")},
        {full.port(), Mode::plainUntilUpgrade,
         MailError::network(NK::timeout, "connect timed out")},
        {silent.port(), Mode::implicitTLS, timedOut},
    };
    for (const auto& c : cases) {
        Connection conn("127.0.0.1", c.port, c.mode, {}, timeouts(0.3));
        EXPECT_EQ(errorOf([&] { conn.stream.open(); }), c.expected);
    }
    // STARTTLS with a server that never answers the handshake.
    Connection c("127.0.0.1", silent.port(), Mode::plainUntilUpgrade, {}, timeouts(5), 0.3);
    c.stream.open();
    EXPECT_EQ(errorOf([&] { c.stream.upgradeToTLS("localhost"); }), timedOut);
    // A failed handshake leaves the connection failed.
    EXPECT_EQ(errorOf([&] { c.stream.writeText("x"); }), timedOut);
}

TEST(SocketTLSTransportTest, ResetsAndClosesAreMappedAsWritten) {
    const auto lost = MailError::network(NK::connectionLost, "connection lost");
    const auto lostInHandshake =
        MailError::network(NK::connectionLost, "connection closed during the TLS handshake");
    testing::ScriptedServer resetting([](int fd) {
        std::this_thread::sleep_for(50ms);
        testing::resetConnection(fd);
    });
    testing::ScriptedServer hangingUp([](int fd) { testing::readLine(fd); });
    testing::ScriptedServer plain([](int fd) {
        testing::sendAll(fd, "* OK IMAP server ready, no TLS here\r\n");
        testing::readLine(fd);
    });
    // Reset by the server while the client waits for bytes: for good.
    {
        Connection c("127.0.0.1", resetting.port(), Mode::plainUntilUpgrade);
        c.stream.open();
        EXPECT_EQ(errorOf([&] { c.stream.read(10); }), lost);
        EXPECT_EQ(errorOf([&] { c.stream.read(10); }), lost);
    }
    // Reset, orderly close or plain text during the TLS handshake.
    const std::pair<std::uint16_t, MailError> handshakes[] = {
        {resetting.port(), lostInHandshake},
        {hangingUp.port(), lostInHandshake},
        {plain.port(), MailError::tls(TLSFailureKind::handshakeFailed,
                                      "TLS handshake failed (" +
                                          std::to_string(SSL_R_WRONG_VERSION_NUMBER) + ")")},
    };
    for (const auto& [port, expected] : handshakes) {
        Connection c("localhost", port, Mode::implicitTLS);
        EXPECT_EQ(errorOf([&] { c.stream.open(); }), expected);
    }
    // A server that closes right after its last line.
    testing::ScriptedServer bye([](int fd) { testing::sendAll(fd, "* BYE done\r\n"); });
    Connection c("127.0.0.1", bye.port(), Mode::plainUntilUpgrade);
    c.stream.open();
    EXPECT_EQ(c.line(), "* BYE done");
    EXPECT_EQ(errorOf([&] { c.line(); }),
              MailError::network(NK::connectionLost, "connection closed by server"));
    EXPECT_TRUE(c.stream.read(10).empty());
}

// The transport writes with its own socket calls, so a write to a peer
// that is gone fails with "connection lost" instead of raising SIGPIPE
// (which is not ignored in this test process).
TEST(SocketTLSTransportTest, WritesToAVanishedPeerFailWithoutSIGPIPE) {
    auto server = std::make_unique<OpenSSLServer>(reversing("leaf"));
    Connection c("localhost", server->port(), Mode::implicitTLS);
    c.stream.open();
    server.reset();  // the server process ends; its socket goes with it
    const std::string chunk(16384, 'z');
    std::optional<MailError> failure;
    for (int i = 0; i < 200 && !failure; ++i) {
        try {
            c.stream.writeText(chunk);
        } catch (const MailError& e) {
            failure = e;
        }
        std::this_thread::sleep_for(5ms);
    }
    ASSERT_TRUE(failure.has_value());
    EXPECT_EQ(*failure, MailError::network(NK::connectionLost, "connection lost"));
    // The failure is the transport's for good.
    EXPECT_EQ(errorOf([&] { c.stream.writeText("x"); }), *failure);
}

// Close ends a connect or a read in progress at once; what follows fails.
TEST(SocketTLSTransportTest, CloseEndsAConnectOrAReadInProgress) {
    OpenSSLServer server(reversing("leaf"));
    testing::FullListener full;
    const auto closed = MailError::network(NK::connectionLost, "connection closed");
    for (bool reading : {false, true}) {
        SCOPED_TRACE(reading ? "read" : "connect");
        Connection c(reading ? "localhost" : "127.0.0.1", reading ? server.port() : full.port(),
                     reading ? Mode::implicitTLS : Mode::plainUntilUpgrade, {}, timeouts(20, 30));
        if (reading) c.stream.open();
        auto waiting = std::async(std::launch::async, [&] {
            return errorOf([&] { reading ? (void)c.stream.read(10) : c.stream.open(); });
        });
        std::this_thread::sleep_for(100ms);
        c.stream.close();
        EXPECT_EQ(waiting.get(),
                  reading ? MailError::network(NK::connectionLost, "stream closed") : closed);
        EXPECT_EQ(errorOf([&] { c.stream.writeText("x\n"); }), closed);
        EXPECT_EQ(errorOf([&] { c.stream.open(); }),
                  MailError::network(NK::connectionLost, "stream closed"));
    }
}

}  // namespace
}  // namespace mailcore
