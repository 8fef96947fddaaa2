#include "net/SocketPool.h"

#include "async/Cancellation.h"
#include "async/ThreadPool.h"
#include "net/EPoll.h"

#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <cassert>
#include <exception>
#include <semaphore>
#include <thread>

namespace orvel::net {

namespace {

using Outcome = SocketWaiter::Outcome;

// Resumes a chain of unlinked waiters (linked through `next`) once the table's lock is released.
// Each is posted to its executor: on a pool worker the first lands in the worker's own slot and
// runs right after, the others go to idle workers.
void resumeChain(SocketWaiter* chain, Outcome outcome) noexcept {
    while (chain) {
        auto* next = chain->next;
        chain->next = nullptr;
        chain->resume(outcome);
        chain = next;
    }
}

void push(SocketWaiter*& chain, SocketWaiter& waiter) noexcept {
    waiter.next = chain;
    chain = &waiter;
}

}  // namespace

// The blocking wait of a queue that has no pollable descriptor (poll(2), a test's queue), on a
// thread of its own so that no pool worker ever blocks in it. It only hands over: each ready
// waiter is posted to its executor, no task code runs here. It parks in the queue's wait while
// nobody waits (a new registration ends the wait), and when the loop is stopped or the queue
// fails it ends the loop and idles until the next run.
class SocketPool::WaitThread {
public:
    explicit WaitThread(SocketPool& pool) : pool_(pool), thread_([this] { main(); }) {
        pthread_setname_np(thread_.native_handle(), "orvel.pool");
    }

    ~WaitThread() {
        exiting_.store(true, std::memory_order_release);
        started_.release();
        thread_.join();
    }

    void start() {
        stopping_.store(false, std::memory_order_relaxed);
        started_.release();
    }

    // From any thread: ends the loop's current or next wait.
    void stop() noexcept {
        stopping_.store(true, std::memory_order_release);
        pool_.queue_->stop();
    }

private:
    void main() {
        // Every signal goes to other threads (a stop and continue still interrupts the wait; the
        // queue waits again).
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, nullptr);
        std::vector<EventNotification> batch;
        for (;;) {
            started_.acquire();
            if (exiting_.load(std::memory_order_acquire))
                return;
            std::exception_ptr failure;
            while (!stopping_.load(std::memory_order_acquire)) {
                try {
                    pool_.queue_->getNotifications(batch);
                } catch (...) {
                    failure = std::current_exception();
                    break;
                }
                pool_.resumeReadyWaiters(batch);
            }
            pool_.endLoop(failure);
        }
    }

    SocketPool& pool_;
    std::counting_semaphore<> started_{0};
    std::atomic<bool> exiting_{false};
    std::atomic<bool> stopping_{false};
    std::thread thread_;
};

// The loop task's suspension while the pool serves: until the task is cancelled or the queue
// fails.
struct SocketPool::LoopWait {
    SocketPool& pool;
    SocketWaiter node;
    std::exception_ptr failure;
    std::optional<async::CancellationHandler> onCancel;

    explicit LoopWait(SocketPool& pool) : pool(pool) {}
    LoopWait(LoopWait&& other) noexcept : pool(other.pool) {}

    bool await_ready() const noexcept { return false; }
    bool await_suspend(std::coroutine_handle<> handle) {
        node.prepare(handle);
        pool.table_.withLock([&](Table&) {
            pool.loop_ = &node;
            pool.loopFailure_ = &failure;
        });
        if (pool.waitThread_) {
            pool.waitThread_->start();
            onCancel.emplace([this] { pool.waitThread_->stop(); });
        } else {
            try {
                async::ThreadPool::shared().watch(pool.queue_->pollableDescriptor(), pool);
            } catch (...) {
                pool.endLoop(std::current_exception());
            }
            onCancel.emplace([this] { pool.endLoop(nullptr); });
        }
        return node.commitSuspension();
    }
    void await_resume() {
        onCancel.reset();
        if (!pool.waitThread_)
            async::ThreadPool::shared().unwatch(pool);  // no ready() runs after this
        if (failure)
            std::rethrow_exception(failure);
        throw async::CancellationError();
    }
};

void SocketPool::endLoop(std::exception_ptr failure) noexcept {
    SocketWaiter* loop = nullptr;
    table_.withLock([&](Table&) {
        loop = std::exchange(loop_, nullptr);
        if (loop && failure)
            *loopFailure_ = std::move(failure);
    });
    if (loop)
        loop->resume(Outcome::ready);
}

void SocketPool::ready() noexcept {
    for (bool more = true; more;) {
        more = false;
        SocketWaiter* ready = nullptr;
        SocketWaiter* failed = nullptr;
        std::exception_ptr failure;
        table_.withLock([&](Table& table) {
            if (table.state != State::running)
                return;
            try {
                more = queue_->getReadyNotifications(batch_);
            } catch (...) {
                failure = std::current_exception();
                return;
            }
            collect(table, batch_, ready, failed);
        });
        resumeChain(ready, Outcome::ready);
        resumeChain(failed, Outcome::disconnected);
        if (failure)
            endLoop(std::move(failure));
    }
}

