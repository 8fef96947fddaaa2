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
// owners' frames. The thread wakes at most once per millisecond boundary and fires every timer due
// by then; coalescing wake-ups halved the CPU of many paced streams. Scheduling a timer later
// than the next wake-up does not wake the thread. Given a pool, the thread fires each timer as
// one of the pool's workers, so the task a timer resumes runs at once on the timer thread rather
// than after waking a sleeping worker.
class TimerService {
public:
    using Clock = std::chrono::steady_clock;

    struct Timer {
        Clock::time_point deadline;
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

    void schedule(Timer& timer);
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
