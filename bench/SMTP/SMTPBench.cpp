// SMTP submission benchmarks: messages per second through a private
// Dovecot's submission service over implicit TLS (signed in with AUTH
// PLAIN), relayed to the aiosmtpd sink, which writes each message to disk.
//
// BM_SubmitOverOneConnection: one session signed in once; each iteration
//   submits one message (MAIL, RCPT, DATA) over it.
// BM_SubmitConnectionPerMessage: each iteration connects (TCP and TLS
//   handshake), reads the greeting, says EHLO, signs in, submits one
//   message and quits.
// Both wait for the server's reply to the end of the message, which
// Dovecot gives once the sink has accepted it. Messages are about 2 kB.
//
// Run (as root, for the Dovecot fixture):
//   cmake --preset release && cmake --build --preset release --target SMTPBench
//   build/release/bench/SMTP/SMTPBench --benchmark_min_time=3
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "MailCore/SMTP/SMTPClient.h"
#include "MailCore/Transport/SocketTLSTransport.h"
#include "tests/fakes/DovecotServer.h"
#include "tests/fakes/SMTPSink.h"

namespace {

using namespace mailcore;

struct Peers {
    Peers() : sink(), server(options(sink.port())), streams(server.trustAnchors()) {}
    static testing::DovecotOptions options(std::uint16_t relay) {
        testing::DovecotOptions o;
        o.submissionRelayPort = relay;
        return o;
    }
    testfiles::SMTPSink sink;
    testing::DovecotServer server;
    SocketByteStreamFactory streams;
};

Peers& peers() {
    ::setenv("KESTRUNE_SOURCE_DIR", KESTRUNE_SOURCE_DIR, 0);
    static Peers instance;
    return instance;
}

std::unique_ptr<SMTPSession> signedIn() {
    Peers& p = peers();
    const ServerEndpoint endpoint = p.server.submissionTLSEndpoint();
    auto session = std::make_unique<SMTPClient>(
        p.streams.make(endpoint, ConnectionTimeouts{10, 30, 0, 30, 60}), endpoint, ProtocolLimits{},
        "localhost");
    session->connect();
    session->authenticate({"alice", "secret", false, std::nullopt});
    return session;
}

std::string message(std::int64_t n) {
    std::string body;
    for (int line = 0; line < 24; ++line)
        body += "Line " + std::to_string(line) + " of the quarterly figures, as agreed.\r\n";
    return "From: Alice <alice@example.com>\r\nTo: Bob <bob@example.org>\r\n"
           "Subject: Figures " +
           std::to_string(n) + "\r\nMessage-ID: <bench" + std::to_string(n) +
           "@example.com>\r\nMIME-Version: 1.0\r\nContent-Type: text/plain; charset=utf-8\r\n\r\n" +
           body;
}

const SMTPEnvelope envelope{"alice@example.com", {"bob@example.org"}};

void BM_SubmitOverOneConnection(benchmark::State& state) {
    auto session = signedIn();
    std::int64_t n = 0;
    for (auto _ : state) session->send(envelope, message(++n));
    session->quit();
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SubmitOverOneConnection)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_SubmitConnectionPerMessage(benchmark::State& state) {
    std::int64_t n = 1'000'000;
    for (auto _ : state) {
        auto session = signedIn();
        session->send(envelope, message(++n));
        session->quit();
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SubmitConnectionPerMessage)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
