#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <future>
#include <thread>

#include "MailCore/Transport/BufferedByteStream.h"
#include "MailCore/Transport/SocketTLSTransport.h"
#include "MailCore/Transport/StreamReader.h"
#include "TLSTestPeers.h"

namespace mailcore {
namespace {

using namespace std::chrono_literals;
using testing::OpenSSLServer;
using testing::TestPKI;
using Mode = SocketTLSTransport::Mode;

MailError errorOf(const std::function<void()>& body) {
    try {
        body();
    } catch (const MailError& e) {
        return e;
    }
    ADD_FAILURE() << "no MailError thrown";
    return MailError::offline();
}

ConnectionTimeouts timeouts(double connect = 5, double read = 5) {
    return ConnectionTimeouts{connect, read, 0, 0, 0};
}

// A stream over a socket transport, keeping a view of the transport.
struct Connection {
    Connection(const std::string& host, std::uint16_t port, Mode mode,
               std::vector<Certificate> anchors = {}, ConnectionTimeouts t = timeouts(),
               double handshakeTimeout = 30)
        : transport(new SocketTLSTransport(host, port, std::move(anchors), mode, handshakeTimeout)),
          stream(std::unique_ptr<RawTransport>(transport), t),
          reader(stream) {}

    std::string line() { return bytesToString(reader.readLine(1000)); }

