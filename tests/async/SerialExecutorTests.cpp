#include "async/Async.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

using namespace orvel::async;
using namespace std::chrono_literals;

namespace {

// An actor-like object: its state is touched without a lock, so overlapping members would lose
// increments (and ThreadSanitizer would report the race).
class Account {
public:
    Task<void> deposit(int amount) {
        co_await executor_.enter();
        int inFlight = ++running_;
        balance_ += amount;
        if (inFlight != 1) overlaps_++;
        --running_;
    }

    // Suspends in the middle until the gate opens; other members run meanwhile (re-entrancy), then
    // it resumes here and sees their effect.
    Task<bool> depositAfterGate(int amount, AsyncStream<int>* gate, std::atomic<bool>* waiting) {
        co_await executor_.enter();
        int before = balance_;
        waiting->store(true);
        co_await gate->next();
        balance_ += amount;
        co_return executor_.isCurrent() && balance_ == before + 1 + amount;
    }

    Task<int> balance() {
        co_await executor_.enter();
        co_return balance_;
    }

    int overlaps() const { return overlaps_; }

private:
    SerialExecutor executor_;
    int balance_ = 0;
    int running_ = 0;
    int overlaps_ = 0;
};

}  // namespace

TEST(SerialExecutors, RunMembersOneAtATimeWhenHammeredFromManyTasks) {
    Account account;
    std::vector<TaskHandle<void>> handles;
    for (int i = 0; i < 4000; ++i) {
        handles.push_back(spawn([](Account* account) -> Task<void> {
            for (int j = 0; j < 5; ++j) co_await account->deposit(1);
        }(&account)));
    }
    for (auto& handle : handles) handle.wait();
    EXPECT_EQ(syncWait(account.balance()), 20000);
    EXPECT_EQ(account.overlaps(), 0);
}

TEST(SerialExecutors, LetOtherMembersRunWhileOneIsSuspended) {
    Account account;
    auto [gate, opener] = AsyncStream<int>::make();
    std::atomic<bool> waiting{false};
    auto slow = spawn(account.depositAfterGate(100, &gate, &waiting));
    while (!waiting.load()) std::this_thread::yield();
    syncWait(account.deposit(1));  // would never run if the suspended member held the executor
    opener.yield(0);
    EXPECT_TRUE(slow.wait());
    EXPECT_EQ(syncWait(account.balance()), 101);
}
