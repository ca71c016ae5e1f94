// The buffered stream over a transport that the test drives: the order in
// which a read sees bytes, closes, failures and the end of the stream; one
// receive at a time; timeouts, cancellation and close racing each other.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <future>
#include <mutex>
#include <optional>
#include <random>
#include <thread>
#include <vector>

#include "MailCore/Transport/BufferedByteStream.h"
#include "MailCore/Transport/Cancellation.h"
#include "TLSTestPeers.h"

namespace mailcore {
namespace {

using namespace std::chrono_literals;
using testing::errorOf;

// A RawTransport driven by the test: it records every call, keeps the one
// receive completion until the test delivers a result, and can deliver at
// once from a queue of scripted results.
class FakeTransport final : public RawTransport {
public:
    void connect(double timeoutSeconds) override { connectTimeout = timeoutSeconds; }
    void startReceive(int maxLength, ReceiveCompletion completion) override {
        std::unique_lock lock(lock_);
        receiveLengths.push_back(maxLength);
        EXPECT_FALSE(pending_) << "two receives outstanding";
        if (!queued_.empty()) {
            ReceiveResult result = std::move(queued_.front());
            queued_.pop_front();
            lock.unlock();
            completion(std::move(result));
            return;
        }
        pending_ = std::move(completion);
        receiveStarted_.notify_all();
    }
    void send(const Bytes& bytes) override { sent.insert(sent.end(), bytes.begin(), bytes.end()); }
    void upgradeToTLS(const std::string&) override {}
    void cancel() override {
        deliver(MailError::network(NetworkFailureKind::connectionLost, "connection closed"));
    }

    // A result handed out at once by a later startReceive.
    void queue(ReceiveResult result) {
        std::lock_guard lock(lock_);
        queued_.push_back(std::move(result));
    }
    // Completes the outstanding receive; false when there is none.
    bool deliver(ReceiveResult result) {
        ReceiveCompletion pending;
        {
            std::lock_guard lock(lock_);
            pending = std::exchange(pending_, nullptr);
        }
        if (!pending) return false;
        pending(std::move(result));
        return true;
    }
    bool waitForReceive() {
        std::unique_lock lock(lock_);
        return receiveStarted_.wait_for(lock, 2s, [&] { return pending_ != nullptr; });
    }

