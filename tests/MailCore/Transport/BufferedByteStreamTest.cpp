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

namespace mailcore {
namespace {

using namespace std::chrono_literals;

// A RawTransport driven by the test: it records every call, keeps the one
// receive completion until the test delivers a result, and can deliver at
// once from a queue of scripted results.
class FakeTransport final : public RawTransport {
public:
    void connect(double timeoutSeconds) override {
        std::lock_guard lock(lock_);
        connectTimeouts.push_back(timeoutSeconds);
    }

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

    void send(const Bytes& bytes) override {
        std::lock_guard lock(lock_);
        sent.insert(sent.end(), bytes.begin(), bytes.end());
    }

    void upgradeToTLS(const std::string& serverName) override {
        std::lock_guard lock(lock_);
        upgrades.push_back(serverName);
    }

    void cancel() override {
        ReceiveCompletion pending;
        {
            std::lock_guard lock(lock_);
            ++cancels;
            pending = std::exchange(pending_, nullptr);
        }
        if (pending) {
            pending(MailError::network(NetworkFailureKind::connectionLost, "connection closed"));
        }
    }

    // Results handed out synchronously by later startReceive calls.
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

    bool waitForReceive(std::chrono::milliseconds limit = 2000ms) {
        std::unique_lock lock(lock_);
        return receiveStarted_.wait_for(lock, limit, [&] { return pending_ != nullptr; });
    }

    std::size_t receiveCount() {
        std::lock_guard lock(lock_);
        return receiveLengths.size();
    }

