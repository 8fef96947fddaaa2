#pragma once
#include "async/Executor.h"

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
// Whoever is idle does the waiting: there is no event thread and no timer thread. One idle
// worker, the watcher, sleeps in epoll_wait on the pool's reactor, where the event sources are
// registered edge-triggered (each socket pool's epoll descriptor, the timer service's timerfd)
// beside an eventfd that posts from outside the pool use to wake it. The other idle workers
// stand by on an epoll of their own. The watcher runs the ready() of what it wakes for, which
// resumes tasks by posting them: the first lands in that worker's own next-job slot and runs
// right after, on the same thread (no hand-off in the common case), the rest go to the shared
// queue.
//
// Work stays on one thread while one thread keeps up with it. A worker that queues jobs goes on
// with them itself, and the watcher that leaves the reactor to run what it woke goes back to it
// when done; an idle worker is woken for them only if they are still waiting a millisecond
// later (a timerfd in the reactor while the watcher is there, one in the standby epoll while
// the reactor is left unwatched). A standby worker woken that way takes the queued jobs or the
// reactor; if the watcher has been back to the reactor and left it again since, the newer
// absence gets its own millisecond first. So a task that blocks or computes holds only its own
// worker and its slot: within two milliseconds another worker watches every socket and timer
// and takes the queue.
//
// Waking a sleeping thread costs more than most jobs, so the pool avoids it where it can:
// - a job posted by a worker goes to that worker's own next-job slot (a chain of resumptions, as
//   a message passing from task to task, stays on one warm thread);
// - a post from outside the pool wakes a sleeper only when no wake is on its way;
// - events and queued jobs wake nobody else unless they wait a millisecond (above): while one
//   core keeps up, the others sleep, as a single-threaded server's would;
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
    void stop() noexcept;  // ends the workers and closes the descriptors
    void closeDescriptors() noexcept;
    void runNextJobs(Worker& worker);
    void postShared(Job job);
    // With mutex_ held: the eventfd the caller must write for the jobs queued (the watcher's, or
    // the standby's while the reactor is unwatched), or -1 when a wake already on its way will
    // take them, or when every worker is busy. The wake is then counted as on its way.
    int takeWakeTurn() noexcept;
    // With mutex_ held: a worker goes on with work an idle worker could share (queued jobs, or
    // the reactor it left); the idle one is woken in a millisecond unless that work is done
    // before (then disarmHelp).
    void armHelp() noexcept;
    void disarmHelp() noexcept;
    static void wake(int eventfd) noexcept;
    // Waits on the reactor (timeout as epoll_wait's) and runs the ready sources. The watcher
    // leaves the reactor, as far as the others know, as soon as it wakes.
    void waitForEvents(int timeoutMilliseconds, bool watcher) noexcept;
    // With the lock held and the caller counted in standbys_: sleeps on the standby epoll until
    // it is woken for work (which another worker may have taken by then) or the pool stops.
    void standBy(std::unique_lock<std::mutex>& lock) noexcept;
    bool pop(Job& job);  // with mutex_ held
    void push(Job job);  // with mutex_ held

    std::mutex mutex_;
    std::vector<Job> ring_;  // power-of-two ring buffer
    std::size_t head_ = 0;
    std::size_t count_ = 0;
    bool watched_ = false;       // a worker waits on the reactor, or is on its way there
    std::size_t standbys_ = 0;   // workers on the standby epoll, or on their way there
    std::uint64_t reactorLeaves_ = 0;  // how often a watcher has left the reactor
    bool wakePending_ = false;   // a wake written that the watcher has not returned with
    bool standbyWakePending_ = false;
    bool lateWakeArmed_ = false;     // for queued jobs, wakes the watcher
    bool standbyHelpArmed_ = false;  // while the reactor is unwatched, wakes a standby worker
    std::uint64_t leavesWhenArmed_ = 0;
    bool stopping_ = false;

    int reactor_ = -1;      // epoll descriptor
    int wake_ = -1;         // eventfd
    int lateWake_ = -1;     // timerfd
    int standby_ = -1;      // epoll descriptor
    int standbyWake_ = -1;  // eventfd
    int standbyHelp_ = -1;  // timerfd
    std::mutex sourcesMutex_;
    std::condition_variable sourceIdle_;
    std::unordered_map<std::uint64_t, EventSource*> sources_;
    std::uint64_t nextSourceId_ = 1;

    std::vector<std::thread> threads_;
};

}  // namespace orvel::async
