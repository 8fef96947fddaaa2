#include "net/OwnedDescriptor.h"
#include "net/Socket.h"

#include "net/PoolTesting.h"

#include <gtest/gtest.h>

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <net/if.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>

using namespace orvel::net;
using orvel::test::errorOf;

namespace {

// Owns a Socket's descriptor for the length of a test.
struct Owned {
    explicit Owned(Socket socket) : owner(socket.file.rawValue), socket(socket) {}
    OwnedDescriptor owner;
    Socket socket;
    const Socket* operator->() const { return &socket; }
    std::uint16_t port() const { return socket.sockname().port; }
};

struct OwnedPair {
    explicit OwnedPair(std::pair<Socket, Socket> pair) : first(pair.first), second(pair.second) {}
    Owned first;
    Owned second;
};

Owned listeningIPv4() {
    Owned listener(Socket::make(AF_INET));
    listener->setValue(true, reuseAddress);
    listener->bind(inet("127.0.0.1", 0));
    listener->listen(16);
    return listener;
}

Socket closedSocket() {
    const Socket closed(Socket::make(AF_INET));
    closed.close();
    return closed;
}

std::vector<std::uint8_t> bytes(std::string_view text) { return {text.begin(), text.end()}; }

class SocketTest : public orvel::test::FdLeakCheck {};

}  // namespace

using SocketCreation = SocketTest;

namespace {
// From now on every setsockopt of this process fails with EPERM (a seccomp filter).
void refuseSetsockopt() {
    sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_setsockopt, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog program{static_cast<unsigned short>(std::size(filter)), filter};
    if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 || ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0)
        std::_Exit(2);
}
}  // namespace

// In a process of its own, where the option is made to fail: the error comes out and the
// descriptor is closed, not left to nobody.
TEST(SocketCreationDeathTest, ADatagramSocketWhosePacketInformationCannotBeSetIsClosedBeforeTheError) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            refuseSetsockopt();
            const int lowestFree = ::dup(0);
            ::close(lowestFree);
            std::fprintf(stderr, "%s\n", errorOf([] { Socket::make(AF_INET, SocketType::datagram); }).c_str());
            std::_Exit(::dup(0) == lowestFree ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "SocketError. SetOption\\(1\\): Operation not permitted");
}

TEST_F(SocketCreation, FailedCallsNameTheirCall) {
    errno = 0;
    EXPECT_EQ(errorOf([] { Socket::make(AF_INET, 7); }), "SocketError. Invalid SocketType(0): Success");
    EXPECT_EQ(errorOf([] { Socket::make(12345); }), "SocketError. CreateSocket(97): Address family not supported by protocol");
    const auto closed = closedSocket();
    const std::string badDescriptor = "(9): Bad file descriptor";
    EXPECT_EQ(errorOf([&] { closed.flags(); }), "SocketError. GetFlags" + badDescriptor);
    EXPECT_EQ(errorOf([&] { closed.setFlags({}); }), "SocketError. SetFlags" + badDescriptor);
    EXPECT_EQ(errorOf([&] { closed.getValue(reuseAddress); }), "SocketError. GetOption" + badDescriptor);
    EXPECT_EQ(errorOf([&] { closed.setValue(true, reuseAddress); }), "SocketError. SetOption" + badDescriptor);
    EXPECT_EQ(errorOf([&] { closed.sockname(); }), "SocketError. GetSockName" + badDescriptor);
    EXPECT_EQ(errorOf([&] { closed.close(); }), "SocketError. Close" + badDescriptor);
    // A failing listen closes the descriptor, and reports the close when that fails too.
    EXPECT_EQ(errorOf([&] { closed.listen(1); }), "SocketError. Close" + badDescriptor);
    const Socket datagram(Socket::make(AF_INET, SocketType::datagram));
    EXPECT_EQ(errorOf([&] { datagram.listen(1); }), "SocketError. Listen(95): Operation not supported");
    EXPECT_EQ(::fcntl(datagram.file.rawValue, F_GETFD), -1);
}

using SocketConnections = SocketTest;

