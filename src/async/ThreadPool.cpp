#include "async/ThreadPool.h"

#include "async/TimerService.h"
#include "async/detail/TaskContext.h"

#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <string>
#include <system_error>

namespace orvel::async {

namespace {
thread_local Executor* currentExecutorSlot = nullptr;

void resumeCoroutine(void* address) { std::coroutine_handle<>::from_address(address).resume(); }

inline void cpuRelax() noexcept {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#endif
}

// How long a worker out of work looks for more before it sleeps: waking a sleeper costs tens of
// microseconds on a virtual machine, a spin that finds nothing costs its whole length. Each
// worker doubles its spin after one that found work (a socket or a producer thread feeding it
// steadily) and halves it after one that did not (work arriving in sparse bursts). Bounded by
// time: a pause instruction takes 1 to 25 ns depending on the processor.
constexpr auto shortestSpin = std::chrono::microseconds(4);
constexpr auto longestSpin = std::chrono::microseconds(64);
// Jobs run one after another from a worker's own slot before the shared queue gets its turn, so
// two tasks handing work back and forth cannot starve the rest.
constexpr int slotStreak = 32;
// A worker that never runs out of jobs looks at the reactor (without waiting) after this many.
constexpr unsigned jobsBetweenEventChecks = 61;
// The wake eventfd's and the late-wake timerfd's marks in epoll_event.data; source ids start at 1.
constexpr std::uint64_t wakeMark = 0;
constexpr std::uint64_t lateWakeMark = ~std::uint64_t{0};
// How long jobs a worker queued may wait for it before a sleeper is woken to take them.
constexpr long lateWakeNanoseconds = 1'000'000;
constexpr int eventsPerWait = 16;
}  // namespace

struct ThreadPool::Worker {
    const ThreadPool* pool;
    Job next{};
    bool hasNext = false;
    unsigned jobsSinceEventCheck = 0;
    std::chrono::nanoseconds spin = shortestSpin;
};

thread_local ThreadPool::Worker* ThreadPool::currentWorker_ = nullptr;

Executor* currentExecutor() noexcept { return currentExecutorSlot; }
void detail::setCurrentExecutor(Executor* executor) noexcept { currentExecutorSlot = executor; }

Executor& defaultExecutor() {
    // The timer service comes up with the first task, not at its first sleep: a process out of
    // descriptors by then (a flood of connections) must still be able to sleep and time out.
    static ThreadPool& pool = (TimerService::shared(), ThreadPool::shared());
    return pool;
}

ThreadPool& ThreadPool::shared() {
    // Never destroyed: tasks may still be parked when static destructors run.
    static ThreadPool* pool = new ThreadPool(std::max(2u, std::thread::hardware_concurrency()));
    return *pool;
}

ThreadPool::ThreadPool(std::size_t threadCount) : ring_(64) {
    reactor_ = ::epoll_create1(EPOLL_CLOEXEC);
    wake_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    lateWake_ = ::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
    if (reactor_ < 0 || wake_ < 0 || lateWake_ < 0)
        throw std::system_error(errno, std::generic_category(), "thread pool reactor");
    // Edge-triggered, and never read: each write is a new edge that wakes one sleeper, and the
    // counter cannot fill up in the life of a process.
    epoll_event event{};
    event.events = EPOLLIN | EPOLLET;
    event.data.u64 = wakeMark;
    if (::epoll_ctl(reactor_, EPOLL_CTL_ADD, wake_, &event) != 0)
        throw std::system_error(errno, std::generic_category(), "thread pool reactor");
    // The same for the late wake: each expiry is an edge, the timerfd is never read.
    event.data.u64 = lateWakeMark;
    if (::epoll_ctl(reactor_, EPOLL_CTL_ADD, lateWake_, &event) != 0)
        throw std::system_error(errno, std::generic_category(), "thread pool reactor");
    threads_.reserve(threadCount);
    for (std::size_t i = 0; i < threadCount; ++i) {
        threads_.emplace_back([this, i] {
            std::string name = "orvel.pool." + std::to_string(i);
            pthread_setname_np(pthread_self(), name.c_str());
            work();
        });
    }
}

ThreadPool::~ThreadPool() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    wakeSleeper();  // each worker that leaves wakes the next
    for (auto& thread : threads_)
        thread.join();
    ::close(lateWake_);
    ::close(wake_);
    ::close(reactor_);
}

