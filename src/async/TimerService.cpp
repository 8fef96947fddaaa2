#include "async/TimerService.h"

#include "async/ThreadPool.h"

#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstdint>
#include <system_error>

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

}  // namespace

TimerService& TimerService::shared() {
    static TimerService* service = new TimerService(&ThreadPool::shared());  // never destroyed, like the pool
    return *service;
}

TimerService::TimerService(ThreadPool* pool) : pool_(pool) {
    assert(pool);
    heap_.reserve(256);
    timerFd_ = ::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);  // steady_clock's clock
    if (timerFd_ < 0)
        throw std::system_error(errno, std::generic_category(), "timerfd_create");
    try {
        pool_->watch(timerFd_, *this);
    } catch (...) {
        ::close(timerFd_);
        throw;
    }
}

TimerService::~TimerService() {
    pool_->unwatch(*this);
    ::close(timerFd_);
}

void TimerService::arm(Clock::time_point wakeAt) noexcept {
    wakeAt_ = wakeAt;
    itimerspec value{};
    if (wakeAt != Clock::time_point::max()) {
        const auto since = std::chrono::duration_cast<std::chrono::nanoseconds>(wakeAt.time_since_epoch()).count();
        // Zero would disarm: a moment at the clock's origin is long past anyway.
        value.it_value.tv_sec = static_cast<time_t>(since / 1000000000);
        value.it_value.tv_nsec = std::max<long>(static_cast<long>(since % 1000000000), since > 0 ? 0 : 1);
    }
    ::timerfd_settime(timerFd_, TFD_TIMER_ABSTIME, &value, nullptr);
}

void TimerService::schedule(Timer& timer, Clock::time_point now) {
    timer.latest = latestFor(timer.deadline, now);
    std::lock_guard lock(mutex_);
    heap_.push_back(nullptr);
    place(heap_.size() - 1, &timer);
    siftUp(heap_.size() - 1);
    if (const auto wakeAt = wakeFor(timer.latest); wakeAt < wakeAt_)
        arm(wakeAt);
}

bool TimerService::cancel(Timer& timer) {
    std::lock_guard lock(mutex_);
    if (timer.heapIndex == notScheduled)
        return false;
    removeAt(timer.heapIndex);
    return true;
}

void TimerService::ready() noexcept {
    // The timerfd is never read: each expiry is a new edge for the reactor whatever its count
    // says, and re-arming below is all it needs (a read per wake-up was a system call for nothing).
    std::unique_lock lock(mutex_);
    // One timer at a time, taken off the heap just before it fires: a cancel that comes later
    // learns that it fired.
    while (!heap_.empty() && heap_[0]->deadline <= Clock::now()) {
        Timer* timer = heap_[0];
        removeAt(0);
        lock.unlock();
        timer->fire(timer);  // may end the timer's owner: nothing touches it after this
        lock.lock();
    }
    // The heap is ordered by latest moment: its top is the first that must not wait longer.
    arm(heap_.empty() ? Clock::time_point::max() : wakeFor(heap_[0]->latest));
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
