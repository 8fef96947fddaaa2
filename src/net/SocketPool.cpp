#include "net/SocketPool.h"

#include "async/Cancellation.h"
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
// With `lastHere` (the wait thread) the last one runs on the calling thread: the others are
// posted, so idle workers take them, and a lone ready descriptor wakes no worker.
void resumeChain(SocketWaiter* chain, Outcome outcome, bool lastHere = false) noexcept {
    while (chain) {
        auto* next = chain->next;
        chain->next = nullptr;
        if (lastHere && !next)
            chain->resumeHere(outcome);
        else
            chain->resume(outcome);
        chain = next;
    }
}

void push(SocketWaiter*& chain, SocketWaiter& waiter) noexcept {
    waiter.next = chain;
    chain = &waiter;
}

}  // namespace

// The blocking wait, on its own thread so that no executor thread ever blocks in the kernel.
// While the loop runs it waits on the queue and resumes the waiters of every batch straight
// from here: all but one are posted to their executors, and the last runs on this thread
// standing in for a worker of its pool, so a lone ready descriptor costs no hand-off at all
// (the loop task holds the pool, so nothing run here can destroy it). It stays in the wait while
// nobody waits (a new registration of a ready descriptor ends the wait), and when the loop is
// stopped or the queue fails it resumes the loop's own node and idles until the next run.
class SocketPool::WaitThread {
public:
    explicit WaitThread(SocketPool& pool) : pool_(pool), thread_([this] { main(); }) {
        const std::string name(dispatchQueueLabel.substr(0, 15));
        pthread_setname_np(thread_.native_handle(), name.c_str());
    }

    ~WaitThread() {
        exiting_.store(true, std::memory_order_release);
        started_.release();
        thread_.join();
    }

    // Runs the loop until stop(); then resumes `loop`, with `failure` set when the queue failed.
    void start(SocketWaiter& loop, std::exception_ptr& failure) {
        loop_ = &loop;
        failure_ = &failure;
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
        batch.reserve(2 * defaultMaxEvents);
        for (;;) {
            started_.acquire();
            if (exiting_.load(std::memory_order_acquire))
                return;
            while (!stopping_.load(std::memory_order_acquire)) {
                try {
                    pool_.queue_->getNotifications(batch);
                } catch (...) {
                    *failure_ = std::current_exception();
                    break;
                }
                pool_.resumeReadyWaiters(batch);
            }
            loop_->resume(Outcome::ready);
        }
    }

    SocketPool& pool_;
    std::counting_semaphore<> started_{0};
    std::atomic<bool> exiting_{false};
    std::atomic<bool> stopping_{false};
    SocketWaiter* loop_ = nullptr;  // published by the semaphore, like failure_
    std::exception_ptr* failure_ = nullptr;
    std::thread thread_;
};

// The loop task's suspension while the wait thread serves: until the task is cancelled (which
// stops the thread) or the queue fails.
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
        pool.waitThread_->start(node, failure);
        onCancel.emplace([this] { pool.waitThread_->stop(); });
        return node.commitSuspension();
    }
    void await_resume() {
        onCancel.reset();
        if (failure)
            std::rethrow_exception(failure);
        throw async::CancellationError();
    }
};