bool ThreadPool::isWorkerThread() const noexcept { return currentWorker_ && currentWorker_->pool == this; }

void ThreadPool::schedule(std::coroutine_handle<> coroutine) { post(&resumeCoroutine, coroutine.address()); }

void ThreadPool::post(JobFunction function, void* argument) {
    if (Worker* worker = currentWorker_; worker && worker->pool == this && !worker->hasNext) {
        worker->next = {function, argument};
        worker->hasNext = true;
        return;
    }
    postShared({function, argument});
}

void ThreadPool::watch(int fd, EventSource& source) {
    std::lock_guard lock(sourcesMutex_);
    source.id_ = nextSourceId_++;
    source.fd_ = fd;
    source.running_ = 0;
    epoll_event event{};
    event.events = EPOLLIN | EPOLLET;
    event.data.u64 = source.id_;
    if (::epoll_ctl(reactor_, EPOLL_CTL_ADD, fd, &event) != 0)
        throw std::system_error(errno, std::generic_category(), "thread pool watch");
    sources_.emplace(source.id_, &source);
}

void ThreadPool::unwatch(EventSource& source) noexcept {
    std::unique_lock lock(sourcesMutex_);
    if (sources_.erase(source.id_) == 0)
        return;
    ::epoll_ctl(reactor_, EPOLL_CTL_DEL, source.fd_, nullptr);
    // A worker may have taken an event of it just before: its ready() must end first.
    sourceIdle_.wait(lock, [&] { return source.running_ == 0; });
}

void ThreadPool::postShared(Job job) {
    bool wakeOne = false;
    {
        std::lock_guard lock(mutex_);
        push(job);
        // A worker goes on with the jobs it queues itself unless one of them holds it up.
        if (isWorkerThread())
            armLateWake();
        else
            wakeOne = takeWakeTurn();
    }
    if (wakeOne)
        wakeSleeper();
}

bool ThreadPool::sleeperWanted() const noexcept {
    return count_ > 0 && sleepers_ > 0 && !wakePending_ && spinning_.load(std::memory_order_relaxed) == 0;
}

bool ThreadPool::takeWakeTurn() noexcept {
    // One wake in flight is enough: the worker it reaches takes everything queued by then. A
    // burst of posts (a batch of timers, a busy socket pool) would otherwise write once per job.
    if (!sleeperWanted())
        return false;
    wakePending_ = true;
    return true;
}

void ThreadPool::armLateWake() noexcept {
    if (!sleeperWanted() || lateWakeArmed_)
        return;
    lateWakeArmed_ = true;
    itimerspec in{};
    in.it_value.tv_nsec = lateWakeNanoseconds;
    ::timerfd_settime(lateWake_, 0, &in, nullptr);
}

void ThreadPool::disarmLateWake() noexcept {
    if (!lateWakeArmed_)
        return;
    lateWakeArmed_ = false;
    const itimerspec off{};
    ::timerfd_settime(lateWake_, 0, &off, nullptr);
}

void ThreadPool::wakeSleeper() noexcept {
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto written = ::write(wake_, &one, sizeof one);
}

void ThreadPool::push(Job job) {
    if (count_ == ring_.size()) {
        std::vector<Job> larger(ring_.size() * 2);
        for (std::size_t i = 0; i < count_; ++i)
            larger[i] = ring_[(head_ + i) & (ring_.size() - 1)];
        ring_ = std::move(larger);
        head_ = 0;
    }
    ring_[(head_ + count_) & (ring_.size() - 1)] = job;
    ++count_;
    pending_.store(count_, std::memory_order_relaxed);
}

bool ThreadPool::pop(Job& job) {
    if (count_ == 0)
        return false;
    job = ring_[head_];
    head_ = (head_ + 1) & (ring_.size() - 1);
    --count_;
    pending_.store(count_, std::memory_order_relaxed);
    return true;
}

