#include "async/Async.h"

#include <gtest/gtest.h>

#include <stdexcept>

using namespace orvel::async;
using namespace std::chrono_literals;

namespace {

Task<int> plusOne(int x) { co_return x + 1; }

Task<long> sumOfMany(int count) {
    long sum = 0;
    for (int i = 0; i < count; ++i) sum += co_await plusOne(i);
    co_return sum;
}

Task<void> fails() {
    throw std::runtime_error("broken");
    co_return;
}

Task<int> catches() {
    try {
        co_await fails();
    } catch (const std::runtime_error& error) {
        co_return 7;
    }
    co_return 0;
}

Task<bool> onPoolAfterSleep() {
    co_await sleep(1ms);
    co_return static_cast<ThreadPool&>(defaultExecutor()).isWorkerThread() && currentExecutor() == &defaultExecutor();
}

struct Counter {
    SerialExecutor executor;
    int value = 0;

    Task<bool> increment() {
        co_await executor.enter();
        ++value;
        co_return executor.isCurrent();
    }
};

Task<bool> callsIntoSerialObject(Counter& counter) {
    bool wasOnObject = co_await counter.increment();
    co_return wasOnObject && currentExecutor() == &defaultExecutor();
}

}  // namespace

TEST(Tasks, ReturnValuesThroughManySynchronousAwaitsWithoutGrowingTheStack) {
    // A million awaits that complete at once would overflow the stack if each nested a frame.
    EXPECT_EQ(syncWait(sumOfMany(1'000'000)), 500000500000L);
}

TEST(Tasks, PassErrorsToTheAwaitingTask) {
    EXPECT_EQ(syncWait(catches()), 7);
    EXPECT_THROW(syncWait(fails()), std::runtime_error);
}

TEST(Tasks, ResumeOnTheirOwnExecutorAfterSuspending) {
    EXPECT_TRUE(syncWait(onPoolAfterSleep()));
    Counter counter;
    EXPECT_TRUE(syncWait(callsIntoSerialObject(counter)));
    EXPECT_EQ(counter.value, 1);
}

TEST(Tasks, SpawnedTaskValueCanBeAwaitedBySeveralWaiters) {
    auto handle = spawn([]() -> Task<int> {
        co_await sleep(5ms);
        co_return 42;
    }());
    auto waiter = [](TaskHandle<int> h) -> Task<int> { co_return co_await h.value(); };
    auto a = spawn(waiter(handle));
    auto b = spawn(waiter(handle));
    EXPECT_EQ(a.wait(), 42);
    EXPECT_EQ(b.wait(), 42);
    EXPECT_EQ(handle.wait(), 42);
}
