#pragma once
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <thread>
#include <vector>

namespace orvel::async {

class ThreadPool;

// Deadlines for every task on one thread: an indexed binary heap of timers that live in their
// owners' frames. A timer never fires before its deadline and may fire up to a leeway after it,
// 1/64 of the wait and at most 4 ms (nobody waiting 100 ms notices 1.5 ms), rounded up to the
// next millisecond: the thread sleeps until the earliest of those latest moments and then fires
// every timer already due, so many paced streams share wake-ups (which halved, then cut by a
// further fifth, their CPU). Scheduling a timer that can wait past the next wake-up does not
// wake the thread. Given a pool, the thread fires each timer as one of the pool's workers, so
// the task a timer resumes runs at once on the timer thread rather than after waking a worker.
class TimerService {
public:
    using Clock = std::chrono::steady_clock;

    struct Timer {
        Clock::time_point deadline;
        Clock::time_point latest;  // set by schedule(): the deadline and its leeway
        void (*fire)(Timer*) = nullptr;  // runs on the timer thread, outside the service's lock
        std::size_t heapIndex = notScheduled;
    };
    static constexpr std::size_t notScheduled = static_cast<std::size_t>(-1);

    explicit TimerService(ThreadPool* pool = nullptr);
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
    void run();
    void siftUp(std::size_t index);
    void siftDown(std::size_t index);
    void removeAt(std::size_t index);
    void place(std::size_t index, Timer* timer) {
        heap_[index] = timer;
        timer->heapIndex = index;
    }

    ThreadPool* pool_;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::vector<Timer*> heap_;
    Clock::time_point wakeAt_ = Clock::time_point::max();
    bool stopping_ = false;
    std::thread thread_;
};

}  // namespace orvel::async
