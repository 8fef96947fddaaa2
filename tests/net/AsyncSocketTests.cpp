#include "net/AsyncSocket.h"
#include "net/Timeout.h"

#include "net/PoolTesting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>
#include <numeric>

using namespace orvel;
using namespace orvel::net;
using test::bytes;
using test::outcome;
using Bytes = std::vector<std::uint8_t>;

namespace {

Bytes pattern(std::size_t count) {
    Bytes data(count);
    std::iota(data.begin(), data.end(), std::uint8_t{0});
    return data;
}

// Closes a socket when the test ends, through the pool like AsyncSocket::close.
struct Closing {
    explicit Closing(AsyncSocket socket) : socket(std::move(socket)) {}
    ~Closing() { EXPECT_EQ(test::errorOf([&] { socket.close(); }), ""); }
    AsyncSocket socket;
};

async::Task<Bytes> readBytes(AsyncSocket socket, std::size_t count) { co_return co_await socket.readBytes(count); }
async::Task<Bytes> readAtMost(AsyncSocket socket, std::size_t count) { co_return co_await socket.readAtMost(count); }
async::Task<void> writeAll(AsyncSocket socket, Bytes data) { co_await socket.write(data); }
// Reads one byte, then blocks its thread until released (a minute at most): true when released.
async::Task<bool> readThenBlock(AsyncSocket socket, std::shared_future<void> released) {
    co_await socket.read();
    co_return released.wait_for(std::chrono::seconds(60)) == std::future_status::ready;
}

async::Task<void> echo(AsyncSocket socket, int count) {
    for (int i = 0; i < count; ++i) {
        const auto byte = co_await socket.read();
        co_await socket.write(std::span<const std::uint8_t>(&byte, 1));
    }
}

async::Task<void> waitToRead(AsyncSocket socket) { co_await socket.waitUntil(Socket::Event::read); }
async::Task<AsyncSocket> acceptOne(AsyncSocket listener) { co_return co_await listener.accept(); }
async::Task<std::optional<std::uint8_t>> nextByte(AsyncSocketReadSequence sequence) { co_return co_await sequence.next(); }
async::Task<AsyncSocket> connectTo(AnySocketAddress address, std::shared_ptr<SocketPool> pool) {
    co_return co_await AsyncSocket::connected(address, pool);
}

// Counts accepted connections until the sequence ends.
async::Task<int> acceptUntilEnd(AsyncSocket listener) {
    auto sequence = listener.sockets();
    int count = 0;
    while (auto socket = co_await sequence.next()) {
        socket->close();
        ++count;
    }
    co_return count;
}

async::Task<std::string> connectWithin(AnySocketAddress address, SocketPool* pool, double seconds) {
    try {
        auto socket = co_await AsyncSocket::connected(address, pool->shared_from_this(), seconds);
        socket.close();
        co_return "connected";
    } catch (const std::exception& error) {
        co_return error.what();
    }
}

// Reads a line through next(), then the rest through nextBuffer(): what the two saw, in order.
async::Task<std::string> lineThenRest(AsyncSocketReadSequence sequence, std::size_t total) {
    std::string seen;
    while (auto byte = co_await sequence.next()) {
        seen.push_back(static_cast<char>(*byte));
        if (*byte == '\n')
            break;
    }
    seen += "|";
    auto rest = sequence;  // a copy shares the buffer: the next reader
    while (seen.size() - 1 < total) {
        auto buffer = co_await rest.nextBuffer(3);
        seen.append(buffer->begin(), buffer->end());
    }
    co_return seen;
}

}  // namespace

using AsyncSocketReading = test::RunningPool;

TEST_F(AsyncSocketReading, WritesAndReadsMoreThanTheSocketBuffersHoldReadAtMostTakesOneReadAndZeroBytesMakeNoCall) {
    auto [reader, writer] = AsyncSocket::makePair(pool);
    Closing b(writer);
    const auto data = pattern(4 << 20);
    auto write = async::spawn(writeAll(writer, data));
    EXPECT_EQ(async::syncWait(readBytes(reader, data.size())), data);
    EXPECT_EQ(outcome(write), "");
    async::syncWait(writeAll(writer, pattern(10000)));
    EXPECT_EQ(async::syncWait(readAtMost(reader, 10000)).size(), 4096u);
    EXPECT_EQ(async::syncWait(readAtMost(reader, 10)).size(), 10u);
    reader.close();  // a read would now fail
    EXPECT_TRUE(async::syncWait(readBytes(reader, 0)).empty());
    EXPECT_TRUE(async::syncWait(readAtMost(reader, 0)).empty());
}

