#include "app/RunningInstance.h"

#include "net/OwnedDescriptor.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string_view>

namespace orvel {

namespace {

using Clock = std::chrono::steady_clock;

// Waits for `events` on `fd` until `deadline`; false when the time ran out or the wait failed.
bool waitFor(int fd, short events, Clock::time_point deadline) {
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left <= 0) return false;
        pollfd entry{fd, events, 0};
        const int ready = ::poll(&entry, 1, static_cast<int>(left));
        if (ready > 0) return true;
        if (ready == 0 || errno != EINTR) return false;
    }
}

// A version is a short line of printable text ("1.0.0", "412-a").
bool looksLikeVersion(std::string_view text) {
    return !text.empty() && text.size() <= 64 &&
           std::all_of(text.begin(), text.end(), [](char c) { return c > ' ' && c < 0x7f; });
}

}  // namespace

std::optional<std::string> runningOrvelVersion(const char* address, std::uint16_t port, std::chrono::milliseconds limit) {
    const auto deadline = Clock::now() + limit;
    net::OwnedDescriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (socket.get() < 0) return std::nullopt;
    sockaddr_in peer{};
    peer.sin_family = AF_INET;
    peer.sin_port = htons(port);
    if (::inet_pton(AF_INET, address, &peer.sin_addr) != 1) return std::nullopt;
    if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&peer), sizeof peer) != 0) {
        if (errno != EINPROGRESS || !waitFor(socket.get(), POLLOUT, deadline)) return std::nullopt;
        int error = 0;
        socklen_t length = sizeof error;
        if (::getsockopt(socket.get(), SOL_SOCKET, SO_ERROR, &error, &length) != 0 || error != 0) return std::nullopt;
    }
    const std::string request = "GET /version HTTP/1.1\r\nHost: " + std::string(address) + ":" + std::to_string(port) +
                                "\r\nConnection: close\r\n\r\n";
    if (::send(socket.get(), request.data(), request.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(request.size()))
        return std::nullopt;
    // The answer is a few hundred bytes; anything longer is not Orvel's.
    std::string response;
    char buffer[512];
    while (response.size() < 4096) {
        const ssize_t got = ::recv(socket.get(), buffer, sizeof buffer, 0);
        if (got > 0) {
            response.append(buffer, static_cast<std::size_t>(got));
        } else if (got == 0) {
            break;
        } else if (errno == EAGAIN || errno == EINTR) {
            if (!waitFor(socket.get(), POLLIN, deadline)) return std::nullopt;
        } else {
            return std::nullopt;
        }
    }
    const auto headEnd = response.find("\r\n\r\n");
    if (!response.starts_with("HTTP/1.1 200 ") || headEnd == std::string::npos) return std::nullopt;
    std::string body = response.substr(headEnd + 4);
    if (!looksLikeVersion(body)) return std::nullopt;
    return body;
}

}  // namespace orvel
