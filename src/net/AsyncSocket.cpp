#include "net/AsyncSocket.h"

#include "async/Cancellation.h"
#include "net/OwnedDescriptor.h"
#include "net/Timeout.h"

#include <algorithm>
#include <cerrno>

namespace orvel::net {

namespace {

constexpr std::size_t maxReadSize = 4096;
using Status = Socket::IOResult::Status;
using Event = Socket::Event;

// A listener waits on both events. A constant: g++ 12 cannot keep an initializer list's array in
// a coroutine frame.
constexpr Socket::Events readOrWrite{Event::read, Event::write};

// The accepted descriptor (non-blocking), or -1 when the listener would block. Outside the
// coroutine so that the address record, an array, never becomes a frame variable.
Socket::FileDescriptor tryAccept(const Socket& listener, std::optional<Socket::Address>* peer) {
    const auto result = listener.tryAccept(true);
    if (result.status == Status::done) {
        if (peer) {
            try {
                *peer = makeAddress(result.accepted.address);
            } catch (const SocketError&) {
                peer->reset();  // a family we cannot name: whoever needs it asks the socket
            }
        }
        return result.accepted.file;
    }
    if (result.status == Status::blocked)
        return Socket::FileDescriptor{-1};
    // The listener was closed under us: the same as a descriptor that is no longer valid.
    if (result.errnoValue == EBADF)
        throw SocketError::disconnected();
    throw SocketError::failed("Accept", result.errnoValue);
}

}  // namespace

AsyncSocket::AsyncSocket(Socket socket, Pool pool)
    : socket_(socket), pool_(std::move(pool)), generation_(pool_->descriptorGeneration(socket.file)) {
    socket_.setFlags(Socket::Flags::nonBlocking);
}

namespace {
// Closes a descriptor its pool may hold a registration for, through the pool, unless released.
class PoolOwnedDescriptor {
public:
    PoolOwnedDescriptor(int fd, AsyncSocketPool& pool) noexcept : owner_(fd), pool_(pool) {}
    PoolOwnedDescriptor(PoolOwnedDescriptor&&) = delete;
    ~PoolOwnedDescriptor() {
        if (owner_)
            pool_.descriptorWillClose(Socket::FileDescriptor{owner_.get()});
    }
    void release() noexcept { owner_.release(); }

private:
    OwnedDescriptor owner_;
    AsyncSocketPool& pool_;
};
}  // namespace

async::Task<AsyncSocket> AsyncSocket::connected(AnySocketAddress address, Pool pool) {
    Socket made = Socket::make(address.family(), SocketType::stream);
    PoolOwnedDescriptor owner(made.file.rawValue, *pool);
    made.setFlags(Socket::Flags::nonBlocking);
    AsyncSocket socket(made, pool, Fresh{});  // the parameter keeps the pool alive for the owner
    // On failure or cancellation its waiter is gone already, and the owner closes the descriptor.
    co_await socket.connect(address);
    owner.release();
    co_return socket;
}

async::Task<AsyncSocket> AsyncSocket::connected(AnySocketAddress address, Pool pool, double timeoutSeconds) {
    co_return co_await withThrowingTimeout(timeoutSeconds, connected(address, std::move(pool)));
}

std::pair<AsyncSocket, AsyncSocket> AsyncSocket::makePair(Pool pool, SocketType type) {
    auto [first, second] = Socket::makeNonBlockingPair(type);
    return {AsyncSocket(first, pool, Fresh{}), AsyncSocket(second, std::move(pool), Fresh{})};
}

async::Task<AsyncSocket> AsyncSocket::accept(std::optional<Socket::Address>* peer) const {
    for (;;) {
        const auto accepted = tryAccept(socket_, peer);
        if (accepted.rawValue >= 0)
            co_return AsyncSocket(Socket(accepted), pool_, Fresh{});
        co_await pool_->suspendSocket(socket_, readOrWrite, generation_);
    }
}

async::Task<void> AsyncSocket::connect(AnySocketAddress address) const {
    try {
        socket_.connect(address);
        co_return;
    } catch (const SocketError& error) {
        if (error.kind() != SocketError::Kind::blocked)
            throw;
    }
    co_await pool_->suspendSocket(socket_, Event::write, generation_);
    socket_.connect(address);
}

async::Task<std::uint8_t> AsyncSocket::read() const {
    std::uint8_t byte = 0;
    co_await readAtMost(std::span<std::uint8_t>(&byte, 1));
    co_return byte;
}

async::Task<std::size_t> AsyncSocket::readAtMost(std::span<std::uint8_t> into) const {
    for (;;) {
        async::checkCancellation();
        const auto result = socket_.tryRead(into.data(), into.size());
        if (result.done())
            co_return result.count;
        if (!result.blocked())
            throw result.error("Read");
        co_await pool_->suspendSocket(socket_, Event::read, generation_);
    }
}

async::Task<std::vector<std::uint8_t>> AsyncSocket::readAtMost(std::size_t count) const {
    if (count == 0)
        co_return std::vector<std::uint8_t>();
    std::vector<std::uint8_t> bytes(std::min(count, maxReadSize));
    bytes.resize(co_await readAtMost(std::span<std::uint8_t>(bytes)));
    co_return bytes;
}

async::Task<std::vector<std::uint8_t>> AsyncSocket::readBytes(std::size_t count) const {
    // Grows as bytes arrive: the count is often the peer's word, and must not pin memory before
    // the peer has sent anything.
    std::vector<std::uint8_t> bytes;
    std::size_t collected = 0;
    while (collected < count) {
        bytes.resize(collected + std::min(count - collected, maxReadSize));
        collected += co_await readAtMost(std::span<std::uint8_t>(bytes).subspan(collected));
        bytes.resize(collected);
    }
    co_return bytes;
}

async::Task<void> AsyncSocket::write(std::span<const std::uint8_t> data) const {
    std::size_t index = 0;
    while (index < data.size()) {
        const auto result = socket_.tryWrite(data.data() + index, data.size() - index);
        if (result.done()) {
            index += result.count;
            continue;
        }
        if (!result.blocked())
            throw result.error("Write");
        co_await pool_->suspendSocket(socket_, Event::write, generation_);
    }
}

void AsyncSocket::close() const {
    pool_->descriptorWillClose(socket_.file);
    socket_.close();
}

async::Task<AsyncSocket::Message> AsyncSocket::receive(std::size_t atMost) const {
    Message message;
    for (;;) {
        const auto result = socket_.tryReceiveMessage(message, atMost);
        if (result.done())
            co_return message;
        // recvmsg's 0 ends a stream, but on a datagram socket it is an empty datagram (a closed
        // datagram peer never reads as 0), so it is a message. The type is asked only then.
        if (result.status == Status::disconnected && result.errnoValue == 0 &&
            socket_.getValue(socketTypeOption) == SOCK_DGRAM)
            co_return message;
        if (!result.blocked())
            throw result.error("RecvMsg");
        co_await pool_->suspendSocket(socket_, Event::read, generation_);
    }
}

async::Task<void> AsyncSocket::send(Message message) const {
    for (;;) {
        const auto result = socket_.trySend(message);
        if (result.done())
            co_return;
        if (!result.blocked())
            throw result.error("SendMsg");
        co_await pool_->suspendSocket(socket_, Event::write, generation_);
    }
}

async::Task<void> AsyncSocket::send(std::vector<std::uint8_t> bytes, AnySocketAddress to) const {
    for (;;) {
        const auto result = socket_.trySend(bytes, to);
        if (result.done())
            co_return;
        if (!result.blocked())
            throw result.error("SendTo");
        co_await pool_->suspendSocket(socket_, Event::write, generation_);
    }
}

AsyncSocketReadSequence AsyncSocket::bytes() const { return AsyncSocketReadSequence(*this); }
AsyncSocketSequence AsyncSocket::sockets() const { return AsyncSocketSequence(*this); }
AsyncSocketMessageSequence AsyncSocket::messages(std::size_t maxMessageLength) const {
    return AsyncSocketMessageSequence(*this, maxMessageLength);
}

AsyncSocketReadSequence::AsyncSocketReadSequence(AsyncSocket socket) : state_(std::make_shared<State>(std::move(socket))) {}

std::span<const std::uint8_t> AsyncSocketReadSequence::buffered() const noexcept {
    return {state_->buffer.get() + state_->begin, state_->end - state_->begin};
}

void AsyncSocketReadSequence::consume(std::size_t count) noexcept {
    state_->begin += std::min(count, state_->end - state_->begin);
}

async::Task<std::optional<std::uint8_t>> AsyncSocketReadSequence::next() {
    auto& state = *state_;
    if (state.begin == state.end) {
        if (!state.buffer)
            state.buffer = std::make_unique<std::uint8_t[]>(readSize);
        state.begin = 0;
        state.end = 0;
        state.end = co_await state.socket.readAtMost(std::span<std::uint8_t>(state.buffer.get(), readSize));
    }
    co_return state.buffer[state.begin++];
}

async::Task<std::optional<AsyncSocketReadSequence::Buffer>> AsyncSocketReadSequence::nextBuffer(std::size_t suggested) {
    auto& state = *state_;
    if (state.begin < state.end) {
        const auto count = std::min(suggested, state.end - state.begin);
        Buffer bytes(state.buffer.get() + state.begin, state.buffer.get() + state.begin + count);
        state.begin += count;
        co_return bytes;
    }
    co_return co_await state.socket.readAtMost(suggested);
}

async::Task<std::optional<AsyncSocket>> AsyncSocketSequence::next(std::optional<Socket::Address>* peer) {
    try {
        co_return co_await socket_.accept(peer);
    } catch (const SocketError& error) {
        if (error.kind() != SocketError::Kind::disconnected)
            throw;
    }
    co_return std::nullopt;
}

async::Task<std::optional<AsyncSocket::Message>> AsyncSocketMessageSequence::next() {
    co_return co_await socket_.receive(maxMessageLength_);
}

}  // namespace orvel::net
