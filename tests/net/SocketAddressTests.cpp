#include "net/Socket.h"
#include "net/SocketAddress.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <netinet/in.h>

using namespace orvel::net;
using testing::StartsWith;
using testing::StrEq;
using testing::ThrowsMessage;

TEST(SocketAddress, TextsThatAreNotAnAddressOfTheFamilyAreRefused) {
    EXPECT_THAT([] { inet("localhost", 1); }, ThrowsMessage<SocketError>(StartsWith("SocketError. inet_pton AF_INET(")));
    EXPECT_THAT([] { inet("::1", 1); }, ThrowsMessage<SocketError>(StartsWith("SocketError. inet_pton AF_INET(")));
    EXPECT_THAT([] { inet6("127.0.0.1", 1); }, ThrowsMessage<SocketError>(StartsWith("SocketError. inet_pton AF_INET6(")));
}

TEST(SocketAddress, ConvertsToTextAndHostOrderPortForKnownFamiliesOnly) {
    EXPECT_EQ(makeAddress(AnySocketAddress(inet("127.0.0.1", 8505))), Socket::Address::ip4("127.0.0.1", 8505));
    EXPECT_EQ(makeAddress(AnySocketAddress(inet(80))), Socket::Address::ip4("0.0.0.0", 80));
    EXPECT_EQ(makeAddress(AnySocketAddress(inet6("fe80::1:2", 443))), Socket::Address::ip6("fe80::1:2", 443));
    EXPECT_EQ(makeAddress(AnySocketAddress(loopback(9))), Socket::Address::ip6("::1", 9));
    EXPECT_EQ(makeAddress(AnySocketAddress(unix("/run/x"))), Socket::Address::unix("/run/x"));
    // A path longer than the record is cut to it.
    const std::string longPath(200, 'p');
    EXPECT_EQ(makeAddress(AnySocketAddress(unix(longPath))), Socket::Address::unix(longPath.substr(0, sizeof(sockaddr_un::sun_path))));
    sockaddr_storage packet{};
    packet.ss_family = AF_PACKET;
    EXPECT_THAT([&] { makeAddress(packet); }, ThrowsMessage<SocketError>(StrEq("SocketError. UnsupportedAddress")));
    EXPECT_THAT([&] { typedAddress<sockaddr_in>(AnySocketAddress(loopback(1))); },
                ThrowsMessage<SocketError>(StrEq("SocketError. UnsupportedAddress")));
}