TEST_F(SocketConnections, AcceptAndConnectOverIPv4Loopback) {
    auto listener = listeningIPv4();
    Owned client(Socket::make(AF_INET));
    client->connect(inet("127.0.0.1", listener.port()));
    EXPECT_NO_THROW(client->connect(inet("127.0.0.1", listener.port())));  // already connected: quietly done
    auto accepted = listener->accept();
    Owned server(Socket(accepted.file));
    EXPECT_EQ(makeAddress(accepted.address), client->sockname());
    EXPECT_EQ(client->remotePeer(), Socket::Address::ip4("127.0.0.1", listener.port()));
    EXPECT_EQ(server->remotePeer(), client->sockname());
}

TEST_F(SocketConnections, AcceptAndConnectOverAUnixPath) {
    const std::string path = testing::TempDir() + "orvel-socket-test-" + std::to_string(::getpid());
    ::unlink(path.c_str());
    Owned listener(Socket::make(AF_UNIX));
    listener->bind(unix(path));
    listener->listen(4);
    Owned client(Socket::make(AF_UNIX));
    client->connect(unix(path));
    Owned server(Socket(listener->accept().file));
    EXPECT_EQ(client->remotePeer(), Socket::Address::unix(path));
    ::unlink(path.c_str());
}

TEST_F(SocketConnections, FailuresNameTheirCall) {
    auto listener = listeningIPv4();
    Owned bound(Socket::make(AF_INET));  // bound but not listening: refuses without a race for the port
    bound->bind(inet("127.0.0.1", 0));
    Owned client(Socket::make(AF_INET));
    EXPECT_EQ(errorOf([&] { client->connect(inet("127.0.0.1", bound.port())); }), "SocketError. Connect(111): Connection refused");
    EXPECT_EQ(errorOf([&] { client->bind(inet("127.0.0.1", listener.port())); }), "SocketError. Bind(98): Address already in use");
    EXPECT_EQ(errorOf([&] { listener->read(); }), "SocketError. Read(107): Transport endpoint is not connected");
    Owned datagram(Socket::make(AF_INET, SocketType::datagram));
    EXPECT_EQ(errorOf([&] { datagram->send(bytes("x"), AnySocketAddress()); }), "SocketError. SendTo(22): Invalid argument");
}

using SocketData = SocketTest;

TEST_F(SocketData, WritesFromAnIndexAndReadsAByteOrAtMostALength) {
    OwnedPair pair(Socket::makePair(SocketType::stream));
    EXPECT_FALSE(pair.first->flags().contains(Socket::Flags::nonBlocking)) << "pairs block unless asked";
    EXPECT_EQ(pair.first->write(bytes("abcdef"), 2), 6u);
    EXPECT_EQ(pair.second->read(), 'c');
    EXPECT_EQ(pair.second->readAtMost(1), bytes("d"));
    EXPECT_EQ(pair.second->readAtMost(100), bytes("ef"));
    const Socket invalid(-1);  // writing at or past the end must make no call that could fail
    EXPECT_EQ(invalid.write(bytes("abc"), 3), 3u);
    EXPECT_EQ(invalid.write(bytes("abc"), 7), 3u);
}

TEST_F(SocketData, NonBlockingCallsWithNothingToDoAreBlocked) {
    auto listener = listeningIPv4();
    listener->setFlags(Socket::Flags::nonBlocking);
    EXPECT_EQ(errorOf([&] { listener->accept(); }), "SocketError. Blocked");
    EXPECT_EQ(listener->tryAccept().status, Socket::IOResult::Status::blocked);

    OwnedPair stream(Socket::makeNonBlockingPair(SocketType::stream));
    EXPECT_EQ(errorOf([&] { stream.first->read(); }), "SocketError. Blocked");
    std::vector<std::uint8_t> chunk(65536);
    Socket::IOResult result;
    for (int writes = 0; (result = stream.first->tryWrite(chunk.data(), chunk.size())).done();)
        ASSERT_LT(++writes, 10000);
    EXPECT_TRUE(result.blocked());
    EXPECT_EQ(errorOf([&] { stream.first->write(chunk, 0); }), "SocketError. Blocked");

    OwnedPair datagrams(Socket::makeNonBlockingPair(SocketType::datagram));
    EXPECT_EQ(datagrams.second->socketType(), SocketType::datagram);
    EXPECT_EQ(errorOf([&] { datagrams.second->receiveMessage(10); }), "SocketError. Blocked");
    EXPECT_EQ(errorOf([&] { datagrams.first->receive(10); }), "SocketError. Blocked");
}

