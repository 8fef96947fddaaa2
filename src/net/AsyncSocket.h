#pragma once
#include "async/Task.h"
#include "net/AsyncSocketPool.h"
#include "net/Socket.h"
#include "net/SocketAddress.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <utility>
#include <vector>

namespace orvel::net {

class AsyncSocketReadSequence;
class AsyncSocketSequence;
class AsyncSocketMessageSequence;

// A non-blocking socket and the pool it waits on: every operation tries its system call and,
// when that would block, parks the task on the pool until the descriptor is ready, then tries
// again. A call that succeeds at once never touches the pool. Copies share the descriptor, which
// only close() closes. Any number of tasks may use different sockets; on one socket, one reader
// and one writer may run at once.
class AsyncSocket {
public:
    using Message = Socket::Message;
    using Pool = std::shared_ptr<AsyncSocketPool>;

    // Switches the descriptor to non-blocking (its status flags become exactly O_NONBLOCK);
    // "SetFlags" when that fails.
    AsyncSocket(Socket socket, Pool pool);

    // A stream socket of the address's family, connected.
    static async::Task<AsyncSocket> connected(AnySocketAddress address, Pool pool);
    // The same under a time limit: TimeoutError when it passes first (the attempt is cancelled
    // and its socket closed).
    static async::Task<AsyncSocket> connected(AnySocketAddress address, Pool pool, double timeoutSeconds);
    template <SocketAddress A>
        requires(!std::same_as<A, AnySocketAddress>)
    static async::Task<AsyncSocket> connected(const A& address, Pool pool) {
        return connected(AnySocketAddress(address), std::move(pool));
    }
    // A connected Unix-domain pair, both non-blocking, on one pool.
    static std::pair<AsyncSocket, AsyncSocket> makePair(Pool pool, SocketType type = SocketType::stream);

    const Socket& socket() const noexcept { return socket_; }
    const Pool& pool() const noexcept { return pool_; }

    // Waits until the descriptor is ready for one of `events` (for layers that run their own
    // try loop over socket()).
    SocketWait waitUntil(Socket::Events events) const noexcept { return pool_->suspendSocket(socket_, events, generation_); }

    // The next connection on a listening socket (waiting for read or write readiness); the
    // accepted socket is non-blocking. A closed listener gives SocketError::disconnected.
    // With `peer`, the peer's address as the accept reported it goes there (no need to ask later).
    async::Task<AsyncSocket> accept(std::optional<Socket::Address>* peer = nullptr) const;
    async::Task<void> connect(AnySocketAddress address) const;

    async::Task<std::uint8_t> read() const;
    // Exactly `count` bytes, read at most 4096 at a time; an empty result for 0. Cancellation is
    // checked before every attempt; on an error the bytes read so far are dropped.
    async::Task<std::vector<std::uint8_t>> readBytes(std::size_t count) const;
    // The bytes of one successful read of at most min(count, 4096).
    async::Task<std::vector<std::uint8_t>> readAtMost(std::size_t count) const;
    // One successful read into `into`; returns the count (at least 1 unless `into` is empty).
    async::Task<std::size_t> readAtMost(std::span<std::uint8_t> into) const;
    // Every byte, from the caller's memory without copying; the memory must outlive the call.
    async::Task<void> write(std::span<const std::uint8_t> data) const;

    // Wakes tasks parked on this descriptor (with disconnected), then closes it; "Close" when
    // close fails.
    void close() const;

    async::Task<Message> receive(std::size_t atMost) const;
    async::Task<void> send(Message message) const;
    async::Task<void> send(std::vector<std::uint8_t> bytes, AnySocketAddress to) const;

    AsyncSocketReadSequence bytes() const;
    AsyncSocketSequence sockets() const;
    AsyncSocketMessageSequence messages(std::size_t maxMessageLength = 1500) const;

    friend bool operator==(const AsyncSocket& a, const AsyncSocket& b) noexcept { return a.socket_ == b.socket_; }

private:
    // A descriptor just made, already non-blocking.
    struct Fresh {};
    AsyncSocket(Socket socket, Pool pool, Fresh) noexcept
        : socket_(socket), pool_(std::move(pool)), generation_(pool_->descriptorOpened(socket.file)) {}

    Socket socket_;
    Pool pool_;
    // Which socket holding this number the copies share: once it has closed, their waits end as
    // disconnected even after the number was handed to another socket.
    std::uint32_t generation_;
};

// The bytes of a connection. next() serves single bytes from a buffer filled up to 4096 bytes
// per read, and nextBuffer() hands out what is buffered before it reads again, so a reader that
// stops in the middle of the buffer (at the end of a line) leaves the rest for the next. Copies
// share the buffer; read a connection through one sequence (AsyncSocket::read does not see
// bytes buffered here). Used by one task at a time. Errors, disconnected included, are raised.
class AsyncSocketReadSequence {
public:
    using Buffer = std::vector<std::uint8_t>;
    static constexpr std::size_t readSize = 4096;

    explicit AsyncSocketReadSequence(AsyncSocket socket);

    const AsyncSocket& socket() const noexcept { return state_->socket; }

    async::Task<std::optional<std::uint8_t>> next();
    async::Task<std::optional<Buffer>> nextBuffer(std::size_t suggested);

    // Bytes already read and not yet taken, and taking some of them: a parser can scan them in
    // place, without a suspension per byte.
    std::span<const std::uint8_t> buffered() const noexcept;
    void consume(std::size_t count) noexcept;

private:
    struct State {
        explicit State(AsyncSocket socket) : socket(std::move(socket)) {}
        AsyncSocket socket;
        std::unique_ptr<std::uint8_t[]> buffer;
        std::size_t begin = 0;
        std::size_t end = 0;
    };
    std::shared_ptr<State> state_;
};

// The connections of a listening socket; ends (returns nothing) when accepting raises
// disconnected, as after the listener was closed. Other errors are raised.
class AsyncSocketSequence {
public:
    explicit AsyncSocketSequence(AsyncSocket socket) : socket_(std::move(socket)) {}
    const AsyncSocket& socket() const noexcept { return socket_; }
    async::Task<std::optional<AsyncSocket>> next(std::optional<Socket::Address>* peer = nullptr);

private:
    AsyncSocket socket_;
};

// The datagrams of a socket, each at most `maxMessageLength` bytes (an empty datagram is a
// message too). It has no quiet end: like receive(), it raises the socket's error, disconnected
// included, and the consumer decides what that means.
class AsyncSocketMessageSequence {
public:
    AsyncSocketMessageSequence(AsyncSocket socket, std::size_t maxMessageLength)
        : socket_(std::move(socket)), maxMessageLength_(maxMessageLength) {}
    const AsyncSocket& socket() const noexcept { return socket_; }
    std::size_t maxMessageLength() const noexcept { return maxMessageLength_; }
    async::Task<std::optional<AsyncSocket::Message>> next();

private:
    AsyncSocket socket_;
    std::size_t maxMessageLength_;
};

}  // namespace orvel::net