void ThreadPool::waitForEvents(int timeoutMilliseconds, bool countedAsSleeper) noexcept {
    epoll_event events[eventsPerWait];
    int count;
    // EINTR (a stop and continue of the process) is only a late wake-up.
    do
        count = ::epoll_wait(reactor_, events, eventsPerWait, timeoutMilliseconds);
    while (count < 0 && errno == EINTR);
    const auto saw = [&](std::uint64_t mark) {
        return std::any_of(events, events + std::max(count, 0), [mark](const epoll_event& event) { return event.data.u64 == mark; });
    };
    const bool sawWake = saw(wakeMark);
    const bool sawLateWake = saw(lateWakeMark);
    if (countedAsSleeper || sawWake || sawLateWake) {
        bool wakeAgain = false;
        {
            // Awake now: what the sources post below must wake another worker, not this one. The
            // pending wake has done its job, or a worker that was not waiting took it from the
            // sleepers (then it is passed on).
            std::lock_guard lock(mutex_);
            if (countedAsSleeper)
                --sleepers_;
            if (sawLateWake)
                lateWakeArmed_ = false;
            wakePending_ = false;
            wakeAgain = !countedAsSleeper && takeWakeTurn();
        }
        if (wakeAgain)
            wakeSleeper();
    }
    for (int i = 0; i < count; ++i) {
        if (events[i].data.u64 == wakeMark || events[i].data.u64 == lateWakeMark)
            continue;
        EventSource* source = nullptr;
        {
            std::lock_guard lock(sourcesMutex_);
            if (const auto found = sources_.find(events[i].data.u64); found != sources_.end()) {
                source = found->second;
                ++source->running_;
            }
        }
        if (!source)
            continue;  // unwatched since the wait returned
        source->ready();
        std::lock_guard lock(sourcesMutex_);
        if (--source->running_ == 0)
            sourceIdle_.notify_all();
    }
}

void ThreadPool::work() {
    Worker self{this};
    currentWorker_ = &self;
    detail::setCurrentExecutor(this);
    for (;;) {
        Job job{};
        bool haveJob;
        {
            std::unique_lock lock(mutex_);
            haveJob = pop(job);
            if (!haveJob) {
                // Everything queued was taken in time: nobody needs waking for it.
                disarmLateWake();
                // The count changes under the lock so that a post sees either a spinner or a sleeper.
                // One spinner is enough to catch the next job; the others sleep at once.
                if (spinning_.load(std::memory_order_relaxed) == 0) {
                    spinning_.fetch_add(1, std::memory_order_relaxed);
                    lock.unlock();
                    spinForJob(self);
                    lock.lock();
                    spinning_.fetch_sub(1, std::memory_order_relaxed);
                }
                // What the reactor handed this worker comes first: a shared job may block.
                while (!self.hasNext && !(haveJob = pop(job))) {
                    if (stopping_) {
                        lock.unlock();
                        wakeSleeper();
                        return;
                    }
                    ++sleepers_;
                    lock.unlock();
                    waitForEvents(-1, true);
                    self.jobsSinceEventCheck = 0;
                    lock.lock();
                }
            }
            // More is waiting and nobody is looking for it: it goes to another thread if this one
            // does not get to it soon.
            armLateWake();
        }
        if (haveJob) {
            job.function(job.argument);
            ++self.jobsSinceEventCheck;
        }
        runNextJobs(self);
        if (self.jobsSinceEventCheck >= jobsBetweenEventChecks) {
            self.jobsSinceEventCheck = 0;
            waitForEvents(0, false);
            runNextJobs(self);
        }
    }
}

void ThreadPool::spinForJob(Worker& self) noexcept {
    auto until = std::chrono::steady_clock::now() + self.spin;
    bool found = true;
    for (unsigned i = 1; pending_.load(std::memory_order_relaxed) == 0; ++i) {
        cpuRelax();
        if (i % 16 == 0 && std::chrono::steady_clock::now() >= until) {
            found = false;
            break;
        }
    }
    self.spin = found ? std::min<std::chrono::nanoseconds>(self.spin * 2, longestSpin)
                      : std::max<std::chrono::nanoseconds>(self.spin / 2, shortestSpin);
}

void ThreadPool::runNextJobs(Worker& self) {
    for (int streak = 0;; ++streak) {
        // A job that ran a nested executor restores this one; the task context is per job.
        detail::setCurrentExecutor(this);
        detail::setCurrentContext(nullptr);
        if (!self.hasNext)
            return;
        Job next = self.next;
        self.hasNext = false;
        if (streak == slotStreak) {
            postShared(next);
            return;
        }
        ++self.jobsSinceEventCheck;
        next.function(next.argument);
    }
}

}  // namespace orvel::async
