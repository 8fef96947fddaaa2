#include "async/Async.h"
#include "e2e/Process.h"

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <thread>
#include <vector>

using namespace orvel::async;
using namespace std::chrono_literals;

namespace {

struct Terminations {
    std::atomic<int> finished{0};
    std::atomic<int> cancelled{0};
    std::function<void(Termination)> handler() {
        return [this](Termination how) { (how == Termination::finished ? finished : cancelled).fetch_add(1); };
    }
};

// The elements up to the end, then -1 if the stream raised, then -2 if it ended after that.
Task<std::vector<int>> drain(AsyncThrowingStream<int> stream) {
    std::vector<int> seen;
    bool raised = false;
    try {
        while (auto element = co_await stream.next()) seen.push_back(*element);
    } catch (const std::runtime_error&) {
        raised = true;
    }
    if (raised) {
        seen.push_back(-1);
        auto after = co_await stream.next();
        if (!after) seen.push_back(-2);
    }
    co_return seen;
}

Task<int> countUntilEnd(AsyncStream<int> stream) {
    int count = 0;
    while (co_await stream.next()) ++count;
    co_return count;
}

}  // namespace

TEST(AsyncStreams, DeliverBufferedElementsThenTheEndOrTheErrorOnceAndIgnoreLaterCalls) {
    for (const bool failing : {false, true}) {
        Terminations ends;
        auto [stream, continuation] = AsyncThrowingStream<int>::make();
        continuation.onTermination(ends.handler());
        for (int i = 0; i < 3; ++i) continuation.yield(i);
        continuation.finish(failing ? std::make_exception_ptr(std::runtime_error("capture failed")) : nullptr);
        continuation.yield(99);  // after the end: no effect
        continuation.finish();
        EXPECT_EQ(syncWait(drain(std::move(stream))), failing ? (std::vector<int>{0, 1, 2, -1, -2}) : (std::vector<int>{0, 1, 2}));
        EXPECT_EQ(ends.finished.load(), 1);
        EXPECT_EQ(ends.cancelled.load(), 0);
    }
}

TEST(AsyncStreams, AConsumerThatGoesAwayOrIsCancelledWhileWaitingTerminatesTheStreamOnceAndSeesTheEnd) {
    Terminations ends;
    {
        auto [stream, continuation] = AsyncStream<int>::make();
        continuation.onTermination(ends.handler());
        continuation.yield(1);
    }
    EXPECT_EQ(ends.cancelled.load(), 1);

    auto [stream, continuation] = AsyncStream<int>::make();
    continuation.onTermination(ends.handler());
    continuation.yield(1);
    auto consumer = spawn(countUntilEnd(std::move(stream)));
    consumer.cancel();  // the buffered element still comes first, whenever this lands
    EXPECT_EQ(consumer.wait(), 1);  // no error: the end of the sequence
    continuation.yield(2);
    continuation.finish();
    EXPECT_EQ(ends.cancelled.load(), 2);
    EXPECT_EQ(ends.finished.load(), 0);
}

TEST(AsyncStreams, CarryEveryElementFromForeignThreadsInProducerOrder) {
    constexpr int producers = 4, perProducer = 20000;
    Terminations ends;
    auto [stream, continuation] = AsyncThrowingStream<int>::make();
    continuation.onTermination(ends.handler());
    auto consumer = spawn(drain(std::move(stream)));
    std::vector<std::thread> threads;
    std::atomic<int> running{producers};
    for (int p = 0; p < producers; ++p) {
        threads.emplace_back([&, p, c = continuation] {
            for (int i = 0; i < perProducer; ++i) c.yield(p * perProducer + i);
            if (running.fetch_sub(1) == 1) c.finish();
        });
    }
    auto seen = consumer.wait();
    for (auto& thread : threads) thread.join();
    ASSERT_EQ(seen.size(), static_cast<std::size_t>(producers * perProducer));
    std::vector<int> last(producers, -1);
    for (int value : seen) {
        int p = value / perProducer;
        EXPECT_LT(last[p], value);
        last[p] = value;
    }
    EXPECT_EQ(ends.finished.load(), 1);
}

TEST(AsyncStreams, TerminationRunsExactlyOnceWhenFinishRacesCancellation) {
    for (int round = 0; round < 500; ++round) {
        Terminations ends;
        auto [stream, continuation] = AsyncStream<int>::make();
        continuation.onTermination(ends.handler());
        auto consumer = spawn(countUntilEnd(std::move(stream)));
        std::thread finisher([c = continuation] {
            c.yield(1);
            c.finish();
        });
        consumer.cancel();
        (void)consumer.wait();
        finisher.join();
        EXPECT_EQ(ends.finished.load() + ends.cancelled.load(), 1);
    }
}

namespace {

Task<void> yieldAndWaitForRoom(AsyncStream<int>::Continuation producer, int value, std::size_t limit) {
    producer.yield(value);
    co_await producer.waitUntilBufferedAtMost(limit);
}

Task<std::optional<int>> take(AsyncStream<int>* stream) { co_return co_await stream->next(); }

}  // namespace

// A producer held back by what the consumer has not taken goes on once it takes enough; one whose
// task is cancelled stops waiting with the cancellation, and the stream carries on.
TEST(AsyncStreams, AProducerWaitsForRoomUntilTheConsumerTakesEnoughOrItsTaskIsCancelled) {
    auto [stream, continuation] = AsyncStream<int>::make([](const int&) { return std::size_t{1}; });
    continuation.yield(1);
    auto producer = spawn(yieldAndWaitForRoom(continuation, 2, 1));
    std::this_thread::sleep_for(50ms);  // no assertion on time: only gives it the chance to return early
    EXPECT_FALSE(producer.isFinished()) << "two buffered, at most one allowed";
    EXPECT_EQ(syncWait(take(&stream)), 1);
    ASSERT_TRUE(orvel::test::waitUntil([&] { return producer.isFinished(); }, 60s)) << "room was made";
    producer.wait();

    auto cancelled = spawn(yieldAndWaitForRoom(continuation, 3, 0));
    std::this_thread::sleep_for(50ms);  // lets it park, so that the cancellation has to wake it
    cancelled.cancel();
    ASSERT_TRUE(orvel::test::waitUntil([&] { return cancelled.isFinished(); }, 60s)) << "the cancellation went unheard";
    EXPECT_THROW(cancelled.wait(), CancellationError);
    EXPECT_EQ(syncWait(take(&stream)), 2);
    EXPECT_EQ(syncWait(take(&stream)), 3);
}
