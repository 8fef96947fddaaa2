#include "net/SocketOwner.h"

#include "net/OwnedDescriptor.h"

#include <arpa/inet.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

namespace orvel::net {
namespace {

[[noreturn]] void fail(int errnoValue) { throw SocketError::failed("SockDiag", errnoValue); }

// The address as the kernel's socket tables hold it; an IPv4-mapped IPv6 peer lives in the
// IPv4 table.
struct Endpoint {
    int family = AF_INET;
    std::uint32_t address[4] = {};
    std::uint16_t port = 0;
};

Endpoint endpoint(const Socket::Address& address) {
    Endpoint out;
    out.port = htons(address.port);
    if (address.kind == Socket::Address::Kind::ip4) {
        if (::inet_pton(AF_INET, address.text.c_str(), out.address) != 1) fail(EINVAL);
        return out;
    }
    if (address.kind != Socket::Address::Kind::ip6) fail(EAFNOSUPPORT);
    in6_addr six{};
    if (::inet_pton(AF_INET6, address.text.c_str(), &six) != 1) fail(EINVAL);
    if (IN6_IS_ADDR_V4MAPPED(&six)) {
        std::memcpy(out.address, six.s6_addr + 12, 4);
        return out;
    }
    out.family = AF_INET6;
    std::memcpy(out.address, six.s6_addr, 16);
    return out;
}

}  // namespace

std::uint32_t socketOwner(const Socket::Address& peer, const Socket::Address& local) {
    const Endpoint source = endpoint(peer);
    const Endpoint destination = endpoint(local);
    if (source.family != destination.family) fail(EAFNOSUPPORT);

    // Without NLM_F_DUMP the kernel looks up the one socket whose own end is `src` and whose
    // far end is `dst`: the peer's socket.
    struct {
        nlmsghdr header;
        inet_diag_req_v2 body;
    } request{};
    request.header.nlmsg_len = sizeof request;
    request.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    request.header.nlmsg_flags = NLM_F_REQUEST;
    request.body.sdiag_family = static_cast<std::uint8_t>(source.family);
    request.body.sdiag_protocol = IPPROTO_TCP;
    request.body.idiag_states = ~0u;
    request.body.id.idiag_sport = source.port;
    request.body.id.idiag_dport = destination.port;
    std::memcpy(request.body.id.idiag_src, source.address, sizeof source.address);
    std::memcpy(request.body.id.idiag_dst, destination.address, sizeof destination.address);
    request.body.id.idiag_cookie[0] = INET_DIAG_NOCOOKIE;
    request.body.id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;

    OwnedDescriptor netlink(::socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_SOCK_DIAG));
    if (netlink.get() < 0) fail(errno);
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    if (::sendto(netlink.get(), &request, sizeof request, 0, reinterpret_cast<const sockaddr*>(&kernel), sizeof kernel) < 0) {
        fail(errno);
    }
    // The answer is queued before sendto returns: one message, or an error message.
    alignas(nlmsghdr) char answer[1024];
    ssize_t received = ::recv(netlink.get(), answer, sizeof answer, 0);
    if (received < 0) fail(errno);
    int length = static_cast<int>(received);
    for (auto* message = reinterpret_cast<nlmsghdr*>(answer); NLMSG_OK(message, length); message = NLMSG_NEXT(message, length)) {
        if (message->nlmsg_type == NLMSG_ERROR) {
            const auto* error = static_cast<const nlmsgerr*>(NLMSG_DATA(message));
            fail(error->error < 0 ? -error->error : EPROTO);
        }
        if (message->nlmsg_type == SOCK_DIAG_BY_FAMILY && message->nlmsg_len >= NLMSG_LENGTH(sizeof(inet_diag_msg))) {
            return static_cast<const inet_diag_msg*>(NLMSG_DATA(message))->idiag_uid;
        }
    }
    fail(EPROTO);
}

}  // namespace orvel::net
