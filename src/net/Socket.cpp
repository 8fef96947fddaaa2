#include "net/Socket.h"

#include "net/OwnedDescriptor.h"

#include <arpa/inet.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <cstring>
#include <ostream>

namespace orvel::net {

int platformValue(SocketType type) noexcept { return type == SocketType::stream ? SOCK_STREAM : SOCK_DGRAM; }

SocketType makeSocketType(int value) {
    switch (value) {
    case SOCK_STREAM: return SocketType::stream;
    case SOCK_DGRAM: return SocketType::datagram;
    default: throw SocketError::failed("Invalid SocketType", errno);
    }
}

std::string_view toString(Socket::Event event) noexcept { return event == Socket::Event::read ? "read" : "write"; }

std::ostream& operator<<(std::ostream& out, Socket::Event event) { return out << toString(event); }

std::ostream& operator<<(std::ostream& out, Socket::Events events) {
    out << '{';
    if (events.contains(Socket::Event::read))
        out << "read" << (events.contains(Socket::Event::write) ? ", " : "");
    if (events.contains(Socket::Event::write))
        out << "write";
    return out << '}';
}

std::ostream& operator<<(std::ostream& out, const Socket::Address& address) {
    switch (address.kind) {
    case Socket::Address::Kind::ip4: return out << "ip4(" << address.text << ", port: " << address.port << ")";
    case Socket::Address::Kind::ip6: return out << "ip6(" << address.text << ", port: " << address.port << ")";
    case Socket::Address::Kind::unix: return out << "unix(" << address.text << ")";
    }
    return out;
}

Socket::Address makeAddress(const sockaddr_storage& storage) {
    switch (storage.ss_family) {
    case AF_INET: {
        const auto address = typedAddress<sockaddr_in>(storage);
        char text[INET_ADDRSTRLEN];
        if (!::inet_ntop(AF_INET, &address.sin_addr, text, sizeof text))
            throw SocketError::failed("inet_ntop", errno);
        return Socket::Address::ip4(text, ntohs(address.sin_port));
    }
    case AF_INET6: {
        const auto address = typedAddress<sockaddr_in6>(storage);
        char text[INET6_ADDRSTRLEN];
        if (!::inet_ntop(AF_INET6, &address.sin6_addr, text, sizeof text))
            throw SocketError::failed("inet_ntop", errno);
        return Socket::Address::ip6(text, ntohs(address.sin6_port));
    }
    case AF_UNIX: {
        const auto address = typedAddress<sockaddr_un>(storage);
        // A path that fills sun_path has no terminating zero.
        const auto length = ::strnlen(address.sun_path, sizeof address.sun_path);
        return Socket::Address::unix(std::string(address.sun_path, length));
    }
    default: throw SocketError::unsupportedAddress();
    }
}

SocketError Socket::IOResult::error(const char* label) const {
    switch (status) {
    case Status::blocked: return SocketError::blocked();
    case Status::disconnected: return SocketError::disconnected();
    case Status::done:
    case Status::failed: break;
    }
    return SocketError::failed(label, errnoValue);
}

namespace {

using Status = Socket::IOResult::Status;

// The mapping of every read: would block, then end of stream or a dead descriptor, then failure.
// errno is cleared before the call so that a result of 0 never meets a stale EAGAIN.
Socket::IOResult readResult(ssize_t result) noexcept {
    if (result > 0)
        return {Status::done, static_cast<std::size_t>(result), 0};
    const int error = errno;
    if (error == EWOULDBLOCK)
        return {Status::blocked, 0, error};
    if (result == 0 || error == EBADF)
        return {Status::disconnected, 0, error};
    return {Status::failed, 0, error};
}

Socket::IOResult writeResult(ssize_t result) noexcept {
    if (result > 0)
        return {Status::done, static_cast<std::size_t>(result), 0};
    const int error = errno;
    if (error == EWOULDBLOCK)
        return {Status::blocked, 0, error};
    if (error == EBADF)
        return {Status::disconnected, 0, error};
    return {Status::failed, 0, error};
}

// Packet information of a received datagram: interface index and the header's destination.
void readPacketInfo(const msghdr& message, Socket::Message& into) {
    if (message.msg_controllen < sizeof(cmsghdr))
        return;
    for (auto* header = CMSG_FIRSTHDR(&message); header; header = CMSG_NXTHDR(const_cast<msghdr*>(&message), header)) {
        if (header->cmsg_level == IPPROTO_IP && header->cmsg_type == IP_PKTINFO &&
            header->cmsg_len >= CMSG_LEN(sizeof(in_pktinfo))) {
            in_pktinfo info;
            std::memcpy(&info, CMSG_DATA(header), sizeof info);
            sockaddr_in local{};
            local.sin_family = AF_INET;
            local.sin_addr = info.ipi_addr;
            into.interfaceIndex = static_cast<std::uint32_t>(info.ipi_ifindex);
            into.localAddress = AnySocketAddress(local);
        } else if (header->cmsg_level == IPPROTO_IPV6 && header->cmsg_type == IPV6_PKTINFO &&
                   header->cmsg_len >= CMSG_LEN(sizeof(in6_pktinfo))) {
            in6_pktinfo info;
            std::memcpy(&info, CMSG_DATA(header), sizeof info);
            sockaddr_in6 local{};
            local.sin6_family = AF_INET6;
            local.sin6_addr = info.ipi6_addr;
            into.interfaceIndex = info.ipi6_ifindex;
            into.localAddress = AnySocketAddress(local);
        }
    }
}

// Room for one IPv6 packet-information record (the larger of the two) plus one IPv4 record.
constexpr std::size_t controlBufferSize = CMSG_SPACE(sizeof(in6_pktinfo)) + CMSG_SPACE(sizeof(in_pktinfo));

}  // namespace

Socket Socket::make(int domain) { return make(domain, SocketType::stream); }

Socket Socket::make(int domain, int platformType) { return make(domain, makeSocketType(platformType)); }

Socket Socket::make(int domain, SocketType type) {
    // Close-on-exec: nothing we start (an updater's relaunch) should inherit our sockets.
    OwnedDescriptor owner(::socket(domain, platformValue(type) | SOCK_CLOEXEC, 0));
    if (!owner)
        throw SocketError::failed("CreateSocket", errno);
    const Socket socket(owner.get());
    if (type == SocketType::datagram) {
        // The descriptor is closed if this fails: the caller never sees it, so nobody else could.
        if (domain == AF_INET6)
            socket.setValue(true, packetInfoIPv6);
        else if (domain == AF_INET)
            socket.setValue(true, packetInfoIP);
    }
    owner.release();
    return socket;
}

std::pair<Socket, Socket> Socket::makePair(SocketType type, std::optional<Flags> flags) {
    int fds[2] = {-1, -1};
    if (::socketpair(AF_UNIX, platformValue(type) | SOCK_CLOEXEC, 0, fds) < 0 || fds[0] < 0 || fds[1] < 0)
        throw SocketError::failed("SocketPair", errno);
    OwnedDescriptor first(fds[0]);
    OwnedDescriptor second(fds[1]);
    if (flags) {
        Socket(first.get()).setFlags(*flags);
        Socket(second.get()).setFlags(*flags);
    }
    return {Socket(first.release()), Socket(second.release())};
}

std::pair<Socket, Socket> Socket::makeNonBlockingPair(SocketType type) { return makePair(type, Flags::nonBlocking); }

Socket::Flags Socket::flags() const {
    const int result = ::fcntl(file.rawValue, F_GETFL);
    if (result == -1)
        throw SocketError::failed("GetFlags", errno);
    return Flags(result);
}

void Socket::setFlags(Flags flags) const {
    if (::fcntl(file.rawValue, F_SETFL, flags.rawValue) == -1)
        throw SocketError::failed("SetFlags", errno);
}

SocketType Socket::socketType() const { return makeSocketType(getValue(socketTypeOption)); }

void Socket::setOption(int level, int name, const void* value, socklen_t length) const {
    if (::setsockopt(file.rawValue, level, name, value, length) < 0)
        throw SocketError::failed("SetOption", errno);
}

void Socket::getOption(int level, int name, void* value, socklen_t length) const {
    socklen_t returned = length;
    if (::getsockopt(file.rawValue, level, name, value, &returned) < 0)
        throw SocketError::failed("GetOption", errno);
}

void Socket::bind(const sockaddr* address, socklen_t length) const {
    if (::bind(file.rawValue, address, length) < 0)
        throw SocketError::failed("Bind", errno);
}

void Socket::listen(int maxPendingConnection) const {
    if (::listen(file.rawValue, maxPendingConnection) == -1) {
        auto error = SocketError::failed("Listen", errno);
        close();
        throw error;
    }
}

Socket::Address Socket::remotePeer() const {
    sockaddr_storage storage{};
    socklen_t length = sizeof storage;
    if (::getpeername(file.rawValue, reinterpret_cast<sockaddr*>(&storage), &length) != 0)
        throw SocketError::failed("GetPeerName", errno);
    return makeAddress(storage);
}

Socket::Address Socket::sockname() const {
    sockaddr_storage storage{};
    socklen_t length = sizeof storage;
    if (::getsockname(file.rawValue, reinterpret_cast<sockaddr*>(&storage), &length) != 0)
        throw SocketError::failed("GetSockName", errno);
    return makeAddress(storage);
}

Socket::AcceptResult Socket::tryAccept(bool nonBlocking) const noexcept {
    AcceptResult result;
    socklen_t length = sizeof result.accepted.address;
    const int fd = ::accept4(file.rawValue, reinterpret_cast<sockaddr*>(&result.accepted.address), &length,
                            SOCK_CLOEXEC | (nonBlocking ? SOCK_NONBLOCK : 0));
    if (fd == -1) {
        result.errnoValue = errno;
        result.status = result.errnoValue == EWOULDBLOCK ? Status::blocked : Status::failed;
        return result;
    }
    result.accepted.file = FileDescriptor{fd};
    return result;
}

bool Socket::isTransientAcceptError(const SocketError& error) noexcept {
    if (error.kind() != SocketError::Kind::failed || error.type() != "Accept") return false;
    switch (error.errnoValue()) {
        case EMFILE:
        case ENFILE:
        case ENOBUFS:
        case ENOMEM:
        case ECONNABORTED:
        case EPROTO:
        case EPERM: return true;
        default: return false;
    }
}

Socket::Accepted Socket::accept() const {
    auto result = tryAccept();
    if (result.status == Status::blocked)
        throw SocketError::blocked();
    if (result.status != Status::done)
        throw SocketError::failed("Accept", result.errnoValue);
    return result.accepted;
}

void Socket::connect(const sockaddr* address, socklen_t length) const {
    if (::connect(file.rawValue, address, length) < 0) {
        const int error = errno;
        if (error == EISCONN)
            return;
        if (error == EINPROGRESS)
            throw SocketError::blocked();
        throw SocketError::failed("Connect", error);
    }
}

void Socket::close() const {
    if (::close(file.rawValue) == -1)
        throw SocketError::failed("Close", errno);
}

Socket::IOResult Socket::tryRead(void* buffer, std::size_t length) const noexcept {
    errno = 0;
    return readResult(::read(file.rawValue, buffer, length));
}

std::uint8_t Socket::read() const {
    std::uint8_t byte = 0;
    read(&byte, 1);
    return byte;
}

std::vector<std::uint8_t> Socket::readAtMost(std::size_t length) const {
    std::vector<std::uint8_t> bytes(length);
    bytes.resize(read(bytes.data(), length));
    return bytes;
}

std::size_t Socket::read(void* buffer, std::size_t length) const {
    const auto result = tryRead(buffer, length);
    if (!result.done())
        throw result.error("Read");
    return result.count;
}

Socket::IOResult Socket::tryWrite(const void* buffer, std::size_t length) const noexcept {
    if (length == 0)
        return {Status::done, 0, 0};
    // send, not write: MSG_NOSIGNAL turns a closed peer into EPIPE instead of SIGPIPE.
    return writeResult(::send(file.rawValue, buffer, length, MSG_NOSIGNAL));
}

std::size_t Socket::write(const void* buffer, std::size_t length) const {
    const auto result = tryWrite(buffer, length);
    if (!result.done())
        throw result.error("Write");
    return result.count;
}

std::size_t Socket::write(std::span<const std::uint8_t> bytes, std::size_t from) const {
    if (from >= bytes.size())
        return bytes.size();
    return from + write(bytes.data() + from, bytes.size() - from);
}

Socket::Received Socket::receive(std::size_t atMost) const {
    Received received;
    received.bytes.resize(atMost);
    socklen_t length = sizeof received.peerAddress.storage;
    errno = 0;
    const auto result = readResult(::recvfrom(file.rawValue, received.bytes.data(), atMost, 0,
                                              reinterpret_cast<sockaddr*>(&received.peerAddress.storage), &length));
    if (!result.done())
        throw result.error("RecvFrom");
    received.bytes.resize(result.count);
    return received;
}

Socket::IOResult Socket::tryReceiveMessage(Message& into, std::size_t atMost) const noexcept {
    into.bytes.resize(atMost);
    into.interfaceIndex.reset();
    into.localAddress.reset();
    into.peerAddress = AnySocketAddress();
    iovec data{into.bytes.data(), atMost};
    alignas(cmsghdr) unsigned char control[controlBufferSize] = {};
    msghdr message{};
    message.msg_name = &into.peerAddress.storage;
    message.msg_namelen = sizeof into.peerAddress.storage;
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    errno = 0;
    const auto result = readResult(::recvmsg(file.rawValue, &message, 0));
    if (!result.done()) {
        into.bytes.clear();
        return result;
    }
    into.bytes.resize(result.count);
    readPacketInfo(message, into);
    return result;
}

Socket::Message Socket::receiveMessage(std::size_t atMost) const {
    Message message;
    const auto result = tryReceiveMessage(message, atMost);
    if (!result.done())
        throw result.error("RecvMsg");
    return message;
}

Socket::IOResult Socket::trySend(std::span<const std::uint8_t> bytes, const AnySocketAddress& to) const noexcept {
    const auto result = ::sendto(file.rawValue, bytes.data(), bytes.size(), MSG_NOSIGNAL, addressPointer(to), size(to));
    if (result < 0)
        return {errno == EWOULDBLOCK ? Status::blocked : Status::failed, 0, errno};
    return {Status::done, static_cast<std::size_t>(result), 0};
}

std::size_t Socket::send(std::span<const std::uint8_t> bytes, const sockaddr* address, socklen_t length) const {
    const auto result = ::sendto(file.rawValue, bytes.data(), bytes.size(), MSG_NOSIGNAL, address, length);
    if (result < 0) {
        if (errno == EWOULDBLOCK)
            throw SocketError::blocked();
        throw SocketError::failed("SendTo", errno);
    }
    return static_cast<std::size_t>(result);
}

Socket::IOResult Socket::trySend(const Message& message) const noexcept {
    iovec data{const_cast<std::uint8_t*>(message.bytes.data()), message.bytes.size()};
    alignas(cmsghdr) unsigned char control[controlBufferSize] = {};
    msghdr header{};
    header.msg_name = const_cast<sockaddr_storage*>(&message.peerAddress.storage);
    header.msg_namelen = size(message.peerAddress);
    header.msg_iov = &data;
    header.msg_iovlen = 1;
    if (message.localAddress && (message.localAddress->family() == AF_INET || message.localAddress->family() == AF_INET6)) {
        const auto interfaceIndex = message.interfaceIndex.value_or(0);
        header.msg_control = control;
        auto* cmsg = reinterpret_cast<cmsghdr*>(control);
        if (message.localAddress->family() == AF_INET) {
            // ipi_spec_dst chooses the source address of what we send.
            in_pktinfo info{};
            info.ipi_ifindex = static_cast<int>(interfaceIndex);
            info.ipi_spec_dst = typedAddress<sockaddr_in>(*message.localAddress).sin_addr;
            info.ipi_addr = info.ipi_spec_dst;
            cmsg->cmsg_level = IPPROTO_IP;
            cmsg->cmsg_type = IP_PKTINFO;
            cmsg->cmsg_len = CMSG_LEN(sizeof info);
            std::memcpy(CMSG_DATA(cmsg), &info, sizeof info);
            header.msg_controllen = CMSG_SPACE(sizeof info);
        } else {
            in6_pktinfo info{};
            info.ipi6_ifindex = interfaceIndex;
            info.ipi6_addr = typedAddress<sockaddr_in6>(*message.localAddress).sin6_addr;
            cmsg->cmsg_level = IPPROTO_IPV6;
            cmsg->cmsg_type = IPV6_PKTINFO;
            cmsg->cmsg_len = CMSG_LEN(sizeof info);
            std::memcpy(CMSG_DATA(cmsg), &info, sizeof info);
            header.msg_controllen = CMSG_SPACE(sizeof info);
        }
    }
    const auto result = ::sendmsg(file.rawValue, &header, MSG_NOSIGNAL);
    if (result < 0)
        return {errno == EWOULDBLOCK ? Status::blocked : Status::failed, 0, errno};
    return {Status::done, static_cast<std::size_t>(result), 0};
}

std::size_t Socket::send(const Message& message) const {
    const auto result = trySend(message);
    if (result.blocked())
        throw SocketError::blocked();
    if (!result.done())
        throw SocketError::failed("SendMsg", result.errnoValue);
    return result.count;
}

}  // namespace orvel::net
