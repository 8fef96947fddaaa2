#pragma once
// Runs the real orvel executable and talks to it as a page would: plain HTTP/1.1 and a minimal
// WebSocket client over loopback. Port 8505 is fixed, so every test that starts orvel first
// takes a lock file shared by all test processes on this machine.

#include "e2e/Process.h"
#include "http/HTTPTestSupport.h"
#include "net/SocketAddress.h"
#include "websocket/WSTestSupport.h"

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

// A socket on 127.0.0.1:8505 with SO_REUSEADDR, as orvel binds it; invalid if the port is taken.
inline Fd bindOrvelPort() {
    Fd socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    int on = 1;
    ::setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    const auto address = net::inet("127.0.0.1", orvelPort);
    return ::bind(socket.get(), net::addressPointer(address), sizeof address) == 0 ? std::move(socket) : Fd();
}

// A connection to 127.0.0.1:port; invalid if refused.
inline Fd connectTo(std::uint16_t port) {
    Fd socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const auto address = net::inet("127.0.0.1", port);
    return ::connect(socket.get(), net::addressPointer(address), sizeof address) == 0 ? std::move(socket) : Fd();
}

// Sends one request and returns the whole answer.
inline std::string httpExchange(const std::string& request) {
    http::LoopbackClient client(orvelPort);
    client.send(request);
    return client.response();
}

// A page's side of one WebSocket: handshake, masked text out, whole messages in.
class WebSocketClient {
public:
    struct Message {
        int opcode = 0;  // 1 text, 2 binary, 8 close
        std::string payload;
    };

    // Connects and sends the opening handshake with this Origin (none when empty).
    explicit WebSocketClient(const std::string& origin) : client_(std::make_unique<http::WSLoopbackClient>(orvelPort)) {
        std::string request = "GET / HTTP/1.1\r\nHost: 127.0.0.1:8505\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                              "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n";
        if (!origin.empty()) request += "Origin: " + origin + "\r\n";
        client_->send(request + "\r\n");
        head_ = client_->response();
    }

    std::string statusLine() const { return head_.substr(0, head_.find("\r\n")); }

    void sendText(std::string_view text) { client_->sendFrame(http::frame(http::WSFrame::Opcode::text, true, http::bytesOf(text))); }

    // The next whole message (continuations joined); nullopt when the connection ended first.
    std::optional<Message> receive() {
        Message message;
        while (auto frame = client_->readFrame()) {
            if (frame->opcode != http::WSFrame::Opcode::continuation) message.opcode = static_cast<int>(frame->opcode);
            message.payload.append(frame->payload.begin(), frame->payload.end());
            if (frame->fin) return message;
        }
        return std::nullopt;
    }

    // A clean close from the page's side, then the socket goes.
    void close() {
        client_->sendFrame(http::frame(http::WSFrame::Opcode::close, true, {0x03, 0xE8}));
        client_.reset();
    }
    // The socket goes without a closing handshake, as when a tab is killed.
    void drop() { client_.reset(); }

private:
    std::unique_ptr<http::WSLoopbackClient> client_;
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
        return waitUntil([&] { return waitForExit(0s) || connectTo(orvelPort); }, 30s) && !waitForExit(0s);
    }

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
