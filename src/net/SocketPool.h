#pragma once
#include "async/SerialExecutor.h"
#include "async/Task.h"
#include "net/AsyncSocketPool.h"
#include "net/EventQueue.h"
#include "net/Logging.h"
#include "net/Mutex.h"
#include "net/Poll.h"

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace orvel::net {

// The event loop: while run() runs, the pool waits on an event queue and resumes the tasks
// parked on descriptors that became ready. prepare() and run() are serialised on the pool's own
// serial executor. The blocking wait runs on one thread per pool (named "orvel.socketpool", cut
// to the kernel's 15 bytes), which resumes the ready waiters by posting each to its own
// executor and never runs task code. The waiting table is guarded by a Mutex, so parking and
// waking cost no executor hop and a wake-up is one hand-off; a waiter's node lives in its own
// frame. Made and shared as std::shared_ptr; a running loop keeps its pool alive.
class SocketPool final : public AsyncSocketPool, public std::enable_shared_from_this<SocketPool> {
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

    std::optional<State> state() const;
    // Parked tasks.
    std::size_t waitingCount() const;
    const EventQueue& queue() const noexcept { return *queue_; }

protected:
    void park(SocketWaiter& waiter) override;
    void cancel(SocketWaiter& waiter) noexcept override;

private:
    struct Table {
        std::optional<State> state;
        std::vector<SocketWaiter*> byFile;  // waiters per descriptor number, a linked list each
        std::size_t count = 0;
    };
    class WaitThread;
    struct LoopWait;

    static Socket::Events eventsOn(const Table& table, Socket::FileDescriptor file) noexcept;
    static void link(Table& table, SocketWaiter& waiter);
    static void unlink(Table& table, SocketWaiter& waiter) noexcept;
    // Unregisters what no remaining waiter on `file` needs; a failure is logged, not raised.
    void unregister(const Table& table, Socket::FileDescriptor file, Socket::Events released) noexcept;
    void resumeReadyWaiters(const std::vector<EventNotification>& notifications) noexcept;
    void cancelAll() noexcept;

    std::unique_ptr<EventQueue> queue_;
    Logger logger_;
    async::SerialExecutor executor_;
    Mutex<Table> table_;
    std::unique_ptr<WaitThread> waitThread_;
};

}  // namespace orvel::net
