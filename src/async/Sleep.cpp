#include "async/Sleep.h"

#include <algorithm>

namespace orvel::async {

bool SleepAwaiter::await_suspend(std::coroutine_handle<> handle) {
    suspension_.prepare(handle);
    context_ = detail::currentContext();

    auto now = TimerService::Clock::now();
    auto longest = TimerService::Clock::time_point::max() - now;
    timer_.deadline = now + std::min<TimerService::Clock::duration>(std::max(duration_, std::chrono::nanoseconds(0)), longest);
    timer_.owner = this;
    timer_.fire = &SleepAwaiter::fired;
    TimerService::shared().schedule(timer_, now);
    // The timer goes in first: a cancellation that runs at once must find it to remove.
    if (context_) {
        node_.owner = this;
        node_.run = &SleepAwaiter::cancelled;
        context_->add(node_);
    }
    return suspension_.commit();
}

bool SleepAwaiter::await_resume() {
    if (context_) context_->remove(node_);
    if (!wasCancelled_.load(std::memory_order_relaxed)) return true;
    if (quiet_) return false;
    throw CancellationError();
}

void SleepAwaiter::fired(TimerService::Timer* timer) { static_cast<Timer*>(timer)->owner->suspension_.resume(); }

void SleepAwaiter::cancelled(detail::CancellationNode* node) {
    SleepAwaiter* self = static_cast<Node*>(node)->owner;
    // Whoever removes the timer resumes the task; a timer already fired has resumed it.
    if (TimerService::shared().cancel(self->timer_)) {
        self->wasCancelled_.store(true, std::memory_order_relaxed);
        self->suspension_.resume();
    }
}

}  // namespace orvel::async
