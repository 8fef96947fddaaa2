#include "async/Async.h"

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
