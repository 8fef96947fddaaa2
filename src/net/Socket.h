#pragma once
#include "net/SocketAddress.h"
#include "net/SocketError.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <iosfwd>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace orvel::net {

enum class SocketType { stream, datagram };

// SOCK_STREAM or SOCK_DGRAM.
int platformValue(SocketType type) noexcept;
// 1 and 2 (the platform's stream and datagram); anything else fails with "Invalid SocketType".
SocketType makeSocketType(int platformValue);

// A typed socket option: level and name as passed to setsockopt/getsockopt, the value callers
// see (Value) and the one passed to the system (SocketValue).
template <class O>
concept SocketOption = requires(const O& option, typename O::Value value, typename O::SocketValue socketValue) {
    { option.level } -> std::convertible_to<int>;
    { option.name } -> std::convertible_to<int>;
    { O::socketValue(value) } -> std::same_as<typename O::SocketValue>;
    { O::value(socketValue) } -> std::same_as<typename O::Value>;
};

struct BoolSocketOption {
    using Value = bool;
    using SocketValue = std::int32_t;
    int level;
    int name;
    static SocketValue socketValue(Value value) noexcept { return value ? 1 : 0; }
    static Value value(SocketValue socketValue) noexcept { return socketValue > 0; }
};

struct Int32SocketOption {
    using Value = std::int32_t;
    using SocketValue = std::int32_t;
    int level;
    int name;
    static SocketValue socketValue(Value value) noexcept { return value; }
    static Value value(SocketValue socketValue) noexcept { return socketValue; }
};

// Linux has no SO_NOSIGPIPE; every write passes MSG_NOSIGNAL instead, so SIGPIPE never ends the
// process. Setting this option is accepted and does nothing; reading it says true.
struct NoSIGPIPEOption {
    using Value = bool;
};

inline constexpr BoolSocketOption reuseAddress{SOL_SOCKET, SO_REUSEADDR};
inline constexpr NoSIGPIPEOption noSIGPIPE{};
inline constexpr Int32SocketOption sendBufferSize{SOL_SOCKET, SO_SNDBUF};
inline constexpr Int32SocketOption receiveBufferSize{SOL_SOCKET, SO_RCVBUF};
inline constexpr Int32SocketOption socketTypeOption{SOL_SOCKET, SO_TYPE};
// A TCP listener hands on a connection only once its first bytes are in, or after this many
// seconds without them.
inline constexpr Int32SocketOption deferAcceptSeconds{IPPROTO_TCP, TCP_DEFER_ACCEPT};
inline constexpr BoolSocketOption packetInfoIP{IPPROTO_IP, IP_PKTINFO};
inline constexpr BoolSocketOption packetInfoIPv6{IPPROTO_IPV6, IPV6_RECVPKTINFO};

// A thin value around one socket descriptor: every operation is one system call (or a short
// fixed sequence) whose failure becomes a SocketError. Copying copies the number; nothing closes
// it but close(). Any thread may use it; concurrent use of one descriptor is the caller's design.
// Hot paths use the try* twins, which return would-block and end-of-stream as values and throw
// nothing; the plain operations raise SocketError::blocked instead.
class Socket {
public:
    struct FileDescriptor {
        std::int32_t rawValue = -1;
        friend bool operator==(FileDescriptor, FileDescriptor) = default;
    };

    // File status flags (fcntl F_GETFL/F_SETFL).
    struct Flags {
        std::int32_t rawValue = 0;

        static const Flags nonBlocking;

        constexpr Flags() = default;
        constexpr explicit Flags(std::int32_t raw) : rawValue(raw) {}
        constexpr Flags(std::initializer_list<Flags> flags) {
            for (auto flag : flags)
                rawValue |= flag.rawValue;
        }

        constexpr bool contains(Flags other) const { return (rawValue & other.rawValue) == other.rawValue; }
        constexpr bool isEmpty() const { return rawValue == 0; }
        constexpr bool isSubset(Flags of) const { return (rawValue & ~of.rawValue) == 0; }
        constexpr bool isDisjoint(Flags with) const { return (rawValue & with.rawValue) == 0; }
        constexpr void insert(Flags other) { rawValue |= other.rawValue; }
        constexpr void remove(Flags other) { rawValue &= ~other.rawValue; }
        constexpr Flags operator|(Flags other) const { return Flags(rawValue | other.rawValue); }
        constexpr Flags operator&(Flags other) const { return Flags(rawValue & other.rawValue); }
        constexpr Flags operator^(Flags other) const { return Flags(rawValue ^ other.rawValue); }
        friend constexpr bool operator==(Flags, Flags) = default;
    };

