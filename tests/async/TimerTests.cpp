#include "async/Async.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <iterator>
#include <thread>
#include <vector>

using namespace orvel::async;
using namespace std::chrono_literals;

namespace {

long threadCount() { return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {}); }

Task<void> napThenCount(std::atomic<int>* woke) {
    co_await sleep(50ms);
    woke->fetch_add(1);
}

}  // namespace

TEST(Timers, TenThousandSleepingTasksRunOnAFixedNumberOfThreads) {
    syncWait([]() -> Task<void> { co_await sleep(1ms); }());  // pool and timer thread exist now
    const long before = threadCount();
    std::atomic<int> woke{0};
    std::vector<TaskHandle<void>> handles;
    handles.reserve(10000);
    for (int i = 0; i < 10000; ++i) handles.push_back(spawn(napThenCount(&woke)));
    const long during = threadCount();
    for (auto& handle : handles) handle.wait();
    EXPECT_EQ(woke.load(), 10000);
    EXPECT_EQ(during, before);
    EXPECT_EQ(threadCount(), before);
}

TEST(Timers, SleepsOfMixedLengthsNeverEndBeforeTheirDurationAndTheLongestStillCancels) {
    // Wake-ups are shared and may come late, never early: each sleeper checks its own time.
    std::atomic<int> early{0};
    auto sleeper = [](std::chrono::milliseconds length, std::atomic<int>* early) -> Task<void> {
        const auto start = std::chrono::steady_clock::now();
        co_await sleep(length);
        if (std::chrono::steady_clock::now() - start < length) early->fetch_add(1);
    };
    auto forever = spawn([]() -> Task<void> { co_await sleep(std::chrono::nanoseconds::max()); }());
    std::vector<TaskHandle<void>> handles;
    for (int i = 0; i < 300; ++i) handles.push_back(spawn(sleeper(std::chrono::milliseconds(1 + (i * 37) % 300), &early)));
    for (auto& handle : handles) handle.wait();
    EXPECT_EQ(early.load(), 0);
    forever.cancel();
    EXPECT_THROW(forever.wait(), CancellationError);
}

TEST(Timers, CancelledAsTheyFireEachSleepEndsExactlyOnce) {
    // Cancellation lands right around the deadline: each sleep must end once, either way.
    std::atomic<int> ended{0};
    std::vector<TaskHandle<void>> handles;
    for (int i = 0; i < 3000; ++i) {
        handles.push_back(spawn([](std::atomic<int>* ended) -> Task<void> {
            try {
                co_await sleep(1ms);
            } catch (const CancellationError&) {
            }
            ended->fetch_add(1);
        }(&ended)));
        if (i % 50 == 0) std::this_thread::sleep_for(1ms);
        handles[i / 2].cancel();
    }
    for (auto& handle : handles) handle.cancel();
    for (auto& handle : handles) handle.wait();
    EXPECT_EQ(ended.load(), 3000);
}