std::shared_ptr<SocketPool> SocketPool::make(int maxEvents, Logger logger) {
    auto queue = std::make_unique<EPoll>(maxEvents, logger, EPoll::Mode::dispatch);
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

Socket::Events SocketPool::eventsOn(const Table& table, Socket::FileDescriptor file) noexcept {
    Socket::Events events;
    const auto index = static_cast<std::size_t>(file.rawValue);
    if (index < table.byFile.size())
        for (auto* waiter = table.byFile[index]; waiter; waiter = waiter->next)
            events.insert(waiter->events);
    return events;
}

void SocketPool::link(Table& table, SocketWaiter& waiter) {
    const auto index = static_cast<std::size_t>(waiter.file.rawValue);
    if (index >= table.byFile.size())
        table.byFile.resize(std::max(index + 1, table.byFile.size() * 2), nullptr);
    auto*& head = table.byFile[index];
    waiter.previous = nullptr;
    waiter.next = head;
    if (head)
        head->previous = &waiter;
    head = &waiter;
    waiter.linked = true;
    ++table.count;
}

void SocketPool::unlink(Table& table, SocketWaiter& waiter) noexcept {
    auto*& head = table.byFile[static_cast<std::size_t>(waiter.file.rawValue)];
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
    assert(waiter.file.rawValue >= 0);
    table_.withLock([&](Table& table) {
        if (table.state != State::ready && table.state != State::running)
            throw Error("Not Ready");
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
}

void SocketPool::cancel(SocketWaiter& waiter) noexcept {
    const bool removed = table_.withLock([&](Table& table) {
        if (!waiter.linked)
            return false;
        unlink(table, waiter);
        unregister(table, waiter.file, waiter.events);
        return true;
    });
    if (removed)
        waiter.resume(Outcome::cancelled);
}

void SocketPool::descriptorWillClose(Socket::FileDescriptor file) noexcept {
    SocketWaiter* chain = nullptr;
    table_.withLock([&](Table& table) {
        const auto index = static_cast<std::size_t>(file.rawValue);
        if (file.rawValue < 0 || index >= table.byFile.size())
            return;
        Socket::Events released;
        while (auto* waiter = table.byFile[index]) {
            released.insert(waiter->events);
            unlink(table, *waiter);
            push(chain, *waiter);
        }
        unregister(table, file, released);
    });
    resumeChain(chain, Outcome::disconnected);
}

void SocketPool::resumeReadyWaiters(const std::vector<EventNotification>& notifications) noexcept {
    SocketWaiter* ready = nullptr;
    SocketWaiter* failed = nullptr;
    table_.withLock([&](Table& table) {
        const bool rearm = queue_->disarmsOnDelivery();
        if (rearm)
            queue_->delivered(notifications);
        for (const auto& notification : notifications) {
            const auto index = static_cast<std::size_t>(notification.file.rawValue);
            if (notification.file.rawValue < 0 || index >= table.byFile.size())
                continue;
            Socket::Events released;
            for (auto* waiter = table.byFile[index]; waiter;) {
                auto* next = waiter->next;
                if (!(waiter->events & notification.events).empty()) {
                    released.insert(waiter->events);
                    unlink(table, *waiter);
                    push(notification.errors.empty() ? ready : failed, *waiter);
                }
                waiter = next;
            }
            if (!released.empty() && !rearm)
                unregister(table, notification.file, released);
        }
        if (!rearm)
            return;
        // The reported descriptors are disarmed: arm again what their remaining waiters need.
        for (std::size_t i = 0; i < notifications.size(); ++i) {
            const auto file = notifications[i].file;
            bool seen = false;
            for (std::size_t j = 0; j < i && !seen; ++j)
                seen = notifications[j].file == file;
            const auto remaining = seen ? Socket::Events() : eventsOn(table, file);
            if (remaining.empty())
                continue;
            try {
                queue_->addEvents(remaining, file);
            } catch (const std::exception& error) {
                logger_->logError([&] { return std::string("resumeContinuation queue.addEvents: ") + error.what(); });
                // Nothing would wake them now: they learn it as a failed descriptor.
                while (auto* waiter = table.byFile[static_cast<std::size_t>(file.rawValue)]) {
                    unlink(table, *waiter);
                    push(failed, *waiter);
                }
            }
        }
    });
    resumeChain(failed, Outcome::disconnected);
    resumeChain(ready, Outcome::ready, true);
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
        for (auto& head : table.byFile)
            while (auto* waiter = head) {
                unlink(table, *waiter);
                push(chain, *waiter);
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
    if (!waitThread_)
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
