#pragma once
// Runs the real orvel executable and talks to it as a page would: plain HTTP/1.1 and a minimal
// WebSocket client over loopback. Port 8505 is fixed, so every test that starts orvel first
// takes a lock file shared by all test processes on this machine.

#include "e2e/Process.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/file.h>
#include <sys/socket.h>

#include <cstdint>

namespace orvel::test {

inline constexpr std::uint16_t orvelPort = 8505;

// Held for a whole test: other processes running orvel wait for it.
class PortLock {
public:
    PortLock() : fd_(::open("/tmp/orvel-test-port-8505.lock", O_RDWR | O_CREAT | O_CLOEXEC, 0666)) {
        if (!fd_ || !waitUntil([&] { return ::flock(fd_.get(), LOCK_EX | LOCK_NB) == 0; }, 240s))
            throw std::runtime_error("cannot take the port 8505 lock file");
    }

private:
    Fd fd_;
};

inline sockaddr_in loopbackAddress(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

// A socket on 127.0.0.1:8505 with SO_REUSEADDR, as orvel binds it; invalid if the port is taken.
inline Fd bindOrvelPort() {
    Fd socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    int on = 1;
    ::setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    auto address = loopbackAddress(orvelPort);
    if (::bind(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) return Fd();
    return socket;
}

// A connection to orvel with receive and send time-outs as hang guards; invalid if refused.
inline Fd connectToOrvel() {
    Fd socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    timeval guard{30, 0};
    ::setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &guard, sizeof guard);
    ::setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &guard, sizeof guard);
    auto address = loopbackAddress(orvelPort);
    if (::connect(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) return Fd();
    return socket;
}

inline void sendAll(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        ssize_t n = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (n <= 0) throw std::runtime_error(std::string("send: ") + std::strerror(errno));
        bytes.remove_prefix(static_cast<std::size_t>(n));
    }
}

// Whatever arrives until `enough` holds for it or the connection ends.
template <class Enough>
std::string receiveUntil(int fd, std::string received, Enough enough) {
    char buffer[65536];
    while (!enough(received)) {
        ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
        if (n <= 0) break;
        received.append(buffer, static_cast<std::size_t>(n));
    }
    return received;
}

struct HTTPAnswer {
    std::string statusLine;
    std::string head;  // header lines, each ending in \r\n
    std::string body;
};

// Sends one request and reads the answer until the server closes the connection.
inline HTTPAnswer httpExchange(const std::string& request) {
    Fd socket = connectToOrvel();
    if (!socket) throw std::runtime_error("cannot connect to orvel");
    sendAll(socket.get(), request);
    const std::string response = receiveUntil(socket.get(), "", [](const std::string&) { return false; });
    const auto lineEnd = response.find("\r\n"), headEnd = response.find("\r\n\r\n");
    if (headEnd == std::string::npos) return {response, "", ""};
    return {response.substr(0, lineEnd), response.substr(lineEnd + 2, headEnd - lineEnd), response.substr(headEnd + 4)};
}

// A page's side of one WebSocket: handshake, short masked text out, unmasked messages in.
class WebSocketClient {
public:
    struct Message {
        int opcode = 0;  // 1 text, 2 binary, 8 close
        std::string payload;
    };

    // Connects and sends the opening handshake with this Origin (none when empty).
    explicit WebSocketClient(const std::string& origin) : socket_(connectToOrvel()) {
        if (!socket_) throw std::runtime_error("cannot connect to orvel");
        std::string request = "GET / HTTP/1.1\r\nHost: 127.0.0.1:8505\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                              "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n";
        if (!origin.empty()) request += "Origin: " + origin + "\r\n";
        sendAll(socket_.get(), request + "\r\n");
        buffered_ = receiveUntil(socket_.get(), "", [](const std::string& r) { return r.find("\r\n\r\n") != std::string::npos; });
        const auto end = buffered_.find("\r\n\r\n");
        head_ = buffered_.substr(0, end == std::string::npos ? buffered_.size() : end + 4);
        buffered_.erase(0, head_.size());
    }