// Also with a count no memory could hold: the count must not be reserved before bytes arrive.
TEST_F(AsyncSocketReading, APeerThatClosesMidReadRaisesDisconnected) {
    for (const std::size_t count : {std::size_t{10}, std::size_t{1} << 40}) {
        auto [reader, writer] = AsyncSocket::makePair(pool);
        Closing a(reader);
        auto read = async::spawn(readBytes(reader, count));
        async::syncWait(writeAll(writer, bytes("abc")));
        ASSERT_TRUE(parked(1));  // after the 3 bytes
        writer.close();
        EXPECT_EQ(outcome(read), "SocketError. Disconnected") << count;
    }
}

TEST_F(AsyncSocketReading, BytesALineReaderLeavesReachTheNextReaderExactlyOnceThenTheEndIsDisconnected) {
    auto [reader, writer] = AsyncSocket::makePair(pool);
    Closing a(reader);
    async::syncWait(writeAll(writer, bytes("GET / HTTP/1.1\nbody-bytes")));
    EXPECT_EQ(async::syncWait(lineThenRest(reader.bytes(), 25)), "GET / HTTP/1.1\n|body-bytes");
    writer.close();
    EXPECT_EQ(outcome(async::spawn(nextByte(reader.bytes()))), "SocketError. Disconnected");
}

// A task that met EAGAIN parks while another closes the socket, and the number goes straight to
// a new socket: the wait must end as disconnected, never fail to register nor wait on the new one.
TEST_F(AsyncSocketReading, AWaitRacingCloseEndsAsDisconnectedAndNeverWatchesTheNumbersNextSocket) {
    for (int round = 0; round < 300; ++round) {
        auto [closing, peer] = AsyncSocket::makePair(pool);
        Closing closesPeer(peer);
        auto wait = async::spawn(waitToRead(closing));
        if (round % 2 == 0)
            std::this_thread::yield();
        closing.close();
        auto [next, nextPeer] = AsyncSocket::makePair(pool);  // most often takes the closed number
        Closing a(next), b(nextPeer);
        async::syncWait(writeAll(nextPeer, bytes("x")));
        ASSERT_EQ(outcome(wait), "SocketError. Disconnected") << "round " << round;
    }
    EXPECT_EQ(outcome(async::spawn(test::waitOn(pool.get(), Socket(-1), Socket::Event::read))), "SocketError. Disconnected");
}

// One handler blocks its thread; another connection on the same pool must still echo. Were a woken
// task run on the thread that waits for events, the blocked handler would hold every socket of
// the pool: the echo would not come back until the block's guard ran out, and the test fails.
TEST_F(AsyncSocketReading, AHandlerThatBlocksItsThreadDoesNotHoldUpAnotherConnection) {
    auto [blocked, blockedPeer] = AsyncSocket::makePair(pool);
    auto [echoed, echoedPeer] = AsyncSocket::makePair(pool);
    Closing a(blocked), b(blockedPeer), c(echoed), d(echoedPeer);
    std::promise<void> release;
    auto blocker = async::spawn(readThenBlock(blocked, release.get_future().share()));
    auto echoer = async::spawn(echo(echoed, 20));
    async::syncWait(writeAll(blockedPeer, bytes("x")));
    for (int i = 0; i < 20; ++i) {
        async::syncWait(writeAll(echoedPeer, bytes("e")));
        ASSERT_EQ(async::syncWait(readBytes(echoedPeer, 1)), bytes("e")) << "round " << i;
    }
    release.set_value();
    EXPECT_TRUE(blocker.wait()) << "the echo waited for the blocked handler";
    EXPECT_EQ(outcome(echoer), "");
}

using AsyncSocketConnecting = test::RunningPool;

