#include "async/Async.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <optional>
#include <stdexcept>
#include <thread>
#include <tuple>

using namespace orvel::async;
using namespace std::chrono_literals;

namespace {

Task<void> nothing() { co_return; }

enum class Act { throws, addsToItsParentsGroup };

// Each child has two handlers; the newer, which runs first, does `act`.
Task<void> toldChild(Act act, std::atomic<int>* told, std::atomic<int>* started, TaskGroup<void>* parentGroup) {
    CancellationHandler plain([told] { told->fetch_add(1); });
    CancellationHandler acting([act, told, parentGroup] {
        told->fetch_add(1);
        if (act == Act::throws) throw std::runtime_error("handler failed");
        parentGroup->add(nothing());  // takes the parent's lock
    });
    started->fetch_add(1);
    co_await sleep(1h);
}

// Three told children; with dropGroup the group goes undrained once they run.
Task<void> parentOfThree(Act act, bool dropGroup, std::atomic<int>* told, std::atomic<int>* started) {
    TaskGroup<void> group;
    for (int i = 0; i < 3; ++i) group.add(toldChild(act, told, started, &group));
    if (dropGroup) {
        while (started->load() < 3) co_await sleep(1ms);
        co_return;
    }
    co_await group.waitForAll();
}

// The owner unregisters its handler while the handler is running on the cancelling thread.
Task<void> handlerThenGone(std::atomic<bool>* registered, std::atomic<bool>* gone, std::atomic<bool>* ranLate) {
    std::atomic<bool> entered{false};
    {
        CancellationHandler handler([&entered, gone, ranLate] {
            entered.store(true);
            for (int i = 0; i < 1000 && !gone->load(); ++i) std::this_thread::yield();
            if (gone->load()) ranLate->store(true);
        });
        registered->store(true);
        while (!entered.load()) std::this_thread::yield();
    }
    gone->store(true);
    co_return;
}

// Drops its older handler while cancel() is still held in the newer one, which waits until the
// older one has been told: the drop must tell it, once.
Task<int> dropsAHandlerWhileAnotherIsTold(std::atomic<int>* told, std::atomic<bool>* registered) {
    std::optional<CancellationHandler> older;
    older.emplace([told] { told->fetch_add(1); });
    CancellationHandler newer([told] {
        const auto deadline = std::chrono::steady_clock::now() + 60s;  // guards against a hang only
        while (told->load() == 0 && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
    });
    registered->store(true);
    while (!isCancelled()) std::this_thread::yield();
    older.reset();
    co_return told->load();
}

}  // namespace

TEST(Cancellation, AHandlerDroppedWhileCancelIsTellingAnotherIsToldByTheDropOnce) {
    std::atomic<int> told{0};
    std::atomic<bool> registered{false};
    auto handle = spawn(dropsAHandlerWhileAnotherIsTold(&told, &registered));
    while (!registered.load()) std::this_thread::yield();
    handle.cancel();
    EXPECT_EQ(handle.wait(), 1);
    EXPECT_EQ(told.load(), 1);
}

TEST(Cancellation, ATaskCancelledBeforeItRunsSeesItAtOnceAndALateHandlerRunsAtOnce) {
    // The serial executor is held by a blocker, so the second task cannot start before cancel().
    SerialExecutor executor;
    std::atomic<bool> release{false};
    auto blocker = spawn([](std::atomic<bool>* release) -> Task<void> {
        while (!release->load()) std::this_thread::yield();
        co_return;
    }(&release), executor);
    auto handle = spawn([]() -> Task<bool> { co_return isCancelled(); }(), executor);
    handle.cancel();
    release.store(true);
    blocker.wait();
    EXPECT_TRUE(handle.wait());

    std::atomic<int> runs{0};
    auto late = spawn([](std::atomic<int>* runs) -> Task<int> {
        try {
            co_await sleep(1h);
        } catch (const CancellationError&) {
        }
        CancellationHandler handler([runs] { runs->fetch_add(1); });
        co_return runs->load();
    }(&runs));
    late.cancel();
    EXPECT_EQ(late.wait(), 1);
}

TEST(Cancellation, CancellationRacingCompletionNeverLosesOrDoublesAResumption) {
    // Each task waits on a continuation resumed by a foreign thread while the test cancels it.
    for (int round = 0; round < 2000; ++round) {
        std::atomic<Continuation<int>*> slot{nullptr};
        Continuation<int> stored;
        auto handle = spawn([](std::atomic<Continuation<int>*>* slot, Continuation<int>* stored) -> Task<int> {
            co_return co_await withCheckedContinuation<int>([&](Continuation<int> c) {
                *stored = c;
                slot->store(stored);
            });
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

// Cancelling a parent (twice) or dropping its group tells every running child, each handler once.
TEST(Cancellation, EveryHandlerAndChildIsToldOnceWhateverAHandlerDoes) {
    // With dropGroup, cancelled by ~TaskGroup rather than by cancelling the parent.
    const std::tuple<const char*, Act, bool> cases[] = {
        {"a handler throws", Act::throws, false},
        {"a handler adds a child to its parent's group", Act::addsToItsParentsGroup, false},
        {"a handler throws inside ~TaskGroup", Act::throws, true},
    };
    for (const auto& [name, act, dropGroup] : cases) {
        SCOPED_TRACE(name);
        std::atomic<int> told{0}, started{0};
        auto parent = spawn(parentOfThree(act, dropGroup, &told, &started));
        while (started.load() < 3) std::this_thread::yield();
        if (dropGroup) {
            parent.wait();
        } else {
            parent.cancel();
            parent.cancel();
            EXPECT_THROW(parent.wait(), CancellationError);
        }
        EXPECT_EQ(told.load(), 6);
    }
}

TEST(Cancellation, AHandlerNeverRunsAfterItsDestructorHasReturned) {
    for (int round = 0; round < 100; ++round) {
        std::atomic<bool> registered{false}, gone{false}, ranLate{false};
        auto handle = spawn(handlerThenGone(&registered, &gone, &ranLate));
        while (!registered.load()) std::this_thread::yield();
        handle.cancel();
        handle.wait();
        ASSERT_FALSE(ranLate.load()) << "round " << round;
    }
}