    double connectTimeout = 0;
    std::vector<int> receiveLengths;
    Bytes sent;

private:
    std::mutex lock_;
    std::condition_variable receiveStarted_;
    ReceiveCompletion pending_;
    std::deque<ReceiveResult> queued_;
};

struct Harness {
    explicit Harness(double readTimeout = 2.0)
        : transport(new FakeTransport),
          stream(std::unique_ptr<RawTransport>(transport),
                 ConnectionTimeouts{7, readTimeout, 0, 0, 0}) {}
    FakeTransport* transport;
    BufferedByteStream stream;
};

const MailError streamClosed =
    MailError::network(NetworkFailureKind::connectionLost, "stream closed");
const MailError readTimedOut = MailError::network(NetworkFailureKind::timeout, "read timed out");
const MailError lost = MailError::network(NetworkFailureKind::connectionLost, "connection lost");

TEST(BufferedByteStreamTest, OpensWritesAndReadsThroughTheTransport) {
    Harness h;
    h.stream.open();
    h.stream.writeText("A1 NOOP\r\n");
    EXPECT_EQ(h.transport->connectTimeout, 7);
    EXPECT_EQ(bytesToString(h.transport->sent), "A1 NOOP\r\n");
    // Buffered bytes come in pieces of at most maxLength (at least one).
    h.transport->queue(toBytes("abcdefghij"));
    EXPECT_EQ(bytesToString(h.stream.read(4)), "abcd");
    EXPECT_EQ(bytesToString(h.stream.read(0)), "e");
    EXPECT_EQ(bytesToString(h.stream.read(-5)), "f");
    EXPECT_EQ(bytesToString(h.stream.read(100)), "ghij");
    EXPECT_EQ(h.transport->receiveLengths, std::vector<int>{16384});
    // The read timeout is at least a millisecond. (STARTTLS with a receive
    // outstanding is refused: the socket transport tests show it.)
    Harness waiting(0.0);
    EXPECT_EQ(errorOf([&] { waiting.stream.read(1); }), readTimedOut);
}

// Steps of a conversation between a reader and the transport: "read N"
// must give "=bytes" or "!" and the failure; "deliver" hands the
// outstanding receive its result; "close" closes the stream.
TEST(BufferedByteStreamTest, DecidesEachReadInTheDocumentedOrder) {
    struct Step {
        enum Kind { read, deliver, close } kind;
        std::string expected = "";  // for read
        int maxLength = 100;
        std::optional<ReceiveResult> result = std::nullopt;
    };
    const auto failed = [](const MailError& e) { return "!" + std::string(e.what()); };
    const Step timesOut{Step::read, failed(readTimedOut)}, closes{Step::close};
    const auto give = [](ReceiveResult r) { return Step{Step::deliver, "", 0, std::move(r)}; };
    const auto reads = [](std::string expected, int maxLength = 100) {
        return Step{Step::read, std::move(expected), maxLength};
    };
    struct Case {
        const char* name;
        std::vector<Step> steps;
    };
    const std::vector<Case> cases = {
        {"buffered bytes come before the closed flag",
         {timesOut, give(toBytes("xy")), closes, reads("=xy"), reads(failed(streamClosed))}},
        {"the closed flag comes before a recorded failure",
         {timesOut, give(lost), closes, reads(failed(streamClosed))}},
        {"a failure is reported to every later read",
         {timesOut, give(lost), reads(failed(lost)), reads(failed(lost)), reads(failed(lost), 0)}},
        {"end of stream reads as empty for good",
         {timesOut, give(Bytes{}), reads("="), reads("=")}},
        {"bytes before the end are read first",
         {timesOut, give(toBytes("abc")), reads("=ab", 2), reads("=c", 2), timesOut, give(Bytes{}),
          reads("=")}},
        {"the closed flag comes before end of stream",
         {timesOut, give(Bytes{}), closes, reads(failed(streamClosed))}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Harness h(0.03);
        for (const auto& step : c.steps) {
            if (step.kind == Step::deliver) {
                EXPECT_TRUE(h.transport->deliver(*step.result)) << "no receive outstanding";
            } else if (step.kind == Step::close) {
                h.stream.close();
            } else {
                std::string seen;
                try {
                    seen = "=" + bytesToString(h.stream.read(step.maxLength));
                } catch (const MailError& e) {
                    seen = failed(e);
                }
                EXPECT_EQ(seen, step.expected);
            }
        }
    }
}

TEST(BufferedByteStreamTest, KeepsAtMostOneReceiveOutstandingAcrossTimeouts) {
    Harness h(0.02);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(errorOf([&] { h.stream.read(10); }), readTimedOut);
    EXPECT_EQ(h.transport->receiveLengths.size(), 1u);
    // The receive asked for before the timeouts still feeds the next read.
    ASSERT_TRUE(h.transport->deliver(toBytes("late")));
    EXPECT_EQ(bytesToString(h.stream.read(10)), "late");
}

TEST(BufferedByteStreamTest, CancellationFailsTheWaitingReadOnly) {
    Harness h(10.0);
    std::stop_source source;
    auto reader = std::async(std::launch::async, [&] {
        CancellationScope scope(source.get_token());
        return errorOf([&] { h.stream.read(10); });
    });
    ASSERT_TRUE(h.transport->waitForReceive());
    source.request_stop();
    EXPECT_EQ(reader.get(), MailError::cancelled());
    // Not sticky: the outstanding receive still feeds a later read.
    ASSERT_TRUE(h.transport->deliver(toBytes("ok")));
    EXPECT_EQ(bytesToString(h.stream.read(10)), "ok");
    // Under a token stopped already, a read fails at once unless bytes are buffered.
    CancellationScope scope(source.get_token());
    EXPECT_EQ(errorOf([&] { h.stream.read(10); }), MailError::cancelled());
    ASSERT_TRUE(h.transport->deliver(toBytes("x")));
    EXPECT_EQ(bytesToString(h.stream.read(10)), "x");
}

// A stop requested for a wait that is over, and a timer of an earlier wait,
// leave the current wait alone.
TEST(BufferedByteStreamTest, StaleCancellationsAndTimersDoNothing) {
    Harness h(0.6);
    std::stop_source first;
    {
        CancellationScope scope(first.get_token());
        h.transport->queue(toBytes("a"));
        EXPECT_EQ(bytesToString(h.stream.read(10)), "a");
    }
    std::stop_source second;
    auto reader = std::async(std::launch::async, [&] {
        CancellationScope scope(second.get_token());
        std::string out;
        // Each wait is resumed after more than half the read timeout:
        // a timer left from the wait before would fire inside this one.
        for (int i = 0; i < 3; ++i) out += bytesToString(h.stream.read(10));
        return out;
    });
    for (char c : std::string("xyz")) {
        ASSERT_TRUE(h.transport->waitForReceive());
        if (c == 'x') first.request_stop();
        std::this_thread::sleep_for(350ms);
        ASSERT_TRUE(h.transport->deliver(toBytes(std::string(1, c))));
    }
    EXPECT_EQ(reader.get(), "xyz");
}

// Many streams, each with a reader that keeps waiting under short timeouts
// and its own cancellation tokens while another thread delivers bytes,
// cancels and closes at random. Every read must end in one of its allowed
// outcomes, nothing may hang, and once closed a stream hands out only what
// it had buffered and then says "stream closed". Under the sanitizers this
// also checks that late timers and cancellations of finished waits touch
// nothing.
TEST(BufferedByteStreamTest, ConcurrentWaitsCancellationsAndClosesStayConsistent) {
    constexpr int streams = 24;
    struct Slot {
        Harness h{0.004};
        std::atomic<bool> closing{false};  // set before close()
        std::atomic<bool> closed{false};   // set after close() returned
        std::mutex sourceLock;
        std::stop_source source;
        std::atomic<int> bytesRead{0};
        void close() {
            closing = true;
            h.stream.close();
            closed = true;
        }
    };
    std::vector<std::unique_ptr<Slot>> slots;
    for (int i = 0; i < streams; ++i) slots.push_back(std::make_unique<Slot>());

    std::atomic<int> unexpected{0};
    std::vector<std::thread> readers;
    for (auto& slotPtr : slots) {
        readers.emplace_back([&, slot = slotPtr.get()] {
            for (int i = 0; i < 400; ++i) {
                std::stop_token token;
                {
                    std::lock_guard lock(slot->sourceLock);
                    if (slot->source.stop_requested()) slot->source = std::stop_source();
                    token = slot->source.get_token();
                }
                CancellationScope scope(token);
                const bool closedBefore = slot->closed.load();
                try {
                    Bytes b = slot->h.stream.read(3);
                    if (b.empty()) ++unexpected;
                    slot->bytesRead += static_cast<int>(b.size());
                } catch (const MailError& e) {
                    if (e == streamClosed) {
                        if (!slot->closing.load()) ++unexpected;
                        return;
                    }
                    if (closedBefore) ++unexpected;  // only "stream closed" after close
                    if (e != readTimedOut && e != MailError::cancelled()) ++unexpected;
                }
            }
        });
    }
    std::mt19937 random(7);
    for (int round = 0; round < 3000; ++round) {
        Slot& slot = *slots[random() % streams];
        switch (random() % 10) {
            case 0: {
                std::lock_guard lock(slot.sourceLock);
                slot.source.request_stop();
                break;
            }
            case 1:
                if (round > 1500) slot.close();
                break;
            default:
                slot.h.transport->deliver(toBytes("abcde"));
        }
        if (round % 50 == 0) std::this_thread::sleep_for(1ms);
    }
    for (auto& s : slots) s->close();
    for (auto& t : readers) t.join();
    EXPECT_EQ(unexpected.load(), 0);
    int total = 0;
    for (auto& s : slots) {
        // Bytes buffered before the close are still handed out; then every
        // read says "stream closed".
        std::size_t left = 0;
        std::optional<MailError> error;
        while (!(error = errorOf([&] { left += s->h.stream.read(4096).size(); })) &&
               left < (1u << 20)) {
        }
        EXPECT_EQ(error, streamClosed) << left << " bytes were left";
        total += s->bytesRead.load();
    }
    EXPECT_GT(total, 0);
}

}  // namespace
}  // namespace mailcore
