#include "async/ThreadPool.h"
#include "async/TimerService.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>

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

TEST(ThreadPool, AJobThatKeepsPostingItselfDoesNotStarveTheQueue) {
    // One worker: the relay would hold it forever if its slot never yielded to the shared queue.
    ThreadPool pool(1);
    Relay relay{&pool};
    pool.post(&Relay::run, &relay);
    std::promise<void> reached;
    pool.post([](void* promise) { static_cast<std::promise<void>*>(promise)->set_value(); }, &reached);
    ASSERT_EQ(reached.get_future().wait_for(60s), std::future_status::ready);
    relay.stop = true;
    EXPECT_GT(relay.runs.load(), 1);
}

namespace {

struct Probe : TimerService::Timer {
    ThreadPool* pool;
    TimerService* service;
    Probe* later;
    std::promise<bool>* cancelledLater;
};

void cancelLater(void* argument) {
    auto* self = static_cast<Probe*>(argument);
    self->cancelledLater->set_value(self->service->cancel(*self->later));
}

}  // namespace

TEST(ThreadPool, AJobATimerStartsMayCancelALaterTimerDueInTheSameWakeUp) {
    // The timer thread runs what a timer posts right where it fired. If it had taken every due
    // timer off the heap first, the later one could no longer be cancelled, and an owner that
    // waits for a timer it failed to cancel would wait for itself.
    ThreadPool pool(2);
    TimerService service(&pool);
    std::promise<bool> cancelled;
    Probe later{}, first{};
    const auto now = TimerService::Clock::now();
    const auto due = now + 2ms;
    later.deadline = due + 1us;
    later.fire = [](TimerService::Timer*) { ADD_FAILURE() << "the cancelled timer fired"; };
    first.deadline = due;
    first.pool = &pool;
    first.service = &service;
    first.later = &later;
    first.cancelledLater = &cancelled;
    first.fire = [](TimerService::Timer* timer) {
        auto* self = static_cast<Probe*>(timer);
        self->pool->post(&cancelLater, self);
    };
    service.schedule(later, now);
    service.schedule(first, now);
    auto result = cancelled.get_future();
    ASSERT_EQ(result.wait_for(60s), std::future_status::ready);
    EXPECT_TRUE(result.get());
}