std::shared_ptr<SocketPool> SocketPool::make(int maxEvents, Logger logger) {
    auto queue = std::make_unique<EPoll>(maxEvents, logger, EPoll::Mode::edgeTriggered);
    return withQueue(std::move(queue), std::move(logger));
}

std::shared_ptr<SocketPool> SocketPool::poll(Poll::Interval interval, Logger logger) {
    auto queue = std::make_unique<Poll>(interval, logger);
    return withQueue(std::move(queue), std::move(logger));
}

std::shared_ptr<SocketPool> SocketPool::withQueue(std::unique_ptr<EventQueue> queue, Logger logger) {
    return std::make_shared<SocketPool>(Passkey{}, std::move(queue), std::move(logger));
}

SocketPool::SocketPool(Passkey, std::unique_ptr<EventQueue> queue, Logger logger)
    : queue_(std::move(queue)), logger_(std::move(logger)) {}

SocketPool::~SocketPool() = default;

std::optional<SocketPool::State> SocketPool::state() const {
    return table_.withLock([](Table& table) { return table.state; });
}

std::size_t SocketPool::waitingCount() const {
    return table_.withLock([](Table& table) { return table.count; });
}

SocketPool::Slot& SocketPool::slot(Table& table, Socket::FileDescriptor file) {
    const auto index = static_cast<std::size_t>(file.rawValue);
    if (index >= table.byFile.size())
        table.byFile.resize(std::max(index + 1, table.byFile.size() * 2));
    return table.byFile[index];
}

Socket::Events SocketPool::eventsOn(const Table& table, Socket::FileDescriptor file) noexcept {
    Socket::Events events;
    const auto index = static_cast<std::size_t>(file.rawValue);
    if (index < table.byFile.size())
        for (auto* waiter = table.byFile[index].waiters; waiter; waiter = waiter->next)
            events.insert(waiter->events);
    return events;
}

void SocketPool::link(Table& table, SocketWaiter& waiter) {
    auto*& head = slot(table, waiter.file).waiters;
    waiter.previous = nullptr;
    waiter.next = head;
    if (head)
        head->previous = &waiter;
    head = &waiter;
    waiter.linked = true;
    ++table.count;
}

void SocketPool::unlink(Table& table, SocketWaiter& waiter) noexcept {
    auto*& head = table.byFile[static_cast<std::size_t>(waiter.file.rawValue)].waiters;
    if (waiter.previous)
        waiter.previous->next = waiter.next;
    else
        head = waiter.next;
    if (waiter.next)
        waiter.next->previous = waiter.previous;
    waiter.next = waiter.previous = nullptr;
    waiter.linked = false;
    --table.count;
}

void SocketPool::unregister(const Table& table, Socket::FileDescriptor file, Socket::Events released) noexcept {
    const auto events = released - eventsOn(table, file);
    if (events.empty())
        return;
    try {
        queue_->removeEvents(events, file);
    } catch (const std::exception& error) {
        logger_->logError([&] { return std::string("resumeContinuation queue.removeEvents: ") + error.what(); });
    }
}

void SocketPool::park(SocketWaiter& waiter) {
    // A closed socket's number, or one that was never valid: there is nothing to wait for.
    if (waiter.file.rawValue < 0) {
        waiter.resume(Outcome::disconnected);
        return;
    }
    auto settled = std::optional<Outcome>();
    table_.withLock([&](Table& table) {
        if (table.state != State::ready && table.state != State::running)
            throw Error("Not Ready");
        auto& entry = slot(table, waiter.file);
        // Closed since the socket was made: the number may belong to another socket by now.
        if (waiter.generation != SocketWaiter::anyGeneration && waiter.generation != entry.generation) {
            settled = Outcome::disconnected;
            return;
        }
        if (queue_->keepsRegistrations()) {
            // An edge that came while nobody waited: the caller's attempt may have raced it.
            if (const auto ready = entry.ready & waiter.events; !ready.empty()) {
                entry.ready = entry.ready - ready;
                settled = Outcome::ready;
                return;
            }
            link(table, waiter);
            try {
                queue_->addEvents(waiter.events, waiter.file);  // a call only when the interest grows
            } catch (...) {
                unlink(table, waiter);
                throw;
            }
            return;
        }
        const auto toRegister = waiter.events - eventsOn(table, waiter.file);
        link(table, waiter);
        if (!toRegister.empty()) {
            try {
                queue_->addEvents(toRegister, waiter.file);
            } catch (...) {
                unlink(table, waiter);
                throw;
            }
        }
    });
    if (settled)
        waiter.resume(*settled);
}

void SocketPool::cancel(SocketWaiter& waiter) noexcept {
    const bool removed = table_.withLock([&](Table& table) {
        if (!waiter.linked)
            return false;
        unlink(table, waiter);
        if (!queue_->keepsRegistrations())
            unregister(table, waiter.file, waiter.events);
        return true;
    });
    if (removed)
        waiter.resume(Outcome::cancelled);
}

