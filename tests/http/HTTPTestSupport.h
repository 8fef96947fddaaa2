#pragma once
#include "http/HTTPBodySequence.h"
#include "http/HTTPConnection.h"
#include "http/HTTPHandler.h"
#include "http/HTTPRequest.h"
#include "http/detail/URLComponents.h"
#include "net/PoolTesting.h"
#include "net/SocketAddress.h"

#include <gtest/gtest.h>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <deque>
#include <optional>
#include <string>
#include <vector>

// Helpers shared by the http tests. Every wait here is only a guard against a hang.
namespace orvel::http {

using Bytes = std::vector<std::uint8_t>;

using test::hangGuard;
using test::RecordingLogger;

inline Bytes bytesOf(std::string_view text) { return {text.begin(), text.end()}; }

// A request as the decoder would make it from "METHOD target".
inline HTTPRequest request(std::string_view method, std::string_view target, HTTPHeaders headers = {}, std::string body = {}) {
    std::string path;
    std::vector<HTTPRequest::QueryItem> query;
    detail::parseURLReference(target, path, query);
    return HTTPRequest(HTTPMethod(method), HTTPVersion::http11, path, query, std::move(headers), std::move(body));
}

// The peer's bytes in the given pieces, every other read reporting "would block" so the wait
// path runs too; after the last piece the peer has gone. Counts the bytes handed out.
class PiecesStream final : public detail::ByteStream {
public:
    explicit PiecesStream(std::vector<std::string> pieces) : pieces_(pieces.begin(), pieces.end()) {}

    net::Socket::IOResult tryRead(void* into, std::size_t length) noexcept override {
        if ((blockNext_ = !blockNext_)) return {net::Socket::IOResult::Status::blocked, 0, 0};
        while (!pieces_.empty() && pieces_.front().empty()) pieces_.pop_front();
        if (pieces_.empty()) return {net::Socket::IOResult::Status::disconnected, 0, 0};
        std::string& piece = pieces_.front();
        std::size_t n = std::min(length, piece.size());
        std::memcpy(into, piece.data(), n);
        piece.erase(0, n);
        handedOut += n;
        return {net::Socket::IOResult::Status::done, n, 0};
    }
    net::Socket::IOResult tryWrite(const void*, std::size_t length) noexcept override {
        return {net::Socket::IOResult::Status::done, length, 0};
    }
    async::Task<void> waitUntil(net::Socket::Event) override { co_return; }
    void close() noexcept override {}

    std::size_t handedOut = 0;

private:
    std::deque<std::string> pieces_;
    bool blockNext_ = false;
};

// A streamed body of buffers of the given sizes, counting the reads.
class SizedBuffers final : public HTTPBodySequence::Source {
public:
    explicit SizedBuffers(std::vector<std::size_t> sizes) : sizes_(sizes.begin(), sizes.end()) {}
    async::Task<std::optional<HTTPBodySequence::Bytes>> nextBuffer(std::size_t) override {
        ++reads;
        if (sizes_.empty()) co_return std::nullopt;
        std::size_t n = sizes_.front();
        sizes_.pop_front();
        co_return HTTPBodySequence::Bytes(n, 'h');
    }
    async::Task<std::optional<std::uint8_t>> next() override {
        ++reads;
        co_return std::nullopt;
    }

    std::atomic<int> reads{0};

private:
    std::deque<std::size_t> sizes_;
};

// A handler's answer as "<code> <headers as name=value, or -> <body>", or the error's text.
inline std::string answer(HTTPHandler& handler, HTTPRequest request) {
    try {
        HTTPResponse response = async::syncWait(handler.handleRequest(std::move(request)));
        auto bytes = async::syncWait(response.bodyData());
        std::string text = std::to_string(response.statusCode.code) + " ";
        int count = 0;
        for (HTTPHeaders::Field field : response.headers) {
            text += (count++ ? "," : "") + std::string(field.name) + "=" + std::string(field.value);
        }
        return text + (count ? " " : "- ") + std::string(bytes.begin(), bytes.end());
    } catch (const std::exception& error) {
        return error.what();
    }
}

// A blocking loopback client speaking HTTP.
class LoopbackClient {
public:
    // A receiveBuffer other than 0 sets SO_RCVBUF: a peer that does not read fills up sooner.
    explicit LoopbackClient(std::uint16_t port, int receiveBuffer = 0) : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        if (receiveBuffer > 0) ::setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
        timeval guard{static_cast<time_t>(hangGuard.count()), 0};
        ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &guard, sizeof guard);
        int one = 1;
        ::setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        sockaddr_in address = net::inet("127.0.0.1", port);
        EXPECT_EQ(::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0) << std::strerror(errno);
    }
    ~LoopbackClient() { ::close(fd_); }
    int fd() const noexcept { return fd_; }
    LoopbackClient(const LoopbackClient&) = delete;
    LoopbackClient& operator=(const LoopbackClient&) = delete;

    void send(std::string_view bytes) {
        while (!bytes.empty()) {
            ssize_t n = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (n <= 0) return;
            bytes.remove_prefix(static_cast<std::size_t>(n));
        }
    }
    // One byte; false once the server has closed the connection.
    bool sendOne(char byte) { return ::send(fd_, &byte, 1, MSG_NOSIGNAL) == 1; }
    void send(const Bytes& bytes) { send(std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size())); }
    // Sends a request and reads its response.
    std::string ask(std::string_view request) {
        send(request);
        return response();
    }
    // One response (header block and Content-Length body), or "" when the server closed first.
    std::string response() {
        for (;;) {
            if (std::size_t end = buffer_.find("\r\n\r\n"); end != std::string::npos) {
                std::size_t length = 0;
                if (auto at = buffer_.find("Content-Length: "); at < end) length = std::stoul(buffer_.substr(at + 16));
                if (buffer_.size() >= end + 4 + length) {
                    std::string one = buffer_.substr(0, end + 4 + length);
                    buffer_.erase(0, one.size());
                    return one;
                }
            }
            if (!fill()) return "";
        }
    }
    // True when the server closes the connection with nothing (more) to read.
    bool closedWithNothingMore() { return !fill() && buffer_.empty(); }

protected:
    bool fill() {
        char chunk[65536];
        ssize_t n = ::recv(fd_, chunk, sizeof chunk, 0);
        if (n < 0 && errno != ECONNRESET) ADD_FAILURE() << "recv: " << std::strerror(errno) << " (hang guard?)";
        if (n <= 0) return false;
        buffer_.append(chunk, static_cast<std::size_t>(n));
        return true;
    }

    std::string buffer_;

private:
    int fd_;
};

}  // namespace orvel::http
