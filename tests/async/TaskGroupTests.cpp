#include "async/Async.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <mutex>
#include <stdexcept>
#include <thread>

using namespace orvel::async;
using namespace std::chrono_literals;

namespace {

Task<int> afterGate(AsyncStream<int>* gate, int value) {
    co_await gate->next();
    co_return value;
}

// Children added first finish last: each waits for its own gate, and the gates open one at a
// time, each after the result before it came out.
Task<std::vector<int>> collect() {
    auto [first, openFirst] = AsyncStream<int>::make();
    auto [second, openSecond] = AsyncStream<int>::make();
    auto [third, openThird] = AsyncStream<int>::make();
    TaskGroup<int> group;
    group.add(afterGate(&third, 3));
    group.add(afterGate(&first, 1));
    group.add(afterGate(&second, 2));
    std::vector<int> order;
    const std::array gates{openFirst, openSecond, openThird};
    for (const auto& open : gates) {
        open.yield(0);
        const auto value = co_await group.next();
        order.push_back(value.value_or(0));
    }
    const auto rest = co_await group.next();  // nothing after the last
    if (rest) order.push_back(*rest);
    co_return order;
}

Task<int> cancelAllEndsSleepers() {
    TaskGroup<int> group;
    const auto sleeper = []() -> Task<int> {
        co_await sleep(1h);
        co_return 0;
    };
    for (int i = 0; i < 10; ++i) group.add(sleeper());
    group.cancelAll();
    group.add(sleeper());  // added after cancelAll: starts cancelled
    int cancelled = 0;
    while (auto result = co_await group.nextResult()) {
        try {
            result->get();
        } catch (const CancellationError&) {
            ++cancelled;
        }
    }
    co_return cancelled;
}

Task<void> failsAfter(std::chrono::milliseconds delay) {
    co_await sleep(delay);
    throw std::runtime_error("child failed");
}

Task<int> waitForAllRethrows() {
    TaskGroup<void> group;
    std::atomic<int> finished{0};
    group.add([](std::atomic<int>* finished) -> Task<void> {
        co_await sleep(10ms);
        finished->fetch_add(1);
    }(&finished));
    group.add(failsAfter(1ms));
    try {
        co_await group.waitForAll();
    } catch (const std::runtime_error&) {
        co_return finished.load();  // every child had finished before the error came out
    }
    co_return -1;
}

Task<int> discardingGroupKeepsNothing(std::atomic<int>* ran) {
    TaskGroup<void> group(true);
    for (int i = 0; i < 2000; ++i) {
        group.add([](std::atomic<int>* ran) -> Task<void> {
            ran->fetch_add(1);
            co_return;
        }(ran));
    }
    co_await group.waitForAll();
    co_return group.isEmpty() ? 1 : 0;
}

// Keeps what is scheduled until runAll(), so children are added and cancelled before any runs.
struct HeldExecutor final : Executor {
    std::mutex mutex;
    std::vector<std::coroutine_handle<>> held;
    void schedule(std::coroutine_handle<> coroutine) override {
        std::lock_guard lock(mutex);
        held.push_back(coroutine);
    }
    void runAll() {
        for (auto coroutine : std::exchange(held, {})) {
            coroutine.resume();
            detail::setCurrentContext(nullptr);  // as a pool worker does after each job
        }
    }
};

Task<bool> seesCancellation() { co_return isCancelled(); }

Task<int> uncancelledChildren(TaskGroup<bool>* group) {
    int count = 0;
    while (auto cancelled = co_await group->next()) count += *cancelled ? 0 : 1;
    co_return count;
}

}  // namespace

TEST(TaskGroups, ReturnResultsInTheOrderChildrenFinish) { EXPECT_EQ(syncWait(collect()), (std::vector<int>{1, 2, 3})); }

TEST(TaskGroups, CancelAllCancelsRunningAndLaterChildren) { EXPECT_EQ(syncWait(cancelAllEndsSleepers()), 11); }

TEST(TaskGroups, WaitForAllWaitsForEveryChildThenRethrowsTheError) { EXPECT_EQ(syncWait(waitForAllRethrows()), 1); }

TEST(TaskGroups, ADiscardingGroupRunsEveryChildAndEndsEmpty) {
    std::atomic<int> ran{0};
    EXPECT_EQ(syncWait(discardingGroupKeepsNothing(&ran)), 1);
    EXPECT_EQ(ran.load(), 2000);
}

TEST(TaskGroups, EveryChildAddedAroundAConcurrentCancelAllIsCancelled) {
    // Each round two threads add children while a third cancels the group: the cancellation must
    // reach every child, whether cancelAll() saw it or it saw cancelAll().
    for (int round = 0; round < 1000; ++round) {
        HeldExecutor held;
        TaskGroup<bool> group;
        std::atomic<int> ready{0};
        const auto add = [&] {
            ready.fetch_add(1);
            while (ready.load() < 3) std::this_thread::yield();
            for (int i = 0; i < 50; ++i) group.add(seesCancellation(), &held);
        };
        std::thread first(add), second(add);
        ready.fetch_add(1);
        while (ready.load() < 3) std::this_thread::yield();
        group.cancelAll();
        first.join();
        second.join();
        held.runAll();
        ASSERT_EQ(syncWait(uncancelledChildren(&group)), 0) << "round " << round;
    }
}
