#include "net/Socket.h"
#include "net/SocketAddress.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <netinet/in.h>

#include <array>
#include <cstring>

using namespace orvel::net;
using testing::StartsWith;
using testing::StrEq;
using testing::ThrowsMessage;

namespace {

template <class Record>
std::vector<std::uint8_t> bytesOf(const Record& record) {
    std::vector<std::uint8_t> bytes(sizeof record);
    std::memcpy(bytes.data(), &record, sizeof record);
    return bytes;
}

sockaddr_storage packetAddress() {
    sockaddr_storage link{};
    link.ss_family = AF_PACKET;
    return link;
}

}  // namespace

TEST(SocketAddressMaking, IPv4HasFamilyPortInNetworkOrderAndAddress) {
    // Linux records have no length byte: the family is a 16-bit host-order field.
    const std::vector<std::uint8_t> expected{AF_INET, 0, 0x21, 0x39, 127, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(bytesOf(inet("127.0.0.1", 8505)), expected);
    EXPECT_EQ(inet(80).sin_addr.s_addr, htonl(INADDR_ANY));
    EXPECT_THAT([] { inet("localhost", 1); }, ThrowsMessage<SocketError>(StartsWith("SocketError. inet_pton AF_INET(")));
    EXPECT_THAT([] { inet("::1", 1); }, ThrowsMessage<SocketError>(StartsWith("SocketError. inet_pton AF_INET(")));
}

TEST(SocketAddressMaking, IPv6AnyLoopbackAndText) {
    const auto any = inet6(8080);
    EXPECT_EQ(any.sin6_family, AF_INET6);
    EXPECT_EQ(any.sin6_port, htons(8080));
    EXPECT_TRUE(IN6_IS_ADDR_UNSPECIFIED(&any.sin6_addr));
    EXPECT_EQ(bytesOf(inet6("::1", 9)), bytesOf(loopback(9)));
    EXPECT_THAT([] { inet6("127.0.0.1", 1); }, ThrowsMessage<SocketError>(StartsWith("SocketError. inet_pton AF_INET6(")));
}

TEST(SocketAddressMaking, UnixPathIsCopiedAndCutToTheRecord) {
    EXPECT_STREQ(unix("/tmp/orvel.sock").sun_path, "/tmp/orvel.sock");
    const std::string longPath(200, 'p');
    const auto cut = unix(longPath);
    EXPECT_EQ(cut.sun_family, AF_UNIX);
    EXPECT_EQ(std::string(cut.sun_path, sizeof cut.sun_path), longPath.substr(0, sizeof cut.sun_path));
    EXPECT_EQ(makeAddress(AnySocketAddress(cut)), Socket::Address::unix(longPath.substr(0, sizeof cut.sun_path)));
}

TEST(SocketAddressConversion, GenericRoundTripsOnlyToItsOwnFamily) {
    const AnySocketAddress any(inet("10.1.2.3", 4));
    EXPECT_EQ(any.family(), AF_INET);
    EXPECT_EQ(bytesOf(typedAddress<sockaddr_in>(any)), bytesOf(inet("10.1.2.3", 4)));
    const AnySocketAddress ip6(loopback(1));
    EXPECT_THAT([&] { typedAddress<sockaddr_in>(ip6); }, ThrowsMessage<SocketError>(StrEq("SocketError. UnsupportedAddress")));
    EXPECT_THAT([&] { typedAddress<sockaddr_un>(ip6); }, ThrowsMessage<SocketError>(StrEq("SocketError. UnsupportedAddress")));
}

TEST(SocketAddressConversion, MakeAddressGivesTextAndHostOrderPortForKnownFamilies) {
    EXPECT_EQ(makeAddress(AnySocketAddress(inet("127.0.0.1", 8505))), Socket::Address::ip4("127.0.0.1", 8505));
    EXPECT_EQ(makeAddress(AnySocketAddress(inet6("fe80::1:2", 443))), Socket::Address::ip6("fe80::1:2", 443));
    EXPECT_EQ(makeAddress(AnySocketAddress(unix("/run/x"))), Socket::Address::unix("/run/x"));
    EXPECT_THAT([] { makeAddress(packetAddress()); }, ThrowsMessage<SocketError>(StrEq("SocketError. UnsupportedAddress")));
}
