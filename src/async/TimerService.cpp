#include "async/TimerService.h"

#include "async/ThreadPool.h"

#include <pthread.h>

#include <algorithm>

namespace orvel::async {
namespace {
using Clock = TimerService::Clock;

constexpr auto longestLeeway = std::chrono::milliseconds(4);

Clock::time_point latestFor(Clock::time_point deadline, Clock::time_point now) {
    const auto leeway = std::clamp<Clock::duration>((deadline - now) / 64, Clock::duration::zero(), longestLeeway);
    return deadline < Clock::time_point::max() - leeway ? deadline + leeway : Clock::time_point::max();
}

// Rounded up to the next millisecond, so that timers close together fire in one wake-up.
Clock::time_point wakeFor(Clock::time_point latest) {
    if (latest >= Clock::time_point::max() - std::chrono::milliseconds(1)) return Clock::time_point::max();
    const auto rounded = std::chrono::ceil<std::chrono::milliseconds>(latest.time_since_epoch());
    return Clock::time_point(std::chrono::duration_cast<Clock::duration>(rounded));
}

void fireTimer(void* timer) {
    auto* due = static_cast<TimerService::Timer*>(timer);
    due->fire(due);  // may end the timer's owner: nothing touches it after this
}
}  // namespace

TimerService& TimerService::shared() {
    static TimerService* service = new TimerService(&ThreadPool::shared());  // never destroyed, like the pool
    return *service;
}

TimerService::TimerService(ThreadPool* pool) : pool_(pool) {
    heap_.reserve(256);
    thread_ = std::thread([this] {
        pthread_setname_np(pthread_self(), "orvel.timers");
        run();
    });
}

TimerService::~TimerService() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_one();
    thread_.join();
}

void TimerService::schedule(Timer& timer, Clock::time_point now) {
    timer.latest = latestFor(timer.deadline, now);
    bool wake = false;
    {
        std::lock_guard lock(mutex_);
        heap_.push_back(nullptr);
        place(heap_.size() - 1, &timer);
        siftUp(heap_.size() - 1);
        if (const auto wakeAt = wakeFor(timer.latest); wakeAt < wakeAt_) {
            wakeAt_ = wakeAt;
            wake = true;
        }
    }
    if (wake) wake_.notify_one();
}

bool TimerService::cancel(Timer& timer) {
    std::lock_guard lock(mutex_);
    if (timer.heapIndex == notScheduled) return false;
    removeAt(timer.heapIndex);
    return true;
}

void TimerService::run() {
    std::unique_lock lock(mutex_);
    while (!stopping_) {
        // One timer at a time, taken off the heap just before it fires: what it runs here may
        // cancel a later timer, and must still find it scheduled.
        if (!heap_.empty() && heap_[0]->deadline <= Clock::now()) {
            Timer* timer = heap_[0];
            removeAt(0);
            lock.unlock();
            if (pool_) pool_->runHere(&fireTimer, timer);
            else fireTimer(timer);
            lock.lock();
            continue;
        }
        if (heap_.empty()) {
            wakeAt_ = Clock::time_point::max();
            wake_.wait(lock);
        } else {
            // The heap is ordered by latest moment: its top is the first that must not wait longer.
            wakeAt_ = wakeFor(heap_[0]->latest);
            wake_.wait_until(lock, wakeAt_);
        }
    }
}

void TimerService::siftUp(std::size_t index) {
    Timer* timer = heap_[index];
    while (index > 0) {
        std::size_t parent = (index - 1) / 2;
        if (heap_[parent]->latest <= timer->latest) break;
        place(index, heap_[parent]);
        index = parent;
    }
    place(index, timer);
}

void TimerService::siftDown(std::size_t index) {
    Timer* timer = heap_[index];
    std::size_t size = heap_.size();
    for (;;) {
        std::size_t child = 2 * index + 1;
        if (child >= size) break;
        if (child + 1 < size && heap_[child + 1]->latest < heap_[child]->latest) ++child;
        if (timer->latest <= heap_[child]->latest) break;
        place(index, heap_[child]);
        index = child;
    }
    place(index, timer);
}

void TimerService::removeAt(std::size_t index) {
    heap_[index]->heapIndex = notScheduled;
    Timer* last = heap_.back();
    heap_.pop_back();
    if (index == heap_.size()) return;
    place(index, last);
    if (index > 0 && heap_[(index - 1) / 2]->latest > last->latest) siftUp(index);
    else siftDown(index);
}

}  // namespace orvel::async
