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

#include <cerrno>
#include <functional>

using namespace orvel::net;
using namespace orvel::test;

namespace {

Socket closedSocket() {
    const Socket closed(Socket::make(AF_INET));
    closed.close();
    return closed;
}

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

using SocketTest = FdLeakCheck;

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

TEST_F(SocketTest, FailedCallsNameTheirCallAndErrno) {
    const auto listener = listeningOnLoopback();
    Owned bound(Socket::make(AF_INET));  // bound but not listening: refuses without a race for the port
    bound->bind(inet("127.0.0.1", 0));
    Owned client(Socket::make(AF_INET)), datagram(Socket::make(AF_INET, SocketType::datagram));
    const auto closed = closedSocket();  // last: no socket made after it takes its number
    const std::string badDescriptor = "(9): Bad file descriptor";
    const std::pair<std::function<void()>, std::string> cases[] = {
        {[] { errno = 0; Socket::make(AF_INET, 7); }, "SocketError. Invalid SocketType(0): Success"},
        {[] { Socket::make(12345); }, "SocketError. CreateSocket(97): Address family not supported by protocol"},
        {[&] { closed.flags(); }, "SocketError. GetFlags" + badDescriptor},
        {[&] { closed.setFlags({}); }, "SocketError. SetFlags" + badDescriptor},
        {[&] { closed.getValue(reuseAddress); }, "SocketError. GetOption" + badDescriptor},
        {[&] { closed.setValue(true, reuseAddress); }, "SocketError. SetOption" + badDescriptor},
        {[&] { closed.sockname(); }, "SocketError. GetSockName" + badDescriptor},
        {[&] { closed.close(); }, "SocketError. Close" + badDescriptor},
        // A failing listen closes the descriptor, and reports the close when that fails too.
        {[&] { closed.listen(1); }, "SocketError. Close" + badDescriptor},
        {[&] { client->connect(inet("127.0.0.1", bound.port())); }, "SocketError. Connect(111): Connection refused"},
        {[&] { client->bind(inet("127.0.0.1", listener.port())); }, "SocketError. Bind(98): Address already in use"},
        {[&] { listener->read(); }, "SocketError. Read(107): Transport endpoint is not connected"},
        {[&] { datagram->send(bytes("x"), AnySocketAddress()); }, "SocketError. SendTo(22): Invalid argument"},
    };
    for (const auto& [call, error] : cases) EXPECT_EQ(errorOf(call), error);
    const Socket listening(Socket::make(AF_INET, SocketType::datagram));
    EXPECT_EQ(errorOf([&] { listening.listen(1); }), "SocketError. Listen(95): Operation not supported");
    EXPECT_EQ(::fcntl(listening.file.rawValue, F_GETFD), -1);
}

TEST_F(SocketTest, AcceptAndConnectOverIPv4LoopbackAndAUnixPath) {
    auto listener = listeningOnLoopback();
    Owned client(Socket::make(AF_INET));
    client->connect(inet("127.0.0.1", listener.port()));
    EXPECT_NO_THROW(client->connect(inet("127.0.0.1", listener.port())));  // already connected: quietly done
    auto accepted = listener->accept();
    Owned server(Socket(accepted.file));
    EXPECT_EQ(makeAddress(accepted.address), client->sockname());
    EXPECT_EQ(client->remotePeer(), Socket::Address::ip4("127.0.0.1", listener.port()));
    EXPECT_EQ(server->remotePeer(), client->sockname());

    const std::string path = testing::TempDir() + "orvel-socket-test-" + std::to_string(::getpid());
    ::unlink(path.c_str());
    Owned local(Socket::make(AF_UNIX));
    local->bind(unix(path));
    local->listen(4);
    Owned localClient(Socket::make(AF_UNIX));
    localClient->connect(unix(path));
    Owned localServer(Socket(local->accept().file));
    EXPECT_EQ(localClient->remotePeer(), Socket::Address::unix(path));
    ::unlink(path.c_str());
}

TEST_F(SocketTest, WritesFromAnIndexAndReadsAByteOrAtMostALength) {
    Pair pair(Socket::makePair(SocketType::stream));
    EXPECT_FALSE(pair.socket().flags().contains(Socket::Flags::nonBlocking)) << "pairs block unless asked";
    EXPECT_EQ(pair.socket().write(bytes("abcdef"), 2), 6u);
    EXPECT_EQ(pair.peer().read(), 'c');
    EXPECT_EQ(pair.peer().readAtMost(1), bytes("d"));
    EXPECT_EQ(pair.peer().readAtMost(100), bytes("ef"));
    const Socket invalid(-1);  // writing at or past the end must make no call that could fail
    EXPECT_EQ(invalid.write(bytes("abc"), 3), 3u);
    EXPECT_EQ(invalid.write(bytes("abc"), 7), 3u);
}

TEST_F(SocketTest, NonBlockingCallsWithNothingToDoAreBlocked) {
    auto listener = listeningOnLoopback();
    listener->setFlags(Socket::Flags::nonBlocking);
    EXPECT_EQ(errorOf([&] { listener->accept(); }), "SocketError. Blocked");
    EXPECT_EQ(listener->tryAccept().status, Socket::IOResult::Status::blocked);

    Pair stream;
    EXPECT_EQ(errorOf([&] { stream.socket().read(); }), "SocketError. Blocked");
    stream.fillSocketBuffer();
    EXPECT_TRUE(stream.socket().tryWrite("x", 1).blocked());
    EXPECT_EQ(errorOf([&] { stream.socket().write(std::vector<std::uint8_t>(1), 0); }), "SocketError. Blocked");

    Pair datagrams(Socket::makeNonBlockingPair(SocketType::datagram));
    EXPECT_EQ(datagrams.peer().socketType(), SocketType::datagram);
    EXPECT_EQ(errorOf([&] { datagrams.peer().receiveMessage(10); }), "SocketError. Blocked");
    EXPECT_EQ(errorOf([&] { datagrams.socket().receive(10); }), "SocketError. Blocked");
}

TEST_F(SocketTest, AGonePeerIsDisconnectedForReadsAndABrokenPipeWithoutSignalForWrites) {
    Pair pair;
    std::uint8_t byte;
    ASSERT_TRUE(pair.socket().tryRead(&byte, 1).blocked());  // leaves EAGAIN in errno
    pair.second = OwnedDescriptor();
    EXPECT_EQ(errorOf([&] { pair.socket().read(); }), "SocketError. Disconnected");
    // Without MSG_NOSIGNAL this would end the test binary with SIGPIPE.
    EXPECT_EQ(errorOf([&] { pair.socket().write("x", 1); }), "SocketError. Write(32): Broken pipe");

    const auto closed = closedSocket();
    EXPECT_EQ(errorOf([&] { closed.read(); }), "SocketError. Disconnected");
    EXPECT_EQ(errorOf([&] { closed.write("x", 1); }), "SocketError. Disconnected");
}

TEST_F(SocketTest, ReceivedDatagramsCarryTheSenderAndMessagesTheInterfaceAndLocalAddress) {
    for (const bool v4 : {true, false}) {
        SCOPED_TRACE(v4 ? "IPv4" : "IPv6");
        const int family = v4 ? AF_INET : AF_INET6;
        const auto at = [&](std::uint16_t port) {
            return v4 ? AnySocketAddress(inet("127.0.0.1", port)) : AnySocketAddress(loopback(port));
        };
        Owned receiver(Socket::make(family, SocketType::datagram));
        // Any address, so the local one comes from packet information.
        receiver->bind(v4 ? AnySocketAddress(inet(0)) : AnySocketAddress(inet6(0)));
        Owned sender(Socket::make(family, SocketType::datagram));
        sender->bind(at(0));
        EXPECT_EQ(sender->send(bytes("hello"), at(receiver.port())), 5u);
        const auto received = receiver->receive(100);
        EXPECT_EQ(received.bytes, bytes("hello"));
        EXPECT_EQ(makeAddress(received.peerAddress), sender->sockname());

        sender->send(bytes("m"), at(receiver.port()));
        const auto message = receiver->receiveMessage(100);
        EXPECT_EQ(message.bytes, bytes("m"));
        EXPECT_EQ(message.interfaceIndex, std::optional<std::uint32_t>(::if_nametoindex("lo")));
        ASSERT_TRUE(message.localAddress.has_value());
        if (v4) { EXPECT_EQ(makeAddress(*message.localAddress).text, "127.0.0.1"); }
        else { EXPECT_EQ(makeAddress(*message.localAddress), Socket::Address::ip6("::1", 0)); }
    }
    // Unix datagram sockets have no packet information to ask for: making one must not fail.
    Owned local(Socket::make(AF_UNIX, SocketType::datagram));
    EXPECT_EQ(local->socketType(), SocketType::datagram);
}

TEST_F(SocketTest, SendingAMessageWithALocalAddressSendsFromThatAddress) {
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