    enum class Event : std::uint8_t { read = 1, write = 2 };

    // A set of events, as a bit mask.
    class Events {
    public:
        constexpr Events() = default;
        constexpr Events(Event event) : bits_(static_cast<std::uint8_t>(event)) {}  // NOLINT
        constexpr Events(std::initializer_list<Event> events) {
            for (auto event : events)
                bits_ |= static_cast<std::uint8_t>(event);
        }
        constexpr bool contains(Event event) const { return bits_ & static_cast<std::uint8_t>(event); }
        constexpr bool empty() const { return bits_ == 0; }
        constexpr void insert(Events events) { bits_ |= events.bits_; }
        constexpr void remove(Events events) { bits_ &= static_cast<std::uint8_t>(~events.bits_); }
        constexpr Events operator|(Events other) const { return fromBits(bits_ | other.bits_); }
        constexpr Events operator&(Events other) const { return fromBits(bits_ & other.bits_); }
        constexpr Events operator-(Events other) const { return fromBits(bits_ & ~other.bits_); }
        constexpr std::uint8_t bits() const { return bits_; }
        friend constexpr bool operator==(Events, Events) = default;

    private:
        static constexpr Events fromBits(int bits) {
            Events events;
            events.bits_ = static_cast<std::uint8_t>(bits & 3);
            return events;
        }
        std::uint8_t bits_ = 0;
    };

    // The readable form of an address: numeric text from inet_ntop and the port in host order,
    // or the Unix path.
    struct Address {
        enum class Kind { ip4, ip6, unix };
        Kind kind = Kind::ip4;
        std::string text;  // the address, or the Unix path
        std::uint16_t port = 0;

        static Address ip4(std::string text, std::uint16_t port) { return {Kind::ip4, std::move(text), port}; }
        static Address ip6(std::string text, std::uint16_t port) { return {Kind::ip6, std::move(text), port}; }
        static Address unix(std::string path) { return {Kind::unix, std::move(path), 0}; }
        friend bool operator==(const Address&, const Address&) = default;
    };

    // Outcome of a try* operation. `failed` carries the errno; `count` is the bytes moved.
    struct IOResult {
        enum class Status { done, blocked, disconnected, failed };
        Status status = Status::done;
        std::size_t count = 0;
        int errnoValue = 0;

        bool done() const noexcept { return status == Status::done; }
        bool blocked() const noexcept { return status == Status::blocked; }
        // The error the throwing twin raises for this outcome; `label` names the call.
        SocketError error(const char* label) const;
    };

    struct Accepted {
        FileDescriptor file;
        sockaddr_storage address{};
    };

    struct AcceptResult {
        IOResult::Status status = IOResult::Status::done;
        int errnoValue = 0;
        Accepted accepted;
    };

    struct Received {
        AnySocketAddress peerAddress;
        std::vector<std::uint8_t> bytes;
    };

    // One datagram with its packet information.
    struct Message {
        AnySocketAddress peerAddress;
        std::vector<std::uint8_t> bytes;
        std::optional<std::uint32_t> interfaceIndex;
        std::optional<AnySocketAddress> localAddress;
    };

    FileDescriptor file;

    explicit Socket(FileDescriptor file) noexcept : file(file) {}
    explicit Socket(int fd) noexcept : file{fd} {}

    // A stream socket of `domain`. The caller owns the descriptor.
    static Socket make(int domain);
    // Datagram sockets of AF_INET and AF_INET6 get packet information turned on.
    static Socket make(int domain, SocketType type);
    static Socket make(int domain, int platformType);
    // A connected Unix-domain pair; `flags` (when given) replace both descriptors' status flags.
    static std::pair<Socket, Socket> makePair(SocketType type, std::optional<Flags> flags = std::nullopt);
    static std::pair<Socket, Socket> makeNonBlockingPair(SocketType type);

    Flags flags() const;
    void setFlags(Flags flags) const;  // replaces the status flags, no merge
    SocketType socketType() const;

