#include "net/AsyncSharedReplaySequence.h"

#include "async/Async.h"
#include "net/IdentifiableContinuation.h"
#include "net/SocketError.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <numeric>
#include <tuple>

using namespace orvel;
using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::StrEq;
using ::testing::ThrowsMessage;

static_assert(net::AsyncBufferedSequence<net::AsyncSharedReplaySequence>);

namespace {

// A base that hands out the chunks, the end and the error a test gives it, in that order, and
// records the size every pull asks for. A pull with nothing to hand out waits for the test, like
// a quiet connection, and raises CancellationError when its task is cancelled, like the socket pool.
class FakeBase final : public net::AsyncByteSequence {
public:
    void deliver(net::Bytes chunk) { push({std::move(chunk), nullptr}); }
    void end() { push({}); }
    void fail(std::exception_ptr error) { push({std::nullopt, std::move(error)}); }

    std::vector<std::size_t> suggestions() {
        std::lock_guard lock(mutex_);
        return suggestions_;
    }
    std::size_t pulls() { return suggestions().size(); }
    std::size_t undelivered() {
        std::lock_guard lock(mutex_);
        return queue_.size();
    }
    // Blocks the test until a pull waits for it.
    bool awaitWaitingPull() {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, 60s, [this] { return waiter_.has_value(); });
    }

    async::Task<std::optional<net::Bytes>> nextBuffer(std::size_t suggested) override {
        auto outcome = co_await net::withIdentifiableContinuation<Outcome>(
            [this, suggested](Waiter continuation) {
                std::unique_lock lock(mutex_);
                suggestions_.push_back(suggested);
                if (queue_.empty()) {
                    waiter_ = continuation;
                    changed_.notify_all();
                    return;
                }
                auto outcome = std::move(queue_.front());
                queue_.pop_front();
                lock.unlock();
                continuation.resume(std::move(outcome));
            },
            [this](net::ContinuationID id) {
                std::unique_lock lock(mutex_);
                if (!waiter_ || waiter_->id != id) return;
                auto continuation = *std::exchange(waiter_, std::nullopt);
                lock.unlock();
                continuation.resumeThrowing(std::make_exception_ptr(async::CancellationError()));
            });
        if (outcome.error) std::rethrow_exception(outcome.error);
        co_return std::move(outcome.chunk);
    }
    async::Task<std::optional<net::Byte>> next() override {
        ADD_FAILURE() << "the replay pulls its base by buffers only";
        co_return std::nullopt;
    }

private:
    struct Outcome {
        std::optional<net::Bytes> chunk;
        std::exception_ptr error;
    };
    using Waiter = net::IdentifiableContinuation<Outcome>;

    void push(Outcome outcome) {
        std::unique_lock lock(mutex_);
        if (!waiter_) return queue_.push_back(std::move(outcome));
        auto continuation = *std::exchange(waiter_, std::nullopt);
        lock.unlock();
        continuation.resume(std::move(outcome));
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Outcome> queue_;
    std::optional<Waiter> waiter_;
    std::vector<std::size_t> suggestions_;
};

net::Bytes range(int first, int last) {
    net::Bytes bytes(static_cast<std::size_t>(last - first + 1));
    std::iota(bytes.begin(), bytes.end(), static_cast<net::Byte>(first));
    return bytes;
}

async::Task<net::Bytes> collect(net::AsyncSharedReplaySequence::Iterator iterator, std::size_t suggested) {
    net::Bytes all;
    while (auto run = co_await iterator.nextBuffer(suggested)) all.insert(all.end(), run->begin(), run->end());
    co_return all;
}

async::Task<std::optional<net::Bytes>> nextBuffer(net::AsyncSharedReplaySequence::Iterator iterator, std::size_t suggested) {
    co_return co_await iterator.nextBuffer(suggested);
}

async::Task<void> flush(net::AsyncSharedReplaySequence sequence) { co_await sequence.flush(); }

}  // namespace

// The readers all wait for the first chunk: one pull per chunk (and one for the end) serves them all.
TEST(ReplayReading, ConcurrentReadersEachGetEveryByteInOrderWhileTheBaseIsReadOnce) {
    auto base = std::make_shared<FakeBase>();
    const net::AsyncSharedReplaySequence sequence(base);
    std::vector<async::TaskHandle<net::Bytes>> readers;
    for (std::size_t i = 0; i < 8; ++i) readers.push_back(async::spawn(collect(sequence.makeIterator(), 1 + i * 37)));
    net::Bytes body;
    for (int chunk = 0; chunk < 200; ++chunk) {
        net::Bytes bytes(1 + chunk % 13, static_cast<net::Byte>(chunk));
        body.insert(body.end(), bytes.begin(), bytes.end());
        base->deliver(std::move(bytes));
    }
    base->end();
    for (auto& reader : readers) EXPECT_EQ(reader.wait(), body);
    EXPECT_EQ(async::syncWait(collect(sequence.makeIterator(), 3)), body);  // a late reader replays
    EXPECT_EQ(base->pulls(), 201u);
}