    SocketTLSTransport* transport;
    BufferedByteStream stream;
    StreamReader reader;
};

TEST(SocketTLSTransportTest, MapsErrnoValuesByName) {
    const auto lost = MailError::network(NetworkFailureKind::connectionLost, "connection lost");
    const auto unreachable =
        MailError::network(NetworkFailureKind::unreachable, "network unreachable");
    const std::pair<int, MailError> cases[] = {
        {ETIMEDOUT, MailError::network(NetworkFailureKind::timeout, "connection timed out")},
        {ECONNREFUSED,
         MailError::network(NetworkFailureKind::connectionRefused, "connection refused")},
        {EPIPE, lost},
        {ECONNABORTED, lost},
        {ECONNRESET, lost},
        {ENOTCONN, lost},
        {ENETDOWN, unreachable},
        {ENETUNREACH, unreachable},
        {EHOSTDOWN, unreachable},
        {EHOSTUNREACH, unreachable},
        {EPERM,
         MailError::network(NetworkFailureKind::other, "socket error " + std::to_string(EPERM))},
    };
    for (const auto& [error, expected] : cases) EXPECT_EQ(mapErrno(error), expected) << error;
}

TEST(SocketTLSTransportTest, MapsVerifyResultsToTrustFailures) {
    const auto untrusted = MailError::tls(TLSFailureKind::untrustedRoot, "certificate not trusted");
    const auto expired =
        MailError::tls(TLSFailureKind::certificateExpired, "certificate date invalid");
    const auto mismatch =
        MailError::tls(TLSFailureKind::hostnameMismatch, "certificate does not match host");
    const auto invalid = MailError::tls(TLSFailureKind::certificateInvalid, "certificate invalid");
    const std::pair<long, MailError> cases[] = {
        {X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY, untrusted},
        {X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN, untrusted},
        {X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT, untrusted},
        {X509_V_ERR_CERT_HAS_EXPIRED, expired},
        {X509_V_ERR_CERT_NOT_YET_VALID, expired},
        {X509_V_ERR_HOSTNAME_MISMATCH, mismatch},
        {X509_V_ERR_IP_ADDRESS_MISMATCH, mismatch},
        {X509_V_ERR_CERT_SIGNATURE_FAILURE, invalid},
        {X509_V_ERR_INVALID_PURPOSE, invalid},
    };
    for (const auto& [result, expected] : cases)
        EXPECT_EQ(mapVerifyResult(result), expected) << result;
}

TEST(SocketTLSTransportTest, ReadsCertificatesFromPEM) {
    const TestPKI& pki = TestPKI::shared();
    const auto both = Certificate::fromPEM(pki.read(pki.ca) + pki.read(pki.rogueCA));
    EXPECT_EQ(both.size(), 2u);
    EXPECT_NE(both[0], both[1]);
    for (const std::string& bad : {std::string(), std::string("not a certificate"),
                                   std::string("-----BEGIN CERTIFICATE-----\nAAAA\n-----END "
                                               "CERTIFICATE-----\n")}) {
        EXPECT_EQ(errorOf([&] { Certificate::fromPEM(bad); }),
                  MailError::tls(TLSFailureKind::certificateInvalid, "certificate invalid"));
    }
}

TEST(SocketTLSTransportTest, ImplicitTLSCarriesDataWithTLS13AndTLS12) {
    const TestPKI& pki = TestPKI::shared();
    for (const auto& [flag, protocol] :
         {std::pair<std::string, std::string>{"-tls1_3", "TLSv1.3"}, {"-tls1_2", "TLSv1.2"}}) {
        SCOPED_TRACE(flag);
        OpenSSLServer server({"-cert", pki.leaf, "-key", pki.leafKey, flag, "-rev"});
        {
            Connection c("localhost", server.port(), Mode::implicitTLS);
            c.stream.open();
            EXPECT_EQ(c.transport->negotiatedProtocol(), protocol);
            c.stream.writeText("hello\n");
            EXPECT_EQ(c.line(), "olleh");
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
        SocketByteStreamFactory factory;
        auto stream =
            factory.make({"localhost", server.port(), TransportSecurity::implicitTLS}, timeouts());
        stream->open();
        stream->writeText("abc\n");
        StreamReader reader(*stream);
        EXPECT_EQ(bytesToString(reader.readLine(100)), "cba");
    }
}

TEST(SocketTLSTransportTest, StartsPlainAndUpgradesWithStartTLS) {
    const TestPKI& pki = TestPKI::shared();
    OpenSSLServer server({"-cert", pki.leaf, "-key", pki.leafKey, "-rev"});
    testing::StartTLSFront front(server.port());
    SocketByteStreamFactory factory;
    auto stream =
        factory.make({"localhost", front.port(), TransportSecurity::startTLS}, timeouts(5, 0.05));
    StreamReader reader(*stream);
    stream->open();
    EXPECT_EQ(bytesToString(reader.readLine(100)), "* OK ready");
    stream->writeText("A1 STARTTLS\r\n");
    EXPECT_EQ(bytesToString(reader.readLine(100)), "A1 OK begin TLS");
    stream->upgradeToTLS("localhost");
    stream->writeText("secure\n");
    EXPECT_EQ(bytesToString(reader.readLine(100)), "eruces");
    EXPECT_EQ(errorOf([&] { stream->upgradeToTLS("localhost"); }),
              MailError::protocolViolation(ProtocolIssueKind::unexpectedResponse,
                                           "connection is already TLS"));
}

TEST(SocketTLSTransportTest, StartTLSIsRefusedWithAReceiveOutstanding) {
    testing::ScriptedServer greeter([](int fd) {
        testing::sendAll(fd, "* OK ready\r\n");
        testing::readLine(fd);  // until the client goes away
    });
    {
        Connection c("127.0.0.1", greeter.port(), Mode::plainUntilUpgrade, {}, timeouts(5, 0.05));
        c.stream.open();
        EXPECT_EQ(c.line(), "* OK ready");
        EXPECT_EQ(errorOf([&] { c.stream.read(10); }).detail(), "read timed out");
        EXPECT_EQ(
            errorOf([&] { c.stream.upgradeToTLS("localhost"); }),
            MailError::tls(TLSFailureKind::handshakeFailed, "receive outstanding during STARTTLS"));
    }
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

// Each server configuration with the host and anchors the client uses and
// the outcome it must see ("ok" or the failure).
TEST(SocketTLSTransportTest, TrustDecisionsAndTheirFailures) {
    const TestPKI& pki = TestPKI::shared();
    const auto rogueAnchor = Certificate::fromPEM(pki.read(pki.rogueCA));
    const auto untrusted = MailError::tls(TLSFailureKind::untrustedRoot, "certificate not trusted");
    struct Case {
        const char* name;
        std::vector<std::string> server;
        std::string host;
        std::vector<Certificate> anchors;
        std::optional<MailError> expected;  // nullopt: the connection works
    };
    const std::vector<Case> cases = {
        {"a leaf from the system-trusted CA",
         {"-cert", pki.leaf, "-key", pki.leafKey},
         "localhost",
         {},
         std::nullopt},
        {"the IP address is checked against the IP name",
         {"-cert", pki.leaf, "-key", pki.leafKey},
         "127.0.0.1",
         {},
         std::nullopt},
        {"an untrusted root",
         {"-cert", pki.rogueLeaf, "-key", pki.rogueKey},
         "localhost",
         {},
         untrusted},
        {"a self-signed certificate",
         {"-cert", pki.selfSigned, "-key", pki.selfSignedKey},
         "localhost",
         {},
         untrusted},
        {"an expired certificate",
         {"-cert", pki.expiredLeaf, "-key", pki.expiredKey},
         "localhost",
         {},
         MailError::tls(TLSFailureKind::certificateExpired, "certificate date invalid")},
        {"a certificate for another host",
         {"-cert", pki.otherLeaf, "-key", pki.otherKey},
         "localhost",
         {},
         MailError::tls(TLSFailureKind::hostnameMismatch, "certificate does not match host")},
        {"an extra anchor accepts its own chain",
         {"-cert", pki.rogueLeaf, "-key", pki.rogueKey},
         "localhost",
         rogueAnchor,
         std::nullopt},
        {"an extra anchor refuses a chain the system trusts",
         {"-cert", pki.leaf, "-key", pki.leafKey},
         "localhost",
         rogueAnchor,
         MailError::tls(TLSFailureKind::certificateInvalid, "certificate invalid")},
        // The server presents the localhost certificate only to a client
        // that names localhost in SNI, and another host's otherwise.
        {"SNI is sent",
         {"-cert", pki.otherLeaf, "-key", pki.otherKey, "-cert2", pki.leaf, "-key2", pki.leafKey,
          "-servername", "localhost"},
         "localhost",
         {},
         std::nullopt},
        {"no SNI for an IP address",
         {"-cert", pki.otherLeaf, "-key", pki.otherKey, "-cert2", pki.leaf, "-key2", pki.leafKey,
          "-servername", "localhost"},
         "127.0.0.1",
         {},
         MailError::tls(TLSFailureKind::hostnameMismatch, "certificate does not match host")},
        {"a server capped at TLS 1.1",
         {"-cert", pki.leaf, "-key", pki.leafKey, "-tls1_1", "-cipher", "DEFAULT@SECLEVEL=0"},
         "localhost",
         {},
         MailError::tls(TLSFailureKind::protocolVersionTooLow, "protocol version not acceptable")},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<std::string> arguments = c.server;
        arguments.push_back("-rev");
        OpenSSLServer server(arguments);
        Connection conn(c.host, server.port(), Mode::implicitTLS, c.anchors);
        if (!c.expected) {
            try {
                conn.stream.open();
                conn.stream.writeText("ping\n");
                EXPECT_EQ(conn.line(), "gnip");
            } catch (const MailError& e) {
                ADD_FAILURE() << "failed with " << e.what() << "\n" << server.log();
            }
        } else {
            EXPECT_EQ(errorOf([&] { conn.stream.open(); }), *c.expected) << server.log();
        }
    }
}

TEST(SocketTLSTransportTest, ConnectFailuresAreMappedAsWritten) {
    // Nothing listens on a port that was just free.
    {
        Connection c("127.0.0.1", testing::freePort(), Mode::plainUntilUpgrade);
        EXPECT_EQ(errorOf([&] { c.stream.open(); }),
                  MailError::network(NetworkFailureKind::connectionRefused, "connection refused"));
    }
    {
        Connection c("127.0.0.1", 0, Mode::implicitTLS);
        EXPECT_EQ(errorOf([&] { c.stream.open(); }),
                  MailError::network(NetworkFailureKind::other, "invalid endpoint"));
    }
    // A listener whose accept queue is full drops further connection
    // attempts, so the TCP connection never completes.
    {
        testing::Listener full(0);
        const int filler = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(full.port());
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ASSERT_EQ(::connect(filler, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        Connection c("127.0.0.1", full.port(), Mode::plainUntilUpgrade, {}, timeouts(0.3));
        const auto started = std::chrono::steady_clock::now();
        EXPECT_EQ(errorOf([&] { c.stream.open(); }),
                  MailError::network(NetworkFailureKind::timeout, "connect timed out"));
        EXPECT_LT(std::chrono::steady_clock::now() - started, 3s);
        ::close(filler);
    }
}

TEST(SocketTLSTransportTest, HandshakesThatNeverCompleteTimeOut) {
    const auto timedOut =
        MailError::network(NetworkFailureKind::timeout, "TLS handshake timed out");
    testing::Listener silent;  // connections wait in its queue, never answered
    {
        Connection c("127.0.0.1", silent.port(), Mode::implicitTLS, {}, timeouts(0.3));
        EXPECT_EQ(errorOf([&] { c.stream.open(); }), timedOut);
    }
    {
        Connection c("127.0.0.1", silent.port(), Mode::plainUntilUpgrade, {}, timeouts(5), 0.3);
        c.stream.open();
        const auto started = std::chrono::steady_clock::now();
        EXPECT_EQ(errorOf([&] { c.stream.upgradeToTLS("localhost"); }), timedOut);
        EXPECT_LT(std::chrono::steady_clock::now() - started, 3s);
        // A failed handshake leaves the connection failed.
        EXPECT_EQ(errorOf([&] { c.stream.writeText("x"); }), timedOut);
    }
}

TEST(SocketTLSTransportTest, ResetsAndClosesAreMappedAsWritten) {
    const auto lostInHandshake = MailError::network(NetworkFailureKind::connectionLost,
                                                    "connection closed during the TLS handshake");
    // Reset by the server while the client waits for bytes.
    testing::ScriptedServer resetting([](int fd) {
        std::this_thread::sleep_for(50ms);
        testing::resetConnection(fd);
    });
    {
        Connection c("127.0.0.1", resetting.port(), Mode::plainUntilUpgrade);
        c.stream.open();
        const auto lost = MailError::network(NetworkFailureKind::connectionLost, "connection lost");
        EXPECT_EQ(errorOf([&] { c.stream.read(10); }), lost);
        EXPECT_EQ(errorOf([&] { c.stream.read(10); }), lost);  // sticky
    }
    // Reset or orderly close during the TLS handshake.
    {
        Connection c("localhost", resetting.port(), Mode::implicitTLS);
        EXPECT_EQ(errorOf([&] { c.stream.open(); }), lostInHandshake);
    }
    testing::ScriptedServer hangingUp([](int fd) { testing::readLine(fd); });
    {
        Connection c("localhost", hangingUp.port(), Mode::implicitTLS);
        EXPECT_EQ(errorOf([&] { c.stream.open(); }), lostInHandshake);
    }
    // A server that closes right after its last line.
    testing::ScriptedServer bye([](int fd) { testing::sendAll(fd, "* BYE done\r\n"); });
    {
        Connection c("127.0.0.1", bye.port(), Mode::plainUntilUpgrade);
        c.stream.open();
        EXPECT_EQ(c.line(), "* BYE done");
        EXPECT_EQ(errorOf([&] { c.line(); }), MailError::network(NetworkFailureKind::connectionLost,
                                                                 "connection closed by server"));
        EXPECT_TRUE(c.stream.read(10).empty());
    }
}

TEST(SocketTLSTransportTest, APlaintextServerOnATLSPortFailsTheHandshakeWithItsReason) {
    testing::ScriptedServer plain([](int fd) {
        testing::sendAll(fd, "* OK IMAP server ready, no TLS here\r\n");
        testing::readLine(fd);
    });
    Connection c("localhost", plain.port(), Mode::implicitTLS);
    EXPECT_EQ(errorOf([&] { c.stream.open(); }),
              MailError::tls(
                  TLSFailureKind::handshakeFailed,
                  "TLS handshake failed (" + std::to_string(SSL_R_WRONG_VERSION_NUMBER) + ")"));
}

TEST(SocketTLSTransportTest, CloseDuringConnectEndsItAtOnce) {
    testing::Listener full(0);
    const int filler = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(full.port());
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(::connect(filler, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    Connection c("127.0.0.1", full.port(), Mode::plainUntilUpgrade, {}, timeouts(20));
    auto opening =
        std::async(std::launch::async, [&] { return errorOf([&] { c.stream.open(); }); });
    std::this_thread::sleep_for(100ms);
    const auto started = std::chrono::steady_clock::now();
    c.stream.close();
    EXPECT_EQ(opening.get(),
              MailError::network(NetworkFailureKind::connectionLost, "connection closed"));
    EXPECT_LT(std::chrono::steady_clock::now() - started, 5s);
    ::close(filler);
}

// The transport writes with its own socket calls, so a write to a peer
// that is gone fails with "connection lost" instead of raising SIGPIPE
// (which is not ignored in this test process).
TEST(SocketTLSTransportTest, WritesToAVanishedPeerFailWithoutSIGPIPE) {
    const TestPKI& pki = TestPKI::shared();
    auto server = std::make_unique<OpenSSLServer>(
        std::vector<std::string>{"-cert", pki.leaf, "-key", pki.leafKey, "-rev"});
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
    EXPECT_EQ(*failure, MailError::network(NetworkFailureKind::connectionLost, "connection lost"));
    // The failure is the transport's for good.
    EXPECT_EQ(errorOf([&] { c.stream.writeText("x"); }), *failure);
}

TEST(SocketTLSTransportTest, CloseEndsAWaitingReadAndLaterWrites) {
    const TestPKI& pki = TestPKI::shared();
    OpenSSLServer server({"-cert", pki.leaf, "-key", pki.leafKey, "-rev"});
    Connection c("localhost", server.port(), Mode::implicitTLS, {}, timeouts(5, 30));
    c.stream.open();
    auto reader =
        std::async(std::launch::async, [&] { return errorOf([&] { c.stream.read(10); }); });
    std::this_thread::sleep_for(50ms);
    const auto started = std::chrono::steady_clock::now();
    c.stream.close();
    const auto closed = MailError::network(NetworkFailureKind::connectionLost, "stream closed");
    EXPECT_EQ(reader.get(), closed);
    EXPECT_LT(std::chrono::steady_clock::now() - started, 5s);
    EXPECT_EQ(errorOf([&] { c.stream.writeText("x\n"); }),
              MailError::network(NetworkFailureKind::connectionLost, "connection closed"));
}

}  // namespace
}  // namespace mailcore
