#pragma once
#include "async/Executor.h"

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

namespace orvel::async {

// The cooperative executor: a fixed set of worker threads sharing one queue of jobs, and the
// one place where the process waits for events. A job is a function and an argument (a
// coroutine resumption or a serial executor's drain), so posting never allocates once the queue
// has grown.
//
// Whoever is idle does the waiting: there is no event thread and no timer thread. A worker out
// of jobs sleeps in epoll_wait on the pool's reactor, where the event sources are registered
// edge-triggered (each socket pool's epoll descriptor, the timer service's timerfd) beside an
// eventfd that posts from anywhere use to wake a sleeper. The kernel wakes one sleeper per
// event; it runs the source's ready() there, which resumes the tasks it wakes by posting them:
// the first lands in that worker's own next-job slot and runs right after, on the same thread
// (no hand-off in the common case), the rest go to the shared queue. A worker that queues jobs
// goes on with them itself; a sleeper is woken for them only if they are still there a
// millisecond later (a timerfd in the reactor, disarmed when the queue runs dry), so a batch of
// small jobs costs no second thread. So a task that blocks or computes holds only its own worker
// and its slot: the others keep waiting on the reactor for every socket and timer and take the
// queue within a millisecond.
//
// Waking a sleeping thread costs more than most jobs, so the pool avoids it where it can:
// - a job posted by a worker goes to that worker's own next-job slot (a chain of resumptions, as
//   a message passing from task to task, stays on one warm thread);
// - a worker out of work spins a few microseconds before it sleeps (one at a time), and a post
//   from outside the pool wakes a sleeper only when nobody is spinning and no wake is on its way;
// - jobs a worker queues wake nobody unless they wait a millisecond (above);
// - a worker that never runs out of jobs still looks at the reactor, without waiting, every few
//   dozen jobs, so events are never starved by a busy pool.
// Jobs must not block waiting for another job: the one in the slot would wait with them.
class ThreadPool final : public Executor {
public:
    using JobFunction = void (*)(void*);

    // Something the idle workers wait on. ready() runs on the worker that saw the descriptor
    // change (possibly on two workers at once), must not block, and only posts task code.
    class EventSource {
    public:
        virtual void ready() noexcept = 0;

    protected:
        ~EventSource() = default;

    private:
        friend class ThreadPool;
        std::uint64_t id_ = 0;
        int fd_ = -1;
        unsigned running_ = 0;  // ready() calls in progress, under the pool's sources lock
    };

    explicit ThreadPool(std::size_t threadCount);
    ~ThreadPool();
    ThreadPool(const ThreadPool&) = delete;
    ThreadPool& operator=(const ThreadPool&) = delete;

    // The process-wide pool, one thread per core (at least two). It lives until the process ends.
    static ThreadPool& shared();

    void schedule(std::coroutine_handle<> coroutine) override;
    void post(JobFunction function, void* argument);

    // Registers `fd` edge-triggered: ready() follows every change of its readiness (so it must
    // take everything the descriptor has each time). The registration's own readiness check
    // reports a descriptor already ready. Fails with std::system_error.
    void watch(int fd, EventSource& source);
    // Removes it; when this returns no ready() of the source runs or will run. Must not be
    // called from the source's own ready().
    void unwatch(EventSource& source) noexcept;

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
    // With mutex_ held: true when the caller must wake a sleeper (queued jobs, nobody spinning,
    // no wake on its way); the wake is then counted as on its way.
    bool takeWakeTurn() noexcept;
    // With mutex_ held: jobs are queued, a worker sleeps, and none is spinning or being woken.
    bool sleeperWanted() const noexcept;
    // With mutex_ held: a worker queued jobs; a sleeper is woken in a millisecond unless the
    // queue runs dry before (then disarmLateWake).
    void armLateWake() noexcept;
    void disarmLateWake() noexcept;
    void wakeSleeper() noexcept;
    void spinForJob(Worker& self) noexcept;
    // Waits on the reactor (timeout as epoll_wait's) and runs the ready sources. A worker counted
    // in sleepers_ is taken out of the count as soon as it wakes.
    void waitForEvents(int timeoutMilliseconds, bool countedAsSleeper) noexcept;
    bool pop(Job& job);  // with mutex_ held
    void push(Job job);  // with mutex_ held

    std::mutex mutex_;
    std::vector<Job> ring_;  // power-of-two ring buffer
    std::size_t head_ = 0;
    std::size_t count_ = 0;
    std::size_t sleepers_ = 0;  // workers in the reactor's wait, or on their way there
    bool wakePending_ = false;  // a wake written that no worker has returned from the reactor with
    bool lateWakeArmed_ = false;
    bool stopping_ = false;
    std::atomic<std::size_t> pending_{0};
    std::atomic<std::size_t> spinning_{0};  // workers looking for work before they sleep

    int reactor_ = -1;  // epoll descriptor
    int wake_ = -1;     // eventfd
    int lateWake_ = -1;  // timerfd
    std::mutex sourcesMutex_;
    std::condition_variable sourceIdle_;
    std::unordered_map<std::uint64_t, EventSource*> sources_;
    std::uint64_t nextSourceId_ = 1;

    std::vector<std::thread> threads_;
};

}  // namespace orvel::async