TEST(ReplayReading, SingleBytesAndRunsComeInBaseOrderAndTheRestOfAChunkFromTheBuffer) {
    auto base = std::make_shared<FakeBase>();
    base->deliver(range(1, 3));
    base->deliver(range(4, 8));
    base->end();
    auto iterator = net::AsyncSharedReplaySequence(base).makeIterator();
    EXPECT_EQ(async::syncWait(iterator.next()), net::Byte(1));
    EXPECT_EQ(async::syncWait(iterator.nextBuffer(1)), range(2, 2));
    EXPECT_EQ(async::syncWait(iterator.nextBuffer(10)), range(3, 3));
    EXPECT_EQ(base->pulls(), 1u);
    net::Bytes rest;
    while (auto byte = async::syncWait(iterator.next())) rest.push_back(*byte);
    EXPECT_EQ(rest, range(4, 8));
}

TEST(ReplayReading, ACountIsNeverExceededInWhatIsAskedOrDelivered) {
    auto base = std::make_shared<FakeBase>();
    base->deliver(range(1, 4));
    base->deliver(range(5, 8));  // the last two bytes belong to whatever follows the body
    const net::AsyncSharedReplaySequence sequence(base, 6);
    EXPECT_EQ(async::syncWait(collect(sequence.makeIterator(), 100)), range(1, 6));
    EXPECT_THAT(base->suggestions(), ElementsAre(6, 2));  // and no pull for the end
}

TEST(ReplayWaiting, ACancelledWaitingReaderSeesTheEndAndOthersStillGetTheBody) {
    auto base = std::make_shared<FakeBase>();
    const net::AsyncSharedReplaySequence sequence(base);
    auto cancelled = async::spawn(nextBuffer(sequence.makeIterator(), 10));
    ASSERT_TRUE(base->awaitWaitingPull());
    cancelled.cancel();
    EXPECT_EQ(cancelled.wait(), std::nullopt);
    auto later = async::spawn(collect(sequence.makeIterator(), 10));
    base->deliver(range(1, 5));
    base->end();
    EXPECT_EQ(later.wait(), range(1, 5));
}

TEST(ReplayErrors, AFailingOrShortBaseRaisesToEveryWaiterAndAfterTheKeptBytesToEveryLaterReader) {
    const std::tuple<const char*, bool, const char*> cases[] = {
        {"the base fails", true, "SocketError. Read(104): Connection reset by peer"},
        {"the base ends short of the count", false, "SocketError. Disconnected"},
    };
    for (const auto& [name, fails, error] : cases) {
        SCOPED_TRACE(name);
        auto base = std::make_shared<FakeBase>();
        base->deliver(range(1, 3));
        const net::AsyncSharedReplaySequence sequence(base, 10);
        auto first = async::spawn(collect(sequence.makeIterator(), 100));
        auto second = async::spawn(collect(sequence.makeIterator(), 100));
        ASSERT_TRUE(base->awaitWaitingPull());  // a reader has the three bytes and waits for more
        if (fails)
            base->fail(std::make_exception_ptr(net::SocketError::failed("Read", ECONNRESET)));
        else
            base->end();
        const auto raises = ThrowsMessage<net::SocketError>(StrEq(error));
        EXPECT_THAT([&] { first.wait(); }, raises);
        EXPECT_THAT([&] { second.wait(); }, raises);
        auto later = sequence.makeIterator();
        EXPECT_EQ(async::syncWait(later.nextBuffer(100)), range(1, 3));
        EXPECT_THAT([&] { async::syncWait(later.nextBuffer(100)); }, raises);
        EXPECT_THAT([&] { async::syncWait(flush(sequence)); }, raises);
        EXPECT_EQ(base->pulls(), 2u);
    }
}

TEST(ReplayFlush, TakesTheWholeBodyFromTheBaseInRunsOf4096AndNoMore) {
    auto base = std::make_shared<FakeBase>();
    const std::size_t body = 10000;
    base->deliver(net::Bytes(4096, 1));
    base->deliver(net::Bytes(4096, 2));
    base->deliver(net::Bytes(body - 8192, 3));
    base->deliver(range(1, 4));  // the next request on the connection
    async::syncWait(flush(net::AsyncSharedReplaySequence(base)));  // without a count: nothing
    EXPECT_EQ(base->pulls(), 0u);

    auto flushing = net::AsyncSharedReplaySequence(base, body).flush();  // outlives its sequence
    async::syncWait(std::move(flushing));
    EXPECT_THAT(base->suggestions(), ElementsAre(4096, 4096, 1808));
    EXPECT_EQ(base->undelivered(), 1u);
}

TEST(ReplayFlush, ACancelledFlushRaisesCancellation) {
    auto base = std::make_shared<FakeBase>();
    auto flushing = async::spawn(flush(net::AsyncSharedReplaySequence(base, 100)));
    ASSERT_TRUE(base->awaitWaitingPull());
    flushing.cancel();
    EXPECT_THROW(flushing.wait(), async::CancellationError);
}