    template <SocketOption O>
    void setValue(typename O::Value value, const O& option) const {
        auto socketValue = O::socketValue(value);
        setOption(option.level, option.name, &socketValue, sizeof socketValue);
    }
    void setValue(bool, const NoSIGPIPEOption&) const noexcept {}

    template <SocketOption O>
    typename O::Value getValue(const O& option) const {
        typename O::SocketValue socketValue{};
        getOption(option.level, option.name, &socketValue, sizeof socketValue);
        return O::value(socketValue);
    }
    bool getValue(const NoSIGPIPEOption&) const noexcept { return true; }

    template <SocketAddress A>
    void bind(const A& address) const {
        bind(addressPointer(address), size(address));
    }
    // A failing listen closes the descriptor first ("Listen", or "Close" when that fails too).
    void listen(int maxPendingConnection) const;
    Address remotePeer() const;
    Address sockname() const;

    Accepted accept() const;
    // `nonBlocking`: the accepted descriptor starts non-blocking (saves an fcntl).
    AcceptResult tryAccept(bool nonBlocking = false) const noexcept;
    // An "Accept" failure that passes: resources ran out for a moment (EMFILE, ENFILE, ENOBUFS,
    // ENOMEM) or the peer gave up before we took it (ECONNABORTED, EPROTO, EPERM). A server
    // pauses and accepts again; any other failure is the listener's.
    static bool isTransientAcceptError(const SocketError& error) noexcept;

    // EISCONN counts as success; EINPROGRESS is `blocked` (wait for write readiness, call again).
    template <SocketAddress A>
    void connect(const A& address) const {
        connect(addressPointer(address), size(address));
    }

    void close() const;

    std::uint8_t read() const;
    std::vector<std::uint8_t> readAtMost(std::size_t length) const;
    std::size_t read(void* buffer, std::size_t length) const;
    IOResult tryRead(void* buffer, std::size_t length) const noexcept;

    // Writes from `from` on; returns the next index to write from.
    std::size_t write(std::span<const std::uint8_t> bytes, std::size_t from) const;
    std::size_t write(const void* buffer, std::size_t length) const;
    IOResult tryWrite(const void* buffer, std::size_t length) const noexcept;

    Received receive(std::size_t atMost) const;
    Message receiveMessage(std::size_t atMost) const;
    IOResult tryReceiveMessage(Message& into, std::size_t atMost) const noexcept;

    template <SocketAddress A>
    std::size_t send(std::span<const std::uint8_t> bytes, const A& to) const {
        return send(bytes, addressPointer(to), size(to));
    }
    std::size_t send(const Message& message) const;
    IOResult trySend(std::span<const std::uint8_t> bytes, const AnySocketAddress& to) const noexcept;
    IOResult trySend(const Message& message) const noexcept;

    friend bool operator==(const Socket&, const Socket&) = default;

private:
    void setOption(int level, int name, const void* value, socklen_t length) const;
    void getOption(int level, int name, void* value, socklen_t length) const;
    void bind(const sockaddr* address, socklen_t length) const;
    void connect(const sockaddr* address, socklen_t length) const;
    std::size_t send(std::span<const std::uint8_t> bytes, const sockaddr* address, socklen_t length) const;
};

inline constexpr Socket::Flags Socket::Flags::nonBlocking{O_NONBLOCK};

// "read" or "write".
std::string_view toString(Socket::Event event) noexcept;
std::ostream& operator<<(std::ostream& out, Socket::Event event);
std::ostream& operator<<(std::ostream& out, Socket::Events events);
std::ostream& operator<<(std::ostream& out, const Socket::Address& address);

// The readable form of a generic address; unsupportedAddress for other families, "inet_ntop"
// when the conversion fails.
Socket::Address makeAddress(const sockaddr_storage& storage);
inline Socket::Address makeAddress(const AnySocketAddress& address) { return makeAddress(address.storage); }

}  // namespace orvel::net

template <>
struct std::hash<orvel::net::Socket::FileDescriptor> {
    std::size_t operator()(orvel::net::Socket::FileDescriptor file) const noexcept {
        return std::hash<std::int32_t>()(file.rawValue);
    }
};

template <>
struct std::hash<orvel::net::Socket> {
    std::size_t operator()(const orvel::net::Socket& socket) const noexcept {
        return std::hash<orvel::net::Socket::FileDescriptor>()(socket.file);
    }
};
