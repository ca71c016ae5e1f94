#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <thread>

#include "MailCore/Transport/Cancellation.h"
#include "MailCore/Transport/LoopbackByteStream.h"
#include "MailCore/Transport/StreamReader.h"
#include "TLSTestPeers.h"

namespace mailcore {
namespace {

using namespace std::chrono_literals;
using testing::errorOf;

TEST(LoopbackByteStreamTest, ServerAnswersEachClientLineThroughTheHook) {
    LoopbackByteStream stream(1.0);
    std::vector<std::string> seen;
    stream.setOnLine([&](const std::string& line, LoopbackByteStream& s) {
        seen.push_back(line);
        const std::string tag = line.substr(0, line.find(' '));
        s.serverSend(tag + " OK done\r\n");
    });
    stream.open();
    stream.serverSend("* OK ready\r\n");
    StreamReader reader(stream);
    EXPECT_EQ(bytesToString(reader.readLine(100)), "* OK ready");
    stream.writeText("A1 NOOP\r\nA2 CAPA");
    stream.writeText("BILITY\n");
    EXPECT_EQ(bytesToString(reader.readLine(100)), "A1 OK done");
    EXPECT_EQ(bytesToString(reader.readLine(100)), "A2 OK done");
    EXPECT_EQ(seen, (std::vector<std::string>{"A1 NOOP", "A2 CAPABILITY"}));
    EXPECT_EQ(stream.writtenString(), "A1 NOOP\r\nA2 CAPABILITY\n");
    EXPECT_TRUE(stream.isOpen());
}

TEST(LoopbackByteStreamTest, ServerCloseAndFailureComeAfterBufferedBytes) {
    LoopbackByteStream closing(1.0);
    closing.serverSend("* BYE\r\n");
    closing.serverClose();
    StreamReader reader(closing);
    EXPECT_EQ(bytesToString(reader.readLine(100)), "* BYE");
    EXPECT_EQ(errorOf([&] { reader.readLine(100); }).detail(), "connection closed by server");
    EXPECT_TRUE(closing.read(10).empty());

    LoopbackByteStream failing(1.0);
    const MailError lost =
        MailError::network(NetworkFailureKind::connectionLost, "connection lost");
    failing.serverSend(toBytes("ab"));
    failing.serverFail(lost);
    EXPECT_EQ(bytesToString(failing.read(0)), "a");
    EXPECT_EQ(bytesToString(failing.read(5)), "b");
    EXPECT_EQ(errorOf([&] { failing.read(5); }), lost);
    EXPECT_EQ(errorOf([&] { failing.read(5); }), lost);
}

TEST(LoopbackByteStreamTest, ChosenWritesOpensAndUpgradesFail) {
    LoopbackByteStream stream(1.0);
    const MailError refused =
        MailError::protocolViolation(ProtocolIssueKind::commandRejected, "no");
    stream.failNextWrite("LOGIN", refused);
    stream.writeText("A1 NOOP\r\n");
    EXPECT_EQ(errorOf([&] { stream.writeText("A2 LOGIN u p\r\n"); }), refused);
    stream.writeText("A3 LOGIN u p\r\n");  // only the next matching write fails
    EXPECT_EQ(stream.writtenString(), "A1 NOOP\r\nA3 LOGIN u p\r\n");

    stream.setUpgradeError(MailError::tls(TLSFailureKind::startTLSUnavailable, "no STARTTLS"));
    EXPECT_EQ(errorOf([&] { stream.upgradeToTLS("mail.example.com"); }).tlsKind(),
              TLSFailureKind::startTLSUnavailable);
    EXPECT_FALSE(stream.didUpgrade());
    stream.setUpgradeError(std::nullopt);
    stream.upgradeToTLS("mail.example.com");
    EXPECT_TRUE(stream.didUpgrade());
    EXPECT_EQ(stream.upgradeServerName(), "mail.example.com");

    LoopbackByteStream unreachable(1.0);
    unreachable.setOpenError(
        MailError::network(NetworkFailureKind::unreachable, "network unreachable"));
    EXPECT_EQ(errorOf([&] { unreachable.open(); }).networkKind(), NetworkFailureKind::unreachable);
}

TEST(LoopbackByteStreamTest, ReadsTimeOutAreCancelledAndEndWithClose) {
    LoopbackByteStream stream(0.02);
    EXPECT_EQ(errorOf([&] { stream.read(1); }),
              MailError::network(NetworkFailureKind::timeout, "read timed out"));

    LoopbackByteStream waiting(10.0);
    std::stop_source source;
    auto cancelled = std::async(std::launch::async, [&] {
        CancellationScope scope(source.get_token());
        return errorOf([&] { waiting.read(1); });
    });
    std::this_thread::sleep_for(20ms);
    source.request_stop();
    EXPECT_EQ(cancelled.get(), MailError::cancelled());

    auto closed = std::async(std::launch::async, [&] { return errorOf([&] { waiting.read(1); }); });
    std::this_thread::sleep_for(20ms);
    waiting.close();
    EXPECT_EQ(closed.get(),
              MailError::network(NetworkFailureKind::connectionLost, "stream closed"));
    EXPECT_TRUE(waiting.isClosed());
    EXPECT_EQ(errorOf([&] { waiting.writeText("x"); }).detail(), "stream closed");
}

}  // namespace
}  // namespace mailcore
