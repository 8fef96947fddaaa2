#include "async/ThreadPool.h"

#include "async/detail/TaskContext.h"

#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <string>

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
}  // namespace

struct ThreadPool::Worker {
    const ThreadPool* pool;
    Job next{};
    bool hasNext = false;
    std::chrono::nanoseconds spin = shortestSpin;
};

thread_local ThreadPool::Worker* ThreadPool::currentWorker_ = nullptr;

Executor* currentExecutor() noexcept { return currentExecutorSlot; }
void detail::setCurrentExecutor(Executor* executor) noexcept { currentExecutorSlot = executor; }

Executor& defaultExecutor() { return ThreadPool::shared(); }

ThreadPool& ThreadPool::shared() {
    // Never destroyed: tasks may still be parked when static destructors run.
    static ThreadPool* pool = new ThreadPool(std::max(2u, std::thread::hardware_concurrency()));
    return *pool;
}

ThreadPool::ThreadPool(std::size_t threadCount) : ring_(64) {
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
    wake_.notify_all();
    for (auto& thread : threads_) thread.join();
}

bool ThreadPool::isWorkerThread() const noexcept { return currentWorker_ && currentWorker_->pool == this; }

void ThreadPool::schedule(std::coroutine_handle<> coroutine) { post(&resumeCoroutine, coroutine.address()); }

void ThreadPool::resumeHere(std::coroutine_handle<> coroutine) { runHere(&resumeCoroutine, coroutine.address()); }

void ThreadPool::post(JobFunction function, void* argument) {
    if (Worker* worker = currentWorker_; worker && worker->pool == this && !worker->hasNext) {
        worker->next = {function, argument};
        worker->hasNext = true;
        return;
    }
    postShared({function, argument});
}

void ThreadPool::runHere(JobFunction function, void* argument) {
    Worker* outerWorker = currentWorker_;
    Executor* outerExecutor = currentExecutor();
    Worker self{this};
    currentWorker_ = &self;
    detail::setCurrentExecutor(this);
    busy_.fetch_add(1, std::memory_order_relaxed);
    function(argument);
    runNextJobs(self);
    busy_.fetch_sub(1, std::memory_order_relaxed);
    currentWorker_ = outerWorker;
    detail::setCurrentExecutor(outerExecutor);
}

void ThreadPool::postShared(Job job) {
    bool wakeOne;
    {
        std::lock_guard lock(mutex_);
        push(job);
        wakeOne = sleepers_ > 0 && spinning_.load(std::memory_order_relaxed) == 0;
    }
    if (wakeOne) wake_.notify_one();
}

void ThreadPool::push(Job job) {
    if (count_ == ring_.size()) {
        std::vector<Job> larger(ring_.size() * 2);
        for (std::size_t i = 0; i < count_; ++i) larger[i] = ring_[(head_ + i) & (ring_.size() - 1)];
        ring_ = std::move(larger);
        head_ = 0;
    }
    ring_[(head_ + count_) & (ring_.size() - 1)] = job;
    ++count_;
    pending_.store(count_, std::memory_order_relaxed);
}

bool ThreadPool::pop(Job& job) {
    if (count_ == 0) return false;
    job = ring_[head_];
    head_ = (head_ + 1) & (ring_.size() - 1);
    --count_;
    pending_.store(count_, std::memory_order_relaxed);
    return true;
}

void ThreadPool::work() {
    Worker self{this};
    currentWorker_ = &self;
    detail::setCurrentExecutor(this);
    for (;;) {
        Job job;
        bool wakeAnother;
        {
            std::unique_lock lock(mutex_);
            if (!pop(job)) {
                // The count changes under the lock so that a post sees either a spinner or a sleeper.
                spinning_.fetch_add(1, std::memory_order_relaxed);
                lock.unlock();
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
                lock.lock();
                spinning_.fetch_sub(1, std::memory_order_relaxed);
                while (!pop(job)) {
                    if (stopping_) return;
                    ++sleepers_;
                    wake_.wait(lock);
                    --sleepers_;
                }
            }
            // More is waiting and nobody is looking for it: a burst spreads over the threads.
            wakeAnother = count_ > 0 && sleepers_ > 0 && spinning_.load(std::memory_order_relaxed) == 0;
        }
        if (wakeAnother) wake_.notify_one();
        busy_.fetch_add(1, std::memory_order_relaxed);
        job.function(job.argument);
        runNextJobs(self);
        busy_.fetch_sub(1, std::memory_order_relaxed);
    }
}

void ThreadPool::runNextJobs(Worker& self) {
    for (int streak = 0;; ++streak) {
        // A job that ran a nested executor restores this one; the task context is per job.
        detail::setCurrentExecutor(this);
        detail::setCurrentContext(nullptr);
        if (!self.hasNext) return;
        Job next = self.next;
        self.hasNext = false;
        if (streak == slotStreak) {
            postShared(next);
            return;
        }
        next.function(next.argument);
    }
}

}  // namespace orvel::async