    std::string statusLine() const { return head_.substr(0, head_.find("\r\n")); }
    const std::string& head() const { return head_; }

    void sendText(std::string_view text) { sendFrame(0x1, text); }

    // The next whole message (continuations joined); nullopt when the connection ended first.
    std::optional<Message> receive() {
        Message message;
        while (true) {
            if (!need(2)) return std::nullopt;
            const auto b0 = byte(0), b1 = byte(1);
            if (b1 & 0x80) throw std::runtime_error("the server masked a frame");
            std::size_t header = 2, length = b1 & 0x7f;
            if (length == 127) throw std::runtime_error("a frame longer than these tests expect");
            if (length == 126) {
                if (!need(4)) return std::nullopt;
                header = 4;
                length = (byte(2) << 8) | byte(3);
            }
            if (!need(header + length)) return std::nullopt;
            if ((b0 & 0x0f) != 0) message.opcode = b0 & 0x0f;
            message.payload += buffered_.substr(header, length);
            buffered_.erase(0, header + length);
            if (b0 & 0x80) return message;
        }
    }

    // A clean close from the page's side, then the socket goes.
    void close() {
        sendFrame(0x8, std::string("\x03\xe8", 2));
        socket_ = Fd();
    }
    // The socket goes without a closing handshake, as when a tab is killed.
    void drop() { socket_ = Fd(); }

private:
    std::size_t byte(std::size_t at) const { return static_cast<unsigned char>(buffered_[at]); }
    bool need(std::size_t bytes) {
        buffered_ = receiveUntil(socket_.get(), std::move(buffered_), [&](const std::string& r) { return r.size() >= bytes; });
        return buffered_.size() >= bytes;
    }
    void sendFrame(int opcode, std::string_view payload) {
        if (payload.size() >= 126) throw std::runtime_error("a frame longer than these tests send");
        const char mask[4] = {0x12, 0x34, 0x56, 0x78};
        std::string frame{static_cast<char>(0x80 | opcode), static_cast<char>(0x80 | payload.size())};
        frame.append(mask, 4);
        for (std::size_t i = 0; i < payload.size(); ++i) frame += static_cast<char>(payload[i] ^ mask[i % 4]);
        sendAll(socket_.get(), frame);
    }

    Fd socket_;
    std::string buffered_;
    std::string head_;
};

// One run of an orvel executable, headless and without a sound server unless the environment
// says otherwise, so nothing reaches the developer's own desktop.
class OrvelProcess : public ChildProcess {
public:
    static std::string mainBinary() { return std::string(ORVEL_BINARY_DIR) + "/orvel"; }
    static std::string variantBinary() { return std::string(ORVEL_BINARY_DIR) + "/orvel_info_variant"; }

    OrvelProcess(std::string binary, EnvironmentChanges environment)
        : ChildProcess({std::move(binary)}, {.environment = environmentWith(withDefaults(std::move(environment)))}) {}

    // False if orvel ended or did not accept connections within the guard.
    bool waitUntilServing() {
        return waitUntil([&] { return waitForExit(0s) || connectToOrvel(); }, 30s) && !waitForExit(0s);
    }

    bool waitForLine(const std::string& text) { return waitForLineContaining(text, 30s).has_value(); }

    // SIGTERM takes the quit path; the exit code, or -1 if it did not end within the guard.
    int terminate() {
        signal(SIGTERM);
        return exitCode();
    }

private:
    static EnvironmentChanges withDefaults(EnvironmentChanges environment) {
        for (const char* name : {"DISPLAY", "WAYLAND_DISPLAY"}) environment.try_emplace(name, std::nullopt);
        environment.try_emplace("PULSE_SERVER", "unix:/nonexistent/orvel-test");
        return environment;
    }
};

}  // namespace orvel::test