TEST_F(SocketData, AGonePeerIsDisconnectedForReadsAndABrokenPipeWithoutSignalForWrites) {
    OwnedPair pair(Socket::makeNonBlockingPair(SocketType::stream));
    std::uint8_t byte;
    ASSERT_TRUE(pair.first->tryRead(&byte, 1).blocked());  // leaves EAGAIN in errno
    pair.second.owner = OwnedDescriptor();
    EXPECT_EQ(errorOf([&] { pair.first->read(); }), "SocketError. Disconnected");
    // Without MSG_NOSIGNAL this would end the test binary with SIGPIPE.
    EXPECT_EQ(errorOf([&] { pair.first->write("x", 1); }), "SocketError. Write(32): Broken pipe");

    const auto closed = closedSocket();
    EXPECT_EQ(errorOf([&] { closed.read(); }), "SocketError. Disconnected");
    EXPECT_EQ(errorOf([&] { closed.write("x", 1); }), "SocketError. Disconnected");
}

using SocketDatagrams = SocketTest;

TEST_F(SocketDatagrams, ReceivedDatagramsCarryTheSenderAndMessagesTheInterfaceAndLocalAddress) {
    const auto lo = std::optional<std::uint32_t>(::if_nametoindex("lo"));
    {
        Owned receiver(Socket::make(AF_INET, SocketType::datagram));
        receiver->bind(inet(0));  // any address, so the local one comes from packet information
        Owned sender(Socket::make(AF_INET, SocketType::datagram));
        sender->bind(inet("127.0.0.1", 0));
        EXPECT_EQ(sender->send(bytes("hello"), inet("127.0.0.1", receiver.port())), 5u);
        const auto received = receiver->receive(100);
        EXPECT_EQ(received.bytes, bytes("hello"));
        EXPECT_EQ(makeAddress(received.peerAddress), sender->sockname());

        sender->send(bytes("m"), inet("127.0.0.1", receiver.port()));
        const auto message = receiver->receiveMessage(100);
        EXPECT_EQ(message.bytes, bytes("m"));
        EXPECT_EQ(message.interfaceIndex, lo);
        ASSERT_TRUE(message.localAddress.has_value());
        EXPECT_EQ(makeAddress(*message.localAddress).text, "127.0.0.1");
    }
    Owned receiver(Socket::make(AF_INET6, SocketType::datagram));
    receiver->bind(inet6(0));
    Owned sender(Socket::make(AF_INET6, SocketType::datagram));
    sender->send(bytes("m6"), loopback(receiver.port()));
    const auto message = receiver->receiveMessage(100);
    EXPECT_EQ(message.bytes, bytes("m6"));
    EXPECT_EQ(message.interfaceIndex, lo);
    ASSERT_TRUE(message.localAddress.has_value());
    EXPECT_EQ(makeAddress(*message.localAddress), Socket::Address::ip6("::1", 0));
    // Unix datagram sockets have no packet information to ask for: making one must not fail.
    Owned local(Socket::make(AF_UNIX, SocketType::datagram));
    EXPECT_EQ(local->socketType(), SocketType::datagram);
}

TEST_F(SocketDatagrams, SendingAMessageWithALocalAddressSendsFromThatAddress) {
    Owned receiver(Socket::make(AF_INET, SocketType::datagram));
    receiver->bind(inet(0));
    Owned sender(Socket::make(AF_INET, SocketType::datagram));
    Socket::Message message;
    message.peerAddress = AnySocketAddress(inet("127.0.0.1", receiver.port()));
    message.bytes = bytes("from .2");
    message.localAddress = AnySocketAddress(inet("127.0.0.2", 0));  // all of 127/8 is local on Linux
    EXPECT_EQ(sender->send(message), 7u);
    const auto received = receiver->receiveMessage(100);
    EXPECT_EQ(received.bytes, bytes("from .2"));
    EXPECT_EQ(makeAddress(received.peerAddress).text, "127.0.0.2");
}
