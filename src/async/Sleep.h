#pragma once
#include "async/Cancellation.h"
#include "async/Executor.h"
#include "async/TimerService.h"
#include "async/detail/Suspension.h"
#include "async/detail/TaskContext.h"

#include <atomic>
#include <chrono>
#include <coroutine>

namespace orvel::async {

// Suspends the calling task for a duration without holding a thread. Cancelling the task ends the
// sleep at once: with CancellationError, or, for a quiet sleep, by returning false.
class SleepAwaiter {
public:
    explicit SleepAwaiter(std::chrono::nanoseconds duration, bool quiet = false) : duration_(duration), quiet_(quiet) {}
    SleepAwaiter(SleepAwaiter&& other) noexcept : duration_(other.duration_), quiet_(other.quiet_) {}

    bool await_ready() const noexcept { return false; }
    bool await_suspend(std::coroutine_handle<> handle);
    // True when the whole duration passed.
    bool await_resume();

private:
    struct Timer : TimerService::Timer {
        SleepAwaiter* owner;
    };
    struct Node : detail::CancellationNode {
        SleepAwaiter* owner;
    };
    static void fired(TimerService::Timer* timer);
    static void cancelled(detail::CancellationNode* node);

    std::chrono::nanoseconds duration_;
    bool quiet_;
    Timer timer_;
    Node node_;
    detail::TaskContext* context_ = nullptr;
    detail::Suspension suspension_;
    std::atomic<bool> wasCancelled_{false};
};

inline SleepAwaiter sleep(std::chrono::nanoseconds duration) { return SleepAwaiter(duration); }
// For a loop that only a cancellation ends: `while (co_await sleepUnlessCancelled(d))` ends
// without a throw (microseconds each, which a task per connection pays once per connection).
inline SleepAwaiter sleepUnlessCancelled(std::chrono::nanoseconds duration) { return SleepAwaiter(duration, true); }

}  // namespace orvel::async
