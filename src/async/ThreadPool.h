#pragma once
#include "async/Executor.h"

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <thread>
#include <vector>

namespace orvel::async {

// The cooperative executor: a fixed set of threads sharing one queue of jobs. A job is a
// function and an argument (a coroutine resumption or a serial executor's drain), so posting never
// allocates once the queue has grown.
//
// Waking a sleeping thread costs more than most jobs, so the pool avoids it where it can:
// - a job posted by a worker goes to that worker's own next-job slot and runs as soon as the
//   current job returns, on the same thread, without waking anyone (a chain of resumptions, as a
//   message passing from task to task, stays on one warm thread);
// - a worker out of work spins a few microseconds before it sleeps, and a post wakes a sleeper
//   only when nobody is spinning.
// Jobs must not block waiting for another job: the one in the slot would wait with them.
class ThreadPool final : public Executor {
public:
    using JobFunction = void (*)(void*);

    explicit ThreadPool(std::size_t threadCount);
    ~ThreadPool();
    ThreadPool(const ThreadPool&) = delete;
    ThreadPool& operator=(const ThreadPool&) = delete;

    // The process-wide pool, one thread per core (at least two). It lives until the process ends.
    static ThreadPool& shared();

    void schedule(std::coroutine_handle<> coroutine) override;
    void resumeHere(std::coroutine_handle<> coroutine) override;
    void post(JobFunction function, void* argument);
    // Runs a job on the calling thread as if it were one of the workers, so that what the job
    // posts runs here right after it instead of waking a sleeping worker. For threads whose only
    // business is handing work to the pool (the timer thread, the socket pool's wait).
    void runHere(JobFunction function, void* argument);

    std::size_t threadCount() const noexcept { return threads_.size(); }
    // True on one of this pool's worker threads.
    bool isWorkerThread() const noexcept;

private:
    struct Job {
        JobFunction function;
        void* argument;
    };

    struct Worker;
    static thread_local Worker* currentWorker_;

    void work();
    void runNextJobs(Worker& worker);
    void postShared(Job job);
    bool pop(Job& job);  // with mutex_ held
    void push(Job job);  // with mutex_ held

    std::mutex mutex_;
    std::condition_variable wake_;
    std::vector<Job> ring_;  // power-of-two ring buffer
    std::size_t head_ = 0;
    std::size_t count_ = 0;
    std::size_t sleepers_ = 0;
    bool stopping_ = false;
    std::atomic<std::size_t> pending_{0};
    std::atomic<std::size_t> busy_{0};      // workers running a job
    std::atomic<std::size_t> spinning_{0};  // workers looking for work before they sleep
    std::vector<std::thread> threads_;
};

}  // namespace orvel::async
