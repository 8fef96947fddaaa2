#include "async/Sleep.h"
#include "async/Spawn.h"
#include "async/ThreadPool.h"
#include "async/TimerService.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>

using namespace orvel::async;
using namespace std::chrono_literals;

namespace {

// A job that posts itself again and again: from a worker, each post lands in the worker's own slot.
struct Relay {
    ThreadPool* pool;
    std::atomic<bool> stop{false};
    std::atomic<long> runs{0};
    static void run(void* argument) {
        auto* self = static_cast<Relay*>(argument);
        self->runs.fetch_add(1, std::memory_order_relaxed);
        if (!self->stop.load()) self->pool->post(&Relay::run, self);
    }
};

}  // namespace

TEST(ThreadPool, AJobThatKeepsPostingItselfStarvesNeitherTheQueueNorTheStop) {
    // One worker: the relay would hold it forever if its slot never yielded to the shared queue.
    // Four: one watches the reactor, the others stand by, and all of them must leave when the pool goes.
    for (std::size_t workers : {1, 4}) {
        SCOPED_TRACE(workers);
        ThreadPool pool(workers);
        Relay relay{&pool};
        pool.post(&Relay::run, &relay);
        std::promise<void> reached;
        pool.post([](void* promise) { static_cast<std::promise<void>*>(promise)->set_value(); }, &reached);
        ASSERT_EQ(reached.get_future().wait_for(60s), std::future_status::ready);
        relay.stop = true;
        EXPECT_GT(relay.runs.load(), 1);
        // Idle a while before it goes, so that the workers are back waiting where they wait.
        std::this_thread::sleep_for(20ms);
    }
}

// A task that blocks its worker must not hold up the timers: a sleeper that blocks until a later
// sleeper has woken. Were sleepers resumed on the thread that fires timers, the later one would
// never fire (the guard ends the block after a minute, and the test fails).
TEST(ThreadPool, ATaskThatBlocksItsWorkerHoldsUpNoTimer) {
    std::promise<void> laterWoke;
    auto blocker = spawn([](std::future<void> released) -> Task<bool> {
        co_await sleep(1ms);
        co_return released.wait_for(60s) == std::future_status::ready;
    }(laterWoke.get_future()));
    auto later = spawn([](std::promise<void>* woke) -> Task<void> {
        co_await sleep(20ms);
        woke->set_value();
    }(&laterWoke));
    later.wait();
    EXPECT_TRUE(blocker.wait());
}
