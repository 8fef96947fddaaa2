#pragma once
#include "async/SerialExecutor.h"
#include "async/ThreadPool.h"
#include "async/Task.h"
#include "net/AsyncSocketPool.h"
#include "net/EventQueue.h"
#include "net/Logging.h"
#include "net/Mutex.h"
#include "net/Poll.h"

#include <cstdint>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace orvel::net {

// The event loop: while run() runs, the pool resumes the tasks parked on descriptors that became
// ready. prepare() and run() are serialised on the pool's own serial executor. Over epoll the
// pool has no thread: its epoll descriptor is one of the thread pool's event sources, so an idle
// worker waits on it and, when it wakes, takes the notifications without blocking and posts the
// ready waiters (the first runs next on that worker). Over a queue without a pollable descriptor
// one thread per pool (named "orvel.pool": a Linux thread name holds 15 bytes) does the blocking
// wait and only posts. Registrations over epoll are edge-triggered and kept for the life of the
// descriptor: a wait must follow an attempt that would block (the retry rule), and readiness
// that arrives while nobody waits is kept for the next waiter. The waiting table is guarded by a
// Mutex; a waiter's node lives in its own frame. Made and shared as std::shared_ptr; a running
// loop keeps its pool alive.
class SocketPool final : public AsyncSocketPool,
                         public std::enable_shared_from_this<SocketPool>,
                         private async::ThreadPool::EventSource {
    struct Passkey {};

public:
    enum class State { ready, running, complete };

    class Error final : public async::Error {
    public:
        explicit Error(std::string text) : async::Error(std::move(text)) {}
    };

    static constexpr std::string_view dispatchQueueLabel = "orvel.socketpool";
    static constexpr int defaultMaxEvents = 20;

    // Over epoll in dispatch mode, at most `maxEvents` descriptors per wait (the system uses 20).
    static std::shared_ptr<SocketPool> make(int maxEvents = defaultMaxEvents, Logger logger = defaultLogger("SocketPool"));
    // Over poll(2), waiting at most `interval` per wait.
    static std::shared_ptr<SocketPool> poll(Poll::Interval interval, Logger logger = defaultLogger("SocketPool"));
    // Over any queue (tests use a scripted one).
    static std::shared_ptr<SocketPool> withQueue(std::unique_ptr<EventQueue> queue, Logger logger);

    SocketPool(Passkey, std::unique_ptr<EventQueue> queue, Logger logger);
    ~SocketPool() override;

    // Opens the queue; the pool is then ready: waiters are taken and run() may start.
    async::Task<void> prepare() override;
    // The loop, until its task is cancelled or the queue fails; then every waiter is resumed with
    // a cancellation error, the queue closed and the pool complete, and the error is raised. Fails
    // with "Not Ready" unless the pool is ready.
    async::Task<void> run() override;
    void descriptorWillClose(Socket::FileDescriptor file) noexcept override;
    std::uint32_t descriptorGeneration(Socket::FileDescriptor file) const noexcept override;
    std::uint32_t descriptorOpened(Socket::FileDescriptor file) noexcept override;

    std::optional<State> state() const;
    // Parked tasks.
    std::size_t waitingCount() const;
    const EventQueue& queue() const noexcept { return *queue_; }

protected:
    void park(SocketWaiter& waiter) override;
    void cancel(SocketWaiter& waiter) noexcept override;

private:
    // What the pool knows of one descriptor number.
    struct Slot {
        SocketWaiter* waiters = nullptr;  // a linked list
        std::uint32_t generation = 0;     // counts the sockets that held the number
        Socket::Events ready;             // kept registrations: readiness nobody has waited for yet
    };
    struct Table {
        std::optional<State> state;
        std::vector<Slot> byFile;
        std::size_t count = 0;
    };
    class WaitThread;
    struct LoopWait;

    static Slot& slot(Table& table, Socket::FileDescriptor file);
    static Socket::Events eventsOn(const Table& table, Socket::FileDescriptor file) noexcept;
    static void link(Table& table, SocketWaiter& waiter);
    static void unlink(Table& table, SocketWaiter& waiter) noexcept;
    // Unregisters what no remaining waiter on `file` needs; a failure is logged, not raised.
    void unregister(const Table& table, Socket::FileDescriptor file, Socket::Events released) noexcept;
    // Unlinks the waiters a batch wakes, with the table's lock held.
    void collect(Table& table, const std::vector<EventNotification>& notifications, SocketWaiter*& ready,
                 SocketWaiter*& failed) noexcept;
    void resumeReadyWaiters(const std::vector<EventNotification>& notifications) noexcept;
    // On a pool worker, when the queue's descriptor changed: takes every ready notification.
    void ready() noexcept override;
    // Resumes the loop task once, with the queue's failure if there was one.
    void endLoop(std::exception_ptr failure) noexcept;
    void cancelAll() noexcept;
    // Unlinks the number's waiters (returned as a chain), drops its registration and readiness,
    // and starts a new generation. With the table's lock held.
    SocketWaiter* retire(Table& table, Socket::FileDescriptor file, bool closedAlready) noexcept;

    std::unique_ptr<EventQueue> queue_;
    Logger logger_;
    async::SerialExecutor executor_;
    Mutex<Table> table_;
    std::unique_ptr<WaitThread> waitThread_;
    // Under the table's lock: the loop task's node while it serves, and where its failure goes.
    SocketWaiter* loop_ = nullptr;
    std::exception_ptr* loopFailure_ = nullptr;
    std::vector<EventNotification> batch_;  // under the table's lock
};

}  // namespace orvel::net
