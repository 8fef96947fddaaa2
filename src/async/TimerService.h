#pragma once
#include "async/ThreadPool.h"

#include <chrono>
#include <cstddef>
#include <mutex>
#include <vector>

namespace orvel::async {

// Deadlines for every task, without a thread of their own: an indexed binary heap of timers that
// live in their owners' frames, and a timerfd that the pool's idle workers wait on beside the
// sockets. A timer never fires before its deadline and may fire up to a leeway after it, 1/64
// of the wait and at most 4 ms (nobody waiting 100 ms notices 1.5 ms), rounded up to the next
// millisecond: the timerfd is set to the earliest of those latest moments, and the worker it
// wakes fires every timer already due, so many paced streams share wake-ups (which halved, then
// cut by a further fifth, their CPU). Scheduling a timer that can wait past the next wake-up
// makes no system call. Firing only posts: the tasks it resumes run on the pool's workers, the
// first on the worker that fired it, the rest on the others.
class TimerService final : private ThreadPool::EventSource {
public:
    using Clock = std::chrono::steady_clock;

    struct Timer {
        Clock::time_point deadline;
        Clock::time_point latest;  // set by schedule(): the deadline and its leeway
        void (*fire)(Timer*) = nullptr;  // runs on a pool worker, outside the service's lock; must not block
        std::size_t heapIndex = notScheduled;
    };
    static constexpr std::size_t notScheduled = static_cast<std::size_t>(-1);

    explicit TimerService(ThreadPool* pool);
    ~TimerService();
    TimerService(const TimerService&) = delete;
    TimerService& operator=(const TimerService&) = delete;

    // The process-wide service; it lives until the process ends.
    static TimerService& shared();

    // `now` is when the wait began (the caller has it already): the leeway grows with the wait.
    void schedule(Timer& timer, Clock::time_point now);
    // True when the timer was removed before it fired; false when it has fired or is firing.
    bool cancel(Timer& timer);

private:
    void ready() noexcept override;
    void arm(Clock::time_point wakeAt) noexcept;  // with mutex_ held
    void siftUp(std::size_t index);
    void siftDown(std::size_t index);
    void removeAt(std::size_t index);
    void place(std::size_t index, Timer* timer) {
        heap_[index] = timer;
        timer->heapIndex = index;
    }

    ThreadPool* pool_;
    int timerFd_ = -1;
    std::mutex mutex_;
    std::vector<Timer*> heap_;
    Clock::time_point wakeAt_ = Clock::time_point::max();  // what the timerfd is set to
};

}  // namespace orvel::async
