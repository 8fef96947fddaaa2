#pragma once
#include "async/Task.h"
#include "http/HTTPDecoder.h"
#include "http/HTTPRequestSequence.h"
#include "http/HTTPResponse.h"
#include "http/detail/ConnectionReader.h"
#include "net/Logging.h"
#include "net/Socket.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace orvel::http {

// Appends a response's header block: status line, header lines (Content-Length set from a known
// body count, "chunked" added to Transfer-Encoding for an unknown one, neither for a WebSocket
// response) and the empty line.
void encodeResponseHeader(const HTTPResponse& response, std::string& out);

// One accepted connection: the socket, the peer's identity for log lines, the requests read
// from it and the writing of responses. Owned by the server's task for the connection; only
// complete() may be called from elsewhere.
class HTTPConnection {
public:
    // `stream` carries the socket's bytes; `socket` is its descriptor (closed by close()). The
    // two ends' addresses, when the caller does not know them already, are asked of the socket.
    HTTPConnection(net::Socket socket, std::shared_ptr<detail::ByteStream> stream, HTTPDecoder decoder,
                   net::Logger logger, std::optional<net::Socket::Address> remote = std::nullopt,
                   std::optional<net::Socket::Address> local = std::nullopt)
        : HTTPConnection(socket, std::move(stream), decoder, std::move(logger),
                         identify(socket, std::move(remote), std::move(local))) {}
    HTTPConnection(const HTTPConnection&) = delete;
    HTTPConnection& operator=(const HTTPConnection&) = delete;

    const std::string& hostname() const noexcept { return hostname_; }
    const net::Socket& socket() const noexcept { return socket_; }
    const net::Logger& logger() const noexcept { return logger_; }
    HTTPRequestSequence& requests() noexcept { return requests_; }
    // The connection's buffered byte source (what a WebSocket frame decoder reads from).
    detail::ConnectionReader& reader() noexcept { return *reader_; }

    // Writes one response: the header block, then the body buffer by buffer as it is produced
    // (a small body in memory goes out with the header block in one write).
    async::Task<void> send(HTTPResponse response);
    // Writes every byte, waiting while the socket is full.
    async::Task<void> write(std::string_view bytes);

    void complete() { requests_.complete(); }
    void close();

    friend bool operator==(const HTTPConnection& a, const HTTPConnection& b) noexcept { return a.socket_ == b.socket_; }

private:
    struct Peer {
        std::optional<HTTPRequest::Address> address;
        std::optional<HTTPRequest::Address> local;
        std::string hostname = "unknown";
    };
    static Peer identify(const net::Socket& socket, std::optional<net::Socket::Address> remote,
                         std::optional<net::Socket::Address> local);
    HTTPConnection(net::Socket socket, std::shared_ptr<detail::ByteStream> stream, HTTPDecoder decoder,
                   net::Logger logger, Peer peer);
    // Writes what it can without waiting; returns the count written. Throws on failure.
    std::size_t tryWrite(std::string_view bytes);

    net::Socket socket_;
    std::shared_ptr<detail::ByteStream> stream_;
    std::shared_ptr<detail::ConnectionReader> reader_;
    std::string hostname_;
    net::Logger logger_;
    HTTPRequestSequence requests_;
    std::string writeBuffer_;  // reused for every header block
    bool closed_ = false;
};

}  // namespace orvel::http

template <>
struct std::hash<orvel::http::HTTPConnection> {
    std::size_t operator()(const orvel::http::HTTPConnection& c) const noexcept {
        return std::hash<orvel::net::Socket>{}(c.socket());
    }
};
