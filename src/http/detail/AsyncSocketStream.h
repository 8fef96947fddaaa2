#pragma once
#include "http/detail/ConnectionReader.h"
#include "net/AsyncSocket.h"

namespace orvel::http::detail {

// A connection's bytes over an AsyncSocket: tries go straight to the descriptor, waits park on
// the socket's pool.
class AsyncSocketStream final : public ByteStream {
public:
    explicit AsyncSocketStream(net::AsyncSocket socket) : socket_(std::move(socket)) {}

    const net::AsyncSocket& socket() const noexcept { return socket_; }

    net::Socket::IOResult tryRead(void* into, std::size_t length) noexcept override {
        return socket_.socket().tryRead(into, length);
    }
    net::Socket::IOResult tryWrite(const void* from, std::size_t length) noexcept override {
        return socket_.socket().tryWrite(from, length);
    }
    async::Task<void> waitUntil(net::Socket::Event event) override { co_await socket_.waitUntil(event); }
    void close() noexcept override {
        try {
            socket_.close();
        } catch (const async::Error&) {
            // On Linux the descriptor is released even when close reports an error.
        }
    }

private:
    net::AsyncSocket socket_;
};

}  // namespace orvel::http::detail
