// The in-memory stream that stands in for a server: its line hook, chosen
// failures, and reads that end, fail, are cancelled or closed.
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

using testing::errorOf;

TEST(LoopbackByteStreamTest, PlaysTheServerSide) {
    LoopbackByteStream stream(10.0);
    std::vector<std::string> seen;
    stream.setOnLine([&](const std::string& line, LoopbackByteStream& s) {
        seen.push_back(line);
        s.serverSend(line.substr(0, line.find(' ')) + " OK done\r\n");
    });
    const MailError refused =
        MailError::protocolViolation(ProtocolIssueKind::commandRejected, "no");
    stream.failNextWrite("LOGIN", refused);
    stream.open();
    StreamReader reader(stream);
    stream.writeText("A1 NOOP\r\nA2 CAPA");
    stream.writeText("BILITY\n");
    EXPECT_EQ(errorOf([&] { stream.writeText("A3 LOGIN u p\r\n"); }), refused);
    stream.writeText("A4 LOGIN u p\r\n");  // only the next matching write fails
    for (const char* reply : {"A1 OK done", "A2 OK done", "A4 OK done"}) {
        EXPECT_EQ(bytesToString(reader.readLine(100)), reply);
    }
    EXPECT_EQ(seen, (std::vector<std::string>{"A1 NOOP", "A2 CAPABILITY", "A4 LOGIN u p"}));
    EXPECT_EQ(stream.writtenString(), "A1 NOOP\r\nA2 CAPABILITY\nA4 LOGIN u p\r\n");

    // A failure comes after the bytes sent before it, for good.
    const MailError lost =
        MailError::network(NetworkFailureKind::connectionLost, "connection lost");
    stream.serverSend(toBytes("ab"));
    stream.serverFail(lost);
    EXPECT_EQ(bytesToString(stream.read(0)), "a");
    EXPECT_EQ(bytesToString(stream.read(5)), "b");
    EXPECT_EQ(errorOf([&] { stream.read(5); }), lost);
    EXPECT_EQ(errorOf([&] { stream.read(5); }), lost);

    // A read waits its timeout; after a close, what was sent, then the end.
    LoopbackByteStream closing(0.02);
    EXPECT_EQ(errorOf([&] { closing.read(1); }),
              MailError::network(NetworkFailureKind::timeout, "read timed out"));
    closing.serverSend("* BYE\r\n");
    closing.serverClose();
    EXPECT_EQ(bytesToString(closing.read(100)), "* BYE\r\n");
    EXPECT_TRUE(closing.read(10).empty());

    LoopbackByteStream waiting(10.0);
    std::stop_source source;
    auto cancelled = std::async(std::launch::async, [&] {
        CancellationScope scope(source.get_token());
        return errorOf([&] { waiting.read(1); });
    });
    auto closed = std::async(std::launch::async, [&] { return errorOf([&] { waiting.read(1); }); });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    source.request_stop();
    EXPECT_EQ(cancelled.get(), MailError::cancelled());
    waiting.close();
    const auto streamClosed =
        MailError::network(NetworkFailureKind::connectionLost, "stream closed");
    EXPECT_EQ(closed.get(), streamClosed);
    EXPECT_EQ(errorOf([&] { waiting.writeText("x"); }), streamClosed);
}

}  // namespace
}  // namespace mailcore
