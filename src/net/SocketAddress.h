#pragma once
#include "net/SocketError.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <concepts>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace orvel::net {

// The platform's own address records (sockaddr_in, sockaddr_in6, sockaddr_un, sockaddr_storage)
// used as they are, plus AnySocketAddress, a type-erased copy in a storage record. Every record
// has a family and a size (the length passed with it to bind, connect and sendto).

// A generic address: the bytes of any record in a zeroed sockaddr_storage.
struct AnySocketAddress {
    sockaddr_storage storage{};

    AnySocketAddress() noexcept = default;
    explicit AnySocketAddress(const sockaddr_storage& address) noexcept : storage(address) {}
    explicit AnySocketAddress(const sockaddr_in& address) noexcept { copyFrom(address); }
    explicit AnySocketAddress(const sockaddr_in6& address) noexcept { copyFrom(address); }
    explicit AnySocketAddress(const sockaddr_un& address) noexcept { copyFrom(address); }

    int family() const noexcept { return storage.ss_family; }

    friend bool operator==(const AnySocketAddress& a, const AnySocketAddress& b) noexcept {
        return std::memcmp(&a.storage, &b.storage, sizeof a.storage) == 0;
    }

private:
    template <class Record>
    void copyFrom(const Record& address) noexcept {
        static_assert(sizeof(Record) <= sizeof(sockaddr_storage));
        std::memcpy(&storage, &address, sizeof address);
    }
};

inline int addressFamily(const sockaddr_in&) noexcept { return AF_INET; }
inline int addressFamily(const sockaddr_in6&) noexcept { return AF_INET6; }
inline int addressFamily(const sockaddr_un&) noexcept { return AF_UNIX; }
inline int addressFamily(const sockaddr_storage& address) noexcept { return address.ss_family; }
inline int addressFamily(const AnySocketAddress& address) noexcept { return address.family(); }

// Any address record: it knows its family.
template <class T>
concept SocketAddress = requires(const T& address) {
    { addressFamily(address) } -> std::same_as<int>;
};

// The length to pass with an address of `family`; 0 for a family we do not know.
constexpr socklen_t sizeForFamily(int family) noexcept {
    switch (family) {
    case AF_UNIX: return sizeof(sockaddr_un);
    case AF_INET: return sizeof(sockaddr_in);
    case AF_INET6: return sizeof(sockaddr_in6);
    default: return 0;
    }
}

template <SocketAddress A>
socklen_t size(const A& address) noexcept {
    return sizeForFamily(addressFamily(address));
}

template <SocketAddress A>
const sockaddr* addressPointer(const A& address) noexcept {
    if constexpr (std::same_as<A, AnySocketAddress>)
        return reinterpret_cast<const sockaddr*>(&address.storage);
    else
        return reinterpret_cast<const sockaddr*>(&address);
}

// Makers. Each returns the record zero-filled except for the fields named.
sockaddr_in inet(std::uint16_t port) noexcept;                      // 0.0.0.0:port
sockaddr_in inet(std::string_view ip4, std::uint16_t port);         // "inet_pton AF_INET" on bad text
sockaddr_in6 inet6(std::uint16_t port) noexcept;                    // [::]:port
sockaddr_in6 inet6(std::string_view ip6, std::uint16_t port);       // "inet_pton AF_INET6" on bad text
sockaddr_in6 loopback(std::uint16_t port) noexcept;                 // [::1]:port
// The path's bytes, cut to the size of sun_path (then without a terminating zero).
sockaddr_un unix(std::string_view path) noexcept;

// A typed record from a generic one; SocketError::unsupportedAddress when the family differs.
template <class Record>
    requires std::same_as<Record, sockaddr_in> || std::same_as<Record, sockaddr_in6> || std::same_as<Record, sockaddr_un>
Record typedAddress(const sockaddr_storage& storage) {
    if (storage.ss_family != addressFamily(Record{}))
        throw SocketError::unsupportedAddress();
    Record record;
    std::memcpy(&record, &storage, sizeof record);
    return record;
}

template <class Record>
Record typedAddress(const AnySocketAddress& address) {
    return typedAddress<Record>(address.storage);
}

}  // namespace orvel::net
