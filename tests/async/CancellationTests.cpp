#include "async/Async.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

using namespace orvel::async;
using namespace std::chrono_literals;

namespace {

Task<bool> sawCancellationBeforeStart() {
    co_return isCancelled();
}

Task<void> groupOfSleepers(std::atomic<int>* cancelledChildren, std::atomic<int>* started) {
    TaskGroup<void> group;
    for (int i = 0; i < 3; ++i) {
        group.add([](std::atomic<int>* cancelled, std::atomic<int>* started) -> Task<void> {
            started->fetch_add(1);
            try {
                co_await sleep(1h);
            } catch (const CancellationError&) {
                cancelled->fetch_add(1);
                throw;
            }
        }(cancelledChildren, started));
    }
    co_await group.waitForAll();
}

Task<int> handlerRunsOnce(std::atomic<int>* runs, std::atomic<bool>* installed) {
    CancellationHandler handler([runs] { runs->fetch_add(1); });
    installed->store(true);
    try {
        co_await sleep(1h);
    } catch (const CancellationError&) {
    }
    co_return runs->load();
}

}  // namespace

TEST(Cancellation, ATaskCancelledBeforeItRunsSeesItAtOnce) {
    // The serial executor is held by a blocker, so the second task cannot start before cancel().
    SerialExecutor executor;
    std::atomic<bool> release{false};
    auto blocker = spawn([](std::atomic<bool>* release) -> Task<void> {
        while (!release->load()) std::this_thread::yield();
        co_return;
    }(&release), executor);
    auto handle = spawn(sawCancellationBeforeStart(), executor);
    handle.cancel();
    release.store(true);
    blocker.wait();
    EXPECT_TRUE(handle.wait());
}

TEST(Cancellation, CancellingAParentCancelsItsRunningChildren) {
    std::atomic<int> cancelled{0}, started{0};
    auto parent = spawn(groupOfSleepers(&cancelled, &started));
    while (started.load() < 3) std::this_thread::yield();
    parent.cancel();
    EXPECT_THROW(parent.wait(), CancellationError);
    EXPECT_EQ(cancelled.load(), 3);
}

TEST(Cancellation, HandlersRunExactlyOnceAndAtOnceWhenAlreadyCancelled) {
    std::atomic<int> runs{0};
    std::atomic<bool> installed{false};
    auto handle = spawn(handlerRunsOnce(&runs, &installed));
    while (!installed.load()) std::this_thread::yield();
    handle.cancel();
    handle.cancel();
    EXPECT_EQ(handle.wait(), 1);

    std::atomic<int> early{0};
    auto late = spawn([](std::atomic<int>* runs) -> Task<int> {
        try {
            co_await sleep(1h);
        } catch (const CancellationError&) {
        }
        CancellationHandler handler([runs] { runs->fetch_add(1); });
        co_return runs->load();
    }(&early));
    late.cancel();
    EXPECT_EQ(late.wait(), 1);
}

TEST(Cancellation, CancellationRacingCompletionNeverLosesOrDoublesAResumption) {
    // Each task waits on a continuation resumed by a foreign thread while the test cancels it.
    for (int round = 0; round < 2000; ++round) {
        std::atomic<Continuation<int>*> slot{nullptr};
        Continuation<int> stored;
        auto handle = spawn([](std::atomic<Continuation<int>*>* slot, Continuation<int>* stored) -> Task<int> {
            int value = co_await withCheckedContinuation<int>([&](Continuation<int> c) {
                *stored = c;
                slot->store(stored);
            });
            co_return value;
        }(&slot, &stored));
        std::thread resumer([&] {
            Continuation<int>* c;
            while (!(c = slot.load())) std::this_thread::yield();
            c->resume(round);
        });
        if (round % 2) handle.cancel();
        EXPECT_EQ(handle.wait(), round);
        resumer.join();
    }
}
