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
#include <string>
#include <system_error>

namespace orvel::async {

namespace {
thread_local Executor* currentExecutorSlot = nullptr;

void resumeCoroutine(void* address) { std::coroutine_handle<>::from_address(address).resume(); }

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

namespace {
// An edge-triggered registration of `fd` in `epoll`, marked `mark`.
bool addEdgeTriggered(int epoll, int fd, std::uint64_t mark) {
    epoll_event event{};
    event.events = EPOLLIN | EPOLLET;
    event.data.u64 = mark;
    return ::epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event) == 0;
}

void setTimer(int timer, long nanoseconds) noexcept {
    itimerspec in{};
    in.it_value.tv_nsec = nanoseconds;
    ::timerfd_settime(timer, 0, &in, nullptr);
}
}  // namespace

ThreadPool::ThreadPool(std::size_t threadCount) : ring_(64) {
    reactor_ = ::epoll_create1(EPOLL_CLOEXEC);
    wake_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    lateWake_ = ::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
    standby_ = ::epoll_create1(EPOLL_CLOEXEC);
    standbyWake_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    standbyHelp_ = ::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
    // The wakes are never read: each write is a new edge that wakes one sleeper, and the counter
    // cannot fill up in the life of a process. The same for the late wake: each expiry is an
    // edge. The standby's timer is read, to tell its expiry from one a worker disarmed while the
    // standby was waking up.
    if (reactor_ < 0 || wake_ < 0 || lateWake_ < 0 || standby_ < 0 || standbyWake_ < 0 || standbyHelp_ < 0
        || !addEdgeTriggered(reactor_, wake_, wakeMark) || !addEdgeTriggered(reactor_, lateWake_, lateWakeMark)
        || !addEdgeTriggered(standby_, standbyWake_, wakeMark) || !addEdgeTriggered(standby_, standbyHelp_, lateWakeMark)) {
        const int error = errno;
        closeDescriptors();
        throw std::system_error(error, std::generic_category(), "thread pool reactor");
    }
    try {
        threads_.reserve(threadCount);
        for (std::size_t i = 0; i < threadCount; ++i) {
            threads_.emplace_back([this, i] {
                std::string name = "orvel.pool." + std::to_string(i);
                pthread_setname_np(pthread_self(), name.c_str());
                work();
            });
        }
    } catch (...) {
        stop();  // out of threads: the ones started leave, the descriptors close
        throw;
    }
}

ThreadPool::~ThreadPool() { stop(); }

void ThreadPool::stop() noexcept {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    // Each worker that leaves wakes the next.
    wake(wake_);
    wake(standbyWake_);
    for (auto& thread : threads_)
        thread.join();
    closeDescriptors();
}

void ThreadPool::closeDescriptors() noexcept {
    for (int fd : {reactor_, wake_, lateWake_, standby_, standbyWake_, standbyHelp_})
        if (fd >= 0)
            ::close(fd);
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
    if (!addEdgeTriggered(reactor_, fd, source.id_))
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
    int wakeFd = -1;
    {
        std::lock_guard lock(mutex_);
        push(job);
        // A worker goes on with the jobs it queues itself unless one of them holds it up.
        if (isWorkerThread())
            armHelp();
        else
            wakeFd = takeWakeTurn();
    }
    if (wakeFd >= 0)
        wake(wakeFd);
}

int ThreadPool::takeWakeTurn() noexcept {
    // One wake in flight is enough: the worker it reaches takes everything queued by then. A
    // burst of posts (a batch of timers, a busy socket pool) would otherwise write once per job.
    if (count_ == 0)
        return -1;
    if (watched_) {
        if (wakePending_)
            return -1;
        wakePending_ = true;
        return wake_;
    }
    if (standbys_ == 0 || standbyWakePending_)
        return -1;
    standbyWakePending_ = true;
    return standbyWake_;
}

void ThreadPool::armHelp() noexcept {
    if (watched_) {
        if (count_ == 0 || wakePending_ || lateWakeArmed_)
            return;
        lateWakeArmed_ = true;
        setTimer(lateWake_, lateWakeNanoseconds);
    } else if (standbys_ > 0 && !standbyHelpArmed_) {
        standbyHelpArmed_ = true;
        leavesWhenArmed_ = reactorLeaves_;
        setTimer(standbyHelp_, lateWakeNanoseconds);
    }
}

void ThreadPool::disarmHelp() noexcept {
    if (lateWakeArmed_) {
        lateWakeArmed_ = false;
        setTimer(lateWake_, 0);
    }
    if (standbyHelpArmed_) {
        standbyHelpArmed_ = false;
        setTimer(standbyHelp_, 0);
    }
}

void ThreadPool::wake(int eventfd) noexcept {
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto written = ::write(eventfd, &one, sizeof one);
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
}

bool ThreadPool::pop(Job& job) {
    if (count_ == 0)
        return false;
    job = ring_[head_];
    head_ = (head_ + 1) & (ring_.size() - 1);
    --count_;
    return true;
}

void ThreadPool::waitForEvents(int timeoutMilliseconds, bool watcher) noexcept {
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
    const bool sawSource = std::any_of(events, events + std::max(count, 0), [](const epoll_event& event) {
        return event.data.u64 != wakeMark && event.data.u64 != lateWakeMark;
    });
    if (watcher || sawWake || sawLateWake) {
        int wakeFd = -1;
        {
            std::lock_guard lock(mutex_);
            if (sawLateWake)
                lateWakeArmed_ = false;
            if (watcher) {
                // Awake now: what the sources post below must wake another worker, not this one,
                // and the reactor is unwatched until this worker or a standby one comes back.
                watched_ = false;
                ++reactorLeaves_;
                wakePending_ = false;
                // A wake whose jobs another worker took leaves nothing to share.
                if (sawSource || count_ > 0)
                    armHelp();
            } else {
                // A worker that was not waiting took the watcher's wake: it is passed on.
                if (sawWake)
                    wakePending_ = false;
                wakeFd = takeWakeTurn();
            }
        }
        if (wakeFd >= 0)
            wake(wakeFd);
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

void ThreadPool::standBy(std::unique_lock<std::mutex>& lock) noexcept {
    for (;;) {
        lock.unlock();
        epoll_event events[2];
        int count;
        do
            count = ::epoll_wait(standby_, events, 2, -1);
        while (count < 0 && errno == EINTR);
        lock.lock();
        bool wanted = stopping_;
        for (int i = 0; i < count; ++i) {
            if (events[i].data.u64 == wakeMark) {
                standbyWakePending_ = false;
                wanted = true;
                continue;
            }
            // An expiry disarmed while this worker was waking up reads nothing.
            std::uint64_t expiries = 0;
            if (::read(standbyHelp_, &expiries, sizeof expiries) <= 0)
                continue;
            standbyHelpArmed_ = false;
            if (count_ > 0 || (!watched_ && reactorLeaves_ == leavesWhenArmed_))
                wanted = true;
            else  // the watcher came back and left again since: the new absence gets its own millisecond
                armHelp();
        }
        if (wanted) {
            --standbys_;
            return;
        }
    }
}

void ThreadPool::work() {
    Worker self{this};
    currentWorker_ = &self;
    detail::setCurrentExecutor(this);
    for (;;) {
        Job job{};
        bool haveJob = false;
        {
            std::unique_lock lock(mutex_);
            // What the reactor handed this worker comes first: a shared job may block.
            while (!self.hasNext && !(haveJob = pop(job))) {
                if (stopping_) {
                    lock.unlock();
                    wake(wake_);
                    wake(standbyWake_);
                    return;
                }
                // Nothing is queued, and the reactor is watched or about to be, by this worker
                // if by no other: nobody needs waking.
                disarmHelp();
                if (watched_) {
                    ++standbys_;
                    standBy(lock);
                    continue;
                }
                watched_ = true;
                lock.unlock();
                waitForEvents(-1, true);
                self.jobsSinceEventCheck = 0;
                lock.lock();
            }
            // More is waiting, or the reactor is unwatched, and nobody is looking: it goes to
            // another thread if this one does not get to it soon.
            armHelp();
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