SocketWaiter* SocketPool::retire(Table& table, Socket::FileDescriptor file, bool closedAlready) noexcept {
    SocketWaiter* chain = nullptr;
    auto& entry = table.byFile[static_cast<std::size_t>(file.rawValue)];
    ++entry.generation;
    entry.ready = {};
    Socket::Events released{Socket::Event::read, Socket::Event::write};
    if (!queue_->keepsRegistrations())
        released = eventsOn(table, file);
    while (auto* waiter = entry.waiters) {
        unlink(table, *waiter);
        push(chain, *waiter);
    }
    // Closed already, the kernel has dropped what it held for the old descriptor.
    if (closedAlready)
        queue_->forget(file);
    else if (table.state == State::ready || table.state == State::running)
        unregister(table, file, released);
    return chain;
}

void SocketPool::descriptorWillClose(Socket::FileDescriptor file) noexcept {
    if (file.rawValue < 0)
        return;
    SocketWaiter* chain = nullptr;
    try {
        table_.withLock([&](Table& table) {
            slot(table, file);
            chain = retire(table, file, false);
        });
    } catch (const std::bad_alloc&) {
        // The table could not grow to the number: nothing was ever registered for it.
    }
    resumeChain(chain, Outcome::disconnected);
}

std::uint32_t SocketPool::descriptorGeneration(Socket::FileDescriptor file) const noexcept {
    return table_.withLock([&](Table& table) {
        const auto index = static_cast<std::size_t>(file.rawValue);
        return file.rawValue >= 0 && index < table.byFile.size() ? table.byFile[index].generation : 0;
    });
}

std::uint32_t SocketPool::descriptorOpened(Socket::FileDescriptor file) noexcept {
    if (file.rawValue < 0)
        return 0;
    SocketWaiter* chain = nullptr;
    std::uint32_t generation = 0;
    try {
        table_.withLock([&](Table& table) {
            auto& entry = slot(table, file);
            // Common case: the number's last socket closed through the pool, nothing is left.
            if (entry.waiters || !entry.ready.empty() || queue_->isRegistered(file))
                chain = retire(table, file, true);
            generation = entry.generation;
        });
    } catch (const std::bad_alloc&) {
    }
    resumeChain(chain, Outcome::disconnected);
    return generation;
}

void SocketPool::collect(Table& table, const std::vector<EventNotification>& notifications, SocketWaiter*& ready,
                         SocketWaiter*& failed) noexcept {
    const bool keep = queue_->keepsRegistrations();
    for (const auto& notification : notifications) {
        const auto index = static_cast<std::size_t>(notification.file.rawValue);
        if (notification.file.rawValue < 0 || index >= table.byFile.size())
            continue;
        auto& entry = table.byFile[index];
        Socket::Events released;
        for (auto* waiter = entry.waiters; waiter;) {
            auto* next = waiter->next;
            if (!(waiter->events & notification.events).empty()) {
                released.insert(waiter->events);
                unlink(table, *waiter);
                push(notification.errors.empty() ? ready : failed, *waiter);
            }
            waiter = next;
        }
        if (keep)
            entry.ready.insert(notification.events - released);
        else if (!released.empty())
            unregister(table, notification.file, released);
    }
}

void SocketPool::resumeReadyWaiters(const std::vector<EventNotification>& notifications) noexcept {
    SocketWaiter* ready = nullptr;
    SocketWaiter* failed = nullptr;
    table_.withLock([&](Table& table) { collect(table, notifications, ready, failed); });
    resumeChain(ready, Outcome::ready);
    resumeChain(failed, Outcome::disconnected);
}

void SocketPool::cancelAll() noexcept {
    logger_->logInfo("SocketPoll cancelAll");
    SocketWaiter* chain = nullptr;
    table_.withLock([&](Table& table) {
        try {
            queue_->close();
        } catch (const std::exception& error) {
            logger_->logError([&] { return std::string("SocketPoll cancelAll queue.close: ") + error.what(); });
        }
        table.state = State::complete;
        for (auto& entry : table.byFile) {
            entry.ready = {};
            while (auto* waiter = entry.waiters) {
                unlink(table, *waiter);
                push(chain, *waiter);
            }
        }
    });
    resumeChain(chain, Outcome::cancelled);
    queue_->stop();
}

async::Task<void> SocketPool::prepare() {
    co_await executor_.enter();
    logger_->logInfo("SocketPoll prepare");
    table_.withLock([&](Table& table) {
        // Reopening under a live loop would pull the queue from under its wait.
        if (table.state == State::running)
            throw Error("Already Running");
        queue_->open();
        table.state = State::ready;
    });
}

async::Task<void> SocketPool::run() {
    const auto self = shared_from_this();
    co_await executor_.enter();
    table_.withLock([](Table& table) {
        if (table.state != State::ready)
            throw Error("Not Ready");
        table.state = State::running;
    });
    if (!waitThread_ && queue_->pollableDescriptor() < 0)
        waitThread_ = std::make_unique<WaitThread>(*this);
    std::exception_ptr failure;
    try {
        co_await LoopWait(*this);
    } catch (...) {
        failure = std::current_exception();
    }
    cancelAll();
    std::rethrow_exception(failure);
}

}  // namespace orvel::net
