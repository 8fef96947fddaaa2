#pragma once
#include "async/TimerService.h"
#include "http/detail/CancellableScope.h"

#include <atomic>
#include <chrono>
#include <thread>

namespace orvel::http::detail {

// The time limit of one handler call: a timer that cancels the call's scope when it fires. One
// timer in the connection's frame instead of two spawned tasks per request.
class HandlerDeadline {
public:
    HandlerDeadline(CancellableScope& scope, std::chrono::nanoseconds limit) {
        timer_.owner = this;
        timer_.scope = &scope;
        const auto now = async::TimerService::Clock::now();
        timer_.deadline = now + limit;
        timer_.fire = &HandlerDeadline::fired;
        async::TimerService::shared().schedule(timer_, now);
    }
    ~HandlerDeadline() { disarm(); }
    HandlerDeadline(const HandlerDeadline&) = delete;
    HandlerDeadline& operator=(const HandlerDeadline&) = delete;

    // Stops the timer; true when it had fired (the call was cancelled for want of time).
    bool disarm() {
        if (disarmed_) return expired_;
        disarmed_ = true;
        if (async::TimerService::shared().cancel(timer_)) return false;
        // Fired or firing: wait until the timer thread is done with us (it only cancels a scope).
        while (!timer_.done.load(std::memory_order_acquire)) std::this_thread::yield();
        expired_ = true;
        return true;
    }

private:
    struct Timer : async::TimerService::Timer {
        HandlerDeadline* owner = nullptr;
        CancellableScope* scope = nullptr;
        std::atomic<bool> done{false};
    };
    static void fired(async::TimerService::Timer* timer) {
        auto* self = static_cast<Timer*>(timer);
        self->scope->cancel();
        self->done.store(true, std::memory_order_release);
    }

    Timer timer_;
    bool disarmed_ = false;
    bool expired_ = false;
};

}  // namespace orvel::http::detail
