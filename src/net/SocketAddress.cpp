#include "net/SocketAddress.h"

#include <arpa/inet.h>

#include <algorithm>

#include <cerrno>
#include <string>

namespace orvel::net {

sockaddr_in inet(std::uint16_t port) noexcept {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    return address;
}

sockaddr_in inet(std::string_view ip4, std::uint16_t port) {
    auto address = inet(port);
    // inet_pton needs a terminated string; a view may not be one.
    const std::string text(ip4);
    if (::inet_pton(AF_INET, text.c_str(), &address.sin_addr) != 1)
        throw SocketError::failed("inet_pton AF_INET", errno);
    return address;
}

sockaddr_in6 inet6(std::uint16_t port) noexcept {
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_port = htons(port);
    address.sin6_addr = in6addr_any;
    return address;
}

sockaddr_in6 inet6(std::string_view ip6, std::uint16_t port) {
    auto address = inet6(port);
    const std::string text(ip6);
    if (::inet_pton(AF_INET6, text.c_str(), &address.sin6_addr) != 1)
        throw SocketError::failed("inet_pton AF_INET6", errno);
    return address;
}

sockaddr_in6 loopback(std::uint16_t port) noexcept {
    auto address = inet6(port);
    address.sin6_addr = in6addr_loopback;
    return address;
}

sockaddr_un unix(std::string_view path) noexcept {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const auto count = std::min(path.size(), sizeof address.sun_path);
    std::memcpy(address.sun_path, path.data(), count);
    return address;
}

}  // namespace orvel::net