TEST_F(AsyncSocketConnecting, AcceptWaitsForAClientOverIPv6LoopbackAndClosingTheListenerEndsItsSequenceQuietly) {
    const auto socket = Socket::make(AF_INET6);
    socket.bind(loopback(0));
    socket.listen(4);
    AsyncSocket listener(socket, pool);
    const AnySocketAddress address(loopback(socket.sockname().port));
    auto accepted = async::spawn(acceptOne(listener));
    ASSERT_TRUE(parked(1));
    EXPECT_FALSE(accepted.isFinished());
    Closing client(async::syncWait(connectTo(address, pool))), server(accepted.wait());
    EXPECT_TRUE(server.socket.socket().flags().contains(Socket::Flags::nonBlocking));
    EXPECT_EQ(server.socket.socket().remotePeer(), client.socket.socket().sockname());
    async::syncWait(writeAll(client.socket, bytes("over v6")));
    EXPECT_EQ(async::syncWait(readBytes(server.socket, 7)), bytes("over v6"));

    auto accepting = async::spawn(acceptUntilEnd(listener));
    async::syncWait(connectTo(address, pool)).close();
    ASSERT_TRUE(parked(1));
    listener.close();
    EXPECT_EQ(accepting.wait(), 1);
}

TEST_F(AsyncSocketConnecting, ARefusedConnectionFailsAndLeavesNothingOpen) {
    test::Owned bound(Socket::make(AF_INET));  // bound, never listening: connections are refused
    bound->bind(inet("127.0.0.1", 0));
    const auto result = outcome(async::spawn(connectTo(AnySocketAddress(inet("127.0.0.1", bound.port())), pool)));
    // Refused at once, or reported by the queue as an error while in progress.
    EXPECT_THAT(result, testing::AnyOf("SocketError. Connect(111): Connection refused", "SocketError. Disconnected"));
}

TEST_F(AsyncSocketConnecting, AConnectionThatDoesNotCompleteInTimeRaisesTimeoutError) {
    // A listener whose accept queue is full drops further handshakes, so the next connect hangs.
    auto listening = test::listeningOnLoopback(0);
    Closing l(AsyncSocket(listening.socket, pool));
    listening.owner.release();
    std::string result;
    for (int attempt = 0; attempt < 8 && result != "timed out"; ++attempt) {
        auto outcome = async::syncWait(connectWithin(AnySocketAddress(inet("127.0.0.1", listening.port())), pool.get(), 0.3));
        if (outcome == "connected")
            continue;
        result = outcome == "Task timed out before completion. Timeout: 0.3 seconds." ? "timed out" : outcome;
    }
    EXPECT_EQ(result, "timed out");
}

TEST_F(AsyncSocketConnecting, MakingASocketSetsExactlyNonBlocking) {
    test::Pair pair(Socket::makePair(SocketType::stream));
    pair.socket().setFlags(Socket::Flags(O_APPEND));
    AsyncSocket socket(pair.socket(), pool);
    EXPECT_EQ(socket.socket().flags().rawValue & ~O_ACCMODE, O_NONBLOCK);
    const Socket closed(Socket::make(AF_INET));
    closed.close();
    EXPECT_THROW(static_cast<void>(AsyncSocket(closed, pool)), SocketError);
}

namespace {
async::Task<Bytes> receiveOne(AsyncSocket socket) { co_return (co_await socket.receive(100)).bytes; }
async::Task<std::vector<Bytes>> nextMessages(AsyncSocket socket, int count) {
    auto messages = socket.messages();
    std::vector<Bytes> received;
    for (int i = 0; i < count; ++i) received.push_back((co_await messages.next()).value().bytes);
    co_return received;
}
async::Task<void> send(AsyncSocket socket, std::string_view text) {
    AsyncSocket::Message message;
    message.bytes = bytes(text);
    co_await socket.send(message);
}
}  // namespace

TEST_F(AsyncSocketConnecting, DatagramReceiversWaitForTheNextMessageEmptyOnesIncludedUntilTheSocketFails) {
    auto [a, b] = AsyncSocket::makePair(pool, SocketType::datagram);
    Closing cb(b);
    auto received = async::spawn(receiveOne(a));
    ASSERT_TRUE(parked(1));
    async::syncWait(send(b, "late"));
    EXPECT_EQ(received.wait(), bytes("late"));
    async::syncWait(send(b, ""));
    auto next = async::spawn(nextMessages(a, 2));
    ASSERT_TRUE(parked(1));
    async::syncWait(send(b, "later"));
    EXPECT_EQ(next.wait(), (std::vector<Bytes>{bytes(""), bytes("later")}));
    // No quiet end: the sequence raises what receive() raises.
    auto last = async::spawn(nextMessages(a, 1));
    ASSERT_TRUE(parked(1));
    a.close();
    EXPECT_THROW(last.wait(), SocketError);
}
