#pragma once
#include "async/Cancellation.h"
#include "async/Executor.h"
#include "async/Task.h"
#include "async/detail/Suspension.h"
#include "net/Socket.h"

#include <coroutine>
#include <cstdint>
#include <optional>

namespace orvel::net {

class AsyncSocketPool;

// One task parked until a descriptor is ready. The node lives in the waiting coroutine's frame
// (inside SocketWait), so parking allocates nothing; while parked it is linked into its pool's
// table, which only the pool touches (under its lock).
class SocketWaiter {
public:
    enum class Outcome : std::uint8_t { ready, disconnected, cancelled };

    // Any generation: the waiter does not know which socket held the number when it asked.
    static constexpr std::uint32_t anyGeneration = ~std::uint32_t{0};

    Socket::FileDescriptor file;
    Socket::Events events;
    std::uint32_t generation = anyGeneration;  // of the descriptor number, when the socket was made

    // The pool's links.
    SocketWaiter* next = nullptr;
    SocketWaiter* previous = nullptr;
    bool linked = false;

    // Prepares the resumption of `handle` on the executor it runs on.
    void prepare(std::coroutine_handle<> handle) noexcept {
        outcome_ = Outcome::ready;
        suspension_.prepare(handle);
    }
    // True when the task stays suspended; false when it was resumed while still setting up
    // (it then goes on by itself, nothing was posted).
    bool commitSuspension() noexcept { return suspension_.commit(); }
    // Resumes the task with `outcome`: exactly once, from any thread, by posting it to its
    // executor. The node must not be touched afterwards.
    void resume(Outcome outcome) noexcept {
        outcome_ = outcome;
        suspension_.resume();
    }
    Outcome outcome() const noexcept { return outcome_; }

private:
    Outcome outcome_ = Outcome::ready;
    async::detail::Suspension suspension_;
};

// `co_await pool.suspendSocket(socket, events)`: returns once the descriptor is reported ready
// for one of `events`; throws SocketError::disconnected when it is reported with an error (or
// closed through the pool), async::CancellationError when the task is cancelled, and the pool's
// error when the pool takes no waiters.
class SocketWait {
public:
    SocketWait(AsyncSocketPool& pool, Socket::FileDescriptor file, Socket::Events events,
               std::uint32_t generation = SocketWaiter::anyGeneration) noexcept
        : pool_(&pool) {
        waiter_.file = file;
        waiter_.events = events;
        waiter_.generation = generation;
    }
    // Moved only before it suspends.
    SocketWait(SocketWait&& other) noexcept
        : SocketWait(*other.pool_, other.waiter_.file, other.waiter_.events, other.waiter_.generation) {}

    bool await_ready() const noexcept { return false; }
    bool await_suspend(std::coroutine_handle<> handle);
    void await_resume();

private:
    AsyncSocketPool* pool_;
    SocketWaiter waiter_;
    std::optional<async::CancellationHandler> onCancel_;
    bool cancelledEarly_ = false;
};

// The event loop tasks park on when a non-blocking socket would block. prepare() once, then
// run() drives the loop for as long as the pool serves (cancel the task running it to stop);
// any task may park meanwhile. Shared by its sockets as std::shared_ptr<AsyncSocketPool>.
class AsyncSocketPool {
public:
    virtual ~AsyncSocketPool() = default;

    virtual async::Task<void> prepare() = 0;
    virtual async::Task<void> run() = 0;

    SocketWait suspendSocket(Socket socket, Socket::Events events) noexcept { return SocketWait(*this, socket.file, events); }
    // The same for the socket that held the number at `generation`: once that socket has been
    // closed (through descriptorWillClose) the wait ends as disconnected, whoever holds the
    // number now.
    SocketWait suspendSocket(Socket socket, Socket::Events events, std::uint32_t generation) noexcept {
        return SocketWait(*this, socket.file, events, generation);
    }

    // The generation of a descriptor number: it changes when the number's socket closes through
    // the pool, or when a new descriptor gets the number (descriptorOpened). Pools that do not
    // track them answer anyGeneration.
    virtual std::uint32_t descriptorGeneration(Socket::FileDescriptor) const noexcept { return SocketWaiter::anyGeneration; }
    // Call with a descriptor just made (accepted, connected, paired): whatever the pool still held
    // for its number belonged to a socket closed behind its back, and is dropped.
    virtual std::uint32_t descriptorOpened(Socket::FileDescriptor file) noexcept { return descriptorGeneration(file); }

    // Call before closing a descriptor tasks may be waiting on: wakes them with disconnected and
    // drops its registrations while the number still belongs to it (after close it may name a
    // new socket, and epoll forgets a closed descriptor without waking anyone).
    virtual void descriptorWillClose(Socket::FileDescriptor file) noexcept = 0;

protected:
    friend class SocketWait;
    // Links the waiter and registers its events; throws when the pool takes no waiters.
    virtual void park(SocketWaiter& waiter) = 0;
    // Unlinks the waiter when it is still parked and resumes it as cancelled; else nothing.
    virtual void cancel(SocketWaiter& waiter) noexcept = 0;
};

}  // namespace orvel::net
