#include "app/StreamCount.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <mutex>
#include <thread>
#include <vector>

namespace orvel {
namespace {

using ::testing::ElementsAre;

TEST(StreamCountObservation, ASubscriberGetsTheCurrentValueAtOnceThenEveryChangeUntilItGoes) {
    StreamCount count;
    count.increment();
    std::vector<std::int64_t> seen, otherSeen;
    auto subscription = count.subscribe([&](std::int64_t value) { seen.push_back(value); });
    {
        auto other = count.subscribe([&](std::int64_t value) { otherSeen.push_back(value); });
    }
    count.increment();
    count.decrement();
    count.decrement();
    subscription.cancel();
    EXPECT_FALSE(subscription.isActive());
    count.increment();
    EXPECT_THAT(seen, ElementsAre(1, 2, 1, 0));
    EXPECT_THAT(otherSeen, ElementsAre(1)) << "nothing arrives after destruction";
    EXPECT_EQ(count.value(), 1);
}

TEST(StreamCountObservation, ASubscriberMayCancelItselfAndChangeTheCountFromItsCall) {
    StreamCount count;
    std::vector<std::int64_t> seen;
    StreamCount::Subscription subscription;
    subscription = count.subscribe([&](std::int64_t value) {
        seen.push_back(value);
        if (value == 1) {
            count.increment();  // re-entrant: must not deadlock
            subscription.cancel();
        }
    });
    count.increment();
    EXPECT_THAT(seen, ElementsAre(0, 1, 2));
    EXPECT_EQ(count.value(), 2);
}

TEST(StreamCountConcurrency, SimultaneousChangesAreNeitherLostNorSeenOutOfOrder) {
    StreamCount count;
    std::mutex lock;
    std::vector<std::int64_t> seen;
    auto subscription = count.subscribe([&](std::int64_t value) {
        std::lock_guard guard(lock);
        seen.push_back(value);
    });
    constexpr int threads = 8, changes = 2000;
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([&] {
            for (int i = 0; i < changes; ++i) {
                count.increment();
                count.decrement();
                count.increment();
            }
        });
    }
    for (auto& worker : workers) worker.join();
    EXPECT_EQ(count.value(), threads * changes);
    ASSERT_EQ(seen.size(), 1u + 3u * threads * changes);
    // Each published value differs from the one before by exactly one step.
    for (std::size_t i = 1; i < seen.size(); ++i) ASSERT_EQ(std::abs(seen[i] - seen[i - 1]), 1) << "at " << i;
    EXPECT_EQ(seen.back(), threads * changes);
}

TEST(StreamCountConcurrency, TheProcessCountOutlivesExitForAStreamStillEnding) {
    // A stream that counts itself out after static destruction began: an exit handler registered
    // before the count was first used runs after the count's own destructor would have.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            std::atexit([] { currentStreamCount().decrement(); });
            currentStreamCount().increment();
            std::exit(currentStreamCount().value() == 1 ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace orvel