    std::mutex lock_;
    std::condition_variable receiveStarted_;
    ReceiveCompletion pending_;
    std::deque<ReceiveResult> queued_;
    std::vector<double> connectTimeouts;
    std::vector<int> receiveLengths;
    Bytes sent;
    std::vector<std::string> upgrades;
    int cancels = 0;
};

ConnectionTimeouts timeoutsWithRead(double read) { return ConnectionTimeouts{7, read, 0, 0, 0}; }

struct Harness {
    explicit Harness(double readTimeout = 2.0)
        : transport(new FakeTransport),
          stream(std::unique_ptr<RawTransport>(transport), timeoutsWithRead(readTimeout)) {}
    FakeTransport* transport;
    BufferedByteStream stream;
};

MailError errorOf(const std::function<void()>& body) {
    try {
        body();
    } catch (const MailError& e) {
        return e;
    }
    ADD_FAILURE() << "no MailError thrown";
    return MailError::offline();
}

const MailError streamClosed =
    MailError::network(NetworkFailureKind::connectionLost, "stream closed");
const MailError readTimedOut = MailError::network(NetworkFailureKind::timeout, "read timed out");
const MailError lost = MailError::network(NetworkFailureKind::connectionLost, "connection lost");

TEST(BufferedByteStreamTest, ReturnsBufferedBytesInPiecesOfAtMostMaxLength) {
    Harness h;
    h.transport->queue(toBytes("abcdefghij"));
    EXPECT_EQ(bytesToString(h.stream.read(4)), "abcd");
    EXPECT_EQ(bytesToString(h.stream.read(0)), "e");
    EXPECT_EQ(bytesToString(h.stream.read(-5)), "f");
    EXPECT_EQ(bytesToString(h.stream.read(100)), "ghij");
    EXPECT_EQ(h.transport->receiveLengths, std::vector<int>{16384});
}

// A step of a scripted conversation between a reader and the transport.
struct Step {
    enum Kind { read, deliver, close } kind;
    int maxLength = 100;
    std::optional<ReceiveResult> result = std::nullopt;  // for deliver
    std::string expected = "";                           // for read: "=bytes" or "!" + what()
};

std::string outcomeText(const MailError& e) { return "!" + std::string(e.what()); }

TEST(BufferedByteStreamTest, DecidesEachReadInTheDocumentedOrder) {
    const std::string timedOut = outcomeText(readTimedOut);
    const std::string closed = outcomeText(streamClosed);
    const std::string lostText = outcomeText(lost);
    struct Case {
        const char* name;
        std::vector<Step> steps;
    };
    const std::vector<Case> cases = {
        {"buffered bytes come before the closed flag",
         {{Step::read, 100, {}, timedOut},
          {Step::deliver, 0, toBytes("xy")},
          {Step::close},
          {Step::read, 100, {}, "=xy"},
          {Step::read, 100, {}, closed}}},
        {"the closed flag comes before a recorded failure",
         {{Step::read, 100, {}, timedOut},
          {Step::deliver, 0, lost},
          {Step::close},
          {Step::read, 100, {}, closed}}},
        {"a failure is reported to every later read",
         {{Step::read, 100, {}, timedOut},
          {Step::deliver, 0, lost},
          {Step::read, 100, {}, lostText},
          {Step::read, 100, {}, lostText},
          {Step::read, 0, {}, lostText}}},
        {"end of stream reads as empty for good",
         {{Step::read, 100, {}, timedOut},
          {Step::deliver, 0, Bytes{}},
          {Step::read, 100, {}, "="},
          {Step::read, 100, {}, "="}}},
        {"bytes before the end are read first",
         {{Step::read, 100, {}, timedOut},
          {Step::deliver, 0, toBytes("abc")},
          {Step::read, 2, {}, "=ab"},
          {Step::read, 2, {}, "=c"},
          {Step::read, 100, {}, timedOut},
          {Step::deliver, 0, Bytes{}},
          {Step::read, 100, {}, "="}}},
        {"the closed flag comes before end of stream",
         {{Step::read, 100, {}, timedOut},
          {Step::deliver, 0, Bytes{}},
          {Step::close},
          {Step::read, 100, {}, closed}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Harness h(0.03);
        for (const auto& step : c.steps) {
            switch (step.kind) {
                case Step::read: {
                    std::string seen;
                    try {
                        seen = "=" + bytesToString(h.stream.read(step.maxLength));
                    } catch (const MailError& e) {
                        seen = outcomeText(e);
                    }
                    EXPECT_EQ(seen, step.expected);
                    break;
                }
                case Step::deliver:
                    EXPECT_TRUE(h.transport->deliver(*step.result)) << "no receive outstanding";
                    break;
                case Step::close:
                    h.stream.close();
                    break;
            }
        }
    }
}

TEST(BufferedByteStreamTest, KeepsAtMostOneReceiveOutstandingAcrossTimeouts) {
    Harness h(0.02);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(errorOf([&] { h.stream.read(10); }), readTimedOut);
    EXPECT_EQ(h.transport->receiveCount(), 1u);
    // The receive asked for before the timeouts still feeds the next read.
    ASSERT_TRUE(h.transport->deliver(toBytes("late")));
    EXPECT_EQ(bytesToString(h.stream.read(10)), "late");
}

TEST(BufferedByteStreamTest, ReaderWaitsForACompletionFromAnotherThread) {
    Harness h(5.0);
    std::thread server([&] {
        ASSERT_TRUE(h.transport->waitForReceive());
        std::this_thread::sleep_for(20ms);
        h.transport->deliver(toBytes("* OK ready\r\n"));
    });
    EXPECT_EQ(bytesToString(h.stream.read(64)), "* OK ready\r\n");
    server.join();
}

TEST(BufferedByteStreamTest, CloseResumesAWaitingReaderWithStreamClosed) {
    Harness h(10.0);
    auto reader =
        std::async(std::launch::async, [&] { return errorOf([&] { h.stream.read(10); }); });
    ASSERT_TRUE(h.transport->waitForReceive());
    const auto started = std::chrono::steady_clock::now();
    h.stream.close();
    EXPECT_EQ(reader.get(), streamClosed);
    EXPECT_LT(std::chrono::steady_clock::now() - started, 5s);
    EXPECT_EQ(h.transport->cancels, 1);
    EXPECT_EQ(errorOf([&] { h.stream.open(); }), streamClosed);
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

TEST(BufferedByteStreamTest, AReadUnderAStoppedTokenFailsAtOnceUnlessBytesAreBuffered) {
    Harness h(10.0);
    std::stop_source source;
    source.request_stop();
    CancellationScope scope(source.get_token());
    EXPECT_EQ(errorOf([&] { h.stream.read(10); }), MailError::cancelled());
    ASSERT_TRUE(h.transport->deliver(toBytes("x")));
    EXPECT_EQ(bytesToString(h.stream.read(10)), "x");
}

TEST(BufferedByteStreamTest, StartTLSIsRefusedWhileAReceiveIsOutstanding) {
    Harness h(0.02);
    h.stream.upgradeToTLS("imap.example.com");
    EXPECT_EQ(h.transport->upgrades, std::vector<std::string>{"imap.example.com"});
    EXPECT_EQ(errorOf([&] { h.stream.read(1); }), readTimedOut);
    EXPECT_EQ(
        errorOf([&] { h.stream.upgradeToTLS("imap.example.com"); }),
        MailError::tls(TLSFailureKind::handshakeFailed, "receive outstanding during STARTTLS"));
    EXPECT_EQ(h.transport->upgrades.size(), 1u);
}

TEST(BufferedByteStreamTest, OpenConnectsWithTheConnectTimeoutAndWritesGoToTheTransport) {
    Harness h;
    h.stream.open();
    h.stream.writeText("A1 NOOP\r\n");
    EXPECT_EQ(h.transport->connectTimeouts, std::vector<double>{7});
    EXPECT_EQ(bytesToString(h.transport->sent), "A1 NOOP\r\n");
}

TEST(BufferedByteStreamTest, ReadTimeoutIsBoundedBelowByOneMillisecond) {
    Harness h(0.0);
    const auto started = std::chrono::steady_clock::now();
    EXPECT_EQ(errorOf([&] { h.stream.read(1); }), readTimedOut);
    EXPECT_LT(std::chrono::steady_clock::now() - started, 2s);
}

// Many streams, each with a reader that keeps waiting under short timeouts
// and its own cancellation tokens while other threads deliver bytes,
// cancel and close at random. Every read must end in one of its allowed
// outcomes, nothing may hang, and once closed a stream only says "stream
// closed". Run under the sanitizers, this also checks that late timers and
// cancellations of finished waits touch nothing.
TEST(BufferedByteStreamTest, ConcurrentWaitsCancellationsAndClosesStayConsistent) {
    constexpr int streams = 24;
    struct Slot {
        Harness h{0.004};
        std::atomic<bool> closing{false};  // set before close()
        std::atomic<bool> closed{false};   // set after close() returned
        std::atomic<bool> done{false};
        std::mutex sourceLock;
        std::stop_source source;
        std::atomic<int> bytesRead{0};
    };
    std::vector<std::unique_ptr<Slot>> slots;
    for (int i = 0; i < streams; ++i) slots.push_back(std::make_unique<Slot>());

    std::atomic<int> unexpected{0};
    std::atomic<int> timeouts{0};
    std::atomic<int> cancellations{0};
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
                        break;
                    }
                    if (closedBefore) ++unexpected;  // only "stream closed" after close
                    if (e == readTimedOut) {
                        ++timeouts;
                    } else if (e == MailError::cancelled()) {
                        ++cancellations;
                    } else {
                        ++unexpected;
                    }
                }
            }
            slot->done = true;
        });
    }
    std::thread chaos([&] {
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
                    if (round > 1500) {
                        slot.closing = true;
                        slot.h.stream.close();
                        slot.closed = true;
                    }
                    break;
                default:
                    slot.h.transport->deliver(toBytes("abcde"));
            }
            if (round % 50 == 0) std::this_thread::sleep_for(1ms);
        }
        for (auto& s : slots) {
            s->closing = true;
            s->h.stream.close();
            s->closed = true;
        }
    });
    chaos.join();
    for (auto& t : readers) t.join();
    EXPECT_EQ(unexpected.load(), 0);
    int total = 0;
    for (auto& s : slots) {
        EXPECT_TRUE(s->done.load());
        EXPECT_EQ(errorOf([&] { s->h.stream.read(1); }), streamClosed);
        total += s->bytesRead.load();
    }
    EXPECT_GT(total, 0);
    EXPECT_GT(timeouts.load(), 0);
    EXPECT_GT(cancellations.load(), 0);
}

}  // namespace
}  // namespace mailcore
