#pragma once
#include "net/Socket.h"

#include <cstdint>

namespace orvel::net {

// The user id that owns the socket at the other end of a TCP connection on this machine, asked
// of the kernel through sock_diag netlink (SOCK_DIAG_BY_FAMILY) for the exact address pair.
// `peer` and `local` are the connection as this side sees it (IPv4, IPv6 or IPv4-mapped IPv6).
// The netlink socket is non-blocking and the kernel answers within the send, so no call waits:
// safe on a pool thread. SocketError "SockDiag" when the kernel cannot tell (no such socket,
// for instance because the peer is on another machine or already gone).
std::uint32_t socketOwner(const Socket::Address& peer, const Socket::Address& local);

}  // namespace orvel::net
