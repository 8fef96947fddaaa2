#include "http/HTTPConnection.h"

#include "http/detail/Ascii.h"
#include "net/SocketError.h"

#include <charconv>

namespace orvel::http {
namespace {

// A body this small is copied behind the header block: one send instead of two.
constexpr std::size_t coalescedBodyBytes = 16 * 1024;

void appendNumber(std::string& out, std::int64_t value) {
    char digits[24];
    auto [end, error] = std::to_chars(digits, digits + sizeof digits, value);
    out.append(digits, end);
}

HTTPRequest::Address addressOf(const net::Socket::Address& address) {
    switch (address.kind) {
        case net::Socket::Address::Kind::ip4: return HTTPRequest::Address::ip4(address.text, address.port);
        case net::Socket::Address::Kind::ip6: return HTTPRequest::Address::ip6(address.text, address.port);
        case net::Socket::Address::Kind::unix: break;
    }
    return HTTPRequest::Address::unix(address.text);
}

}  // namespace

void encodeResponseHeader(const HTTPResponse& response, std::string& out) {
    out.append(response.version.rawValue);
    out += ' ';
    appendNumber(out, response.statusCode.code);
    out += ' ';
    out.append(response.statusCode.phrase);
    out.append("\r\n");

    const HTTPBodySequence* body = response.payload.body();
    std::optional<std::int64_t> count = body ? body->count() : std::nullopt;
    bool wroteLength = false;
    bool wroteEncoding = false;
    for (HTTPHeaders::Field field : response.headers) {
        out.append(field.name);
        out.append(": ");
        if (body && count && detail::equalsIgnoringCase(field.name, HTTPHeader::contentLength)) {
            appendNumber(out, *count);  // the handler's spelling stays, the value is ours
            wroteLength = true;
        } else if (body && !count && detail::equalsIgnoringCase(field.name, HTTPHeader::transferEncoding)) {
            detail::forEachNonEmptyPiece(field.value, ',', [&](std::string_view piece) {
                out.append(detail::trimBlanks(piece));
                out.append(", ");
            });
            out.append("chunked");
            wroteEncoding = true;
        } else {
            out.append(field.value);
        }
        out.append("\r\n");
    }
    if (body && count && !wroteLength) {
        out.append("Content-Length: ");
        appendNumber(out, *count);
        out.append("\r\n");
    }
    if (body && !count && !wroteEncoding) out.append("Transfer-Encoding: chunked\r\n");
    out.append("\r\n");
}

HTTPConnection::Peer HTTPConnection::identify(const net::Socket& socket, std::optional<net::Socket::Address> remote,
                                              std::optional<net::Socket::Address> local) {
    Peer peer;
    try {
        if (!remote) remote = socket.remotePeer();
        peer.address = addressOf(*remote);
        peer.hostname = remote->text;
        try {
            if (!local) local = socket.sockname();
            peer.local = addressOf(*local);
            // A Unix-domain peer usually has no name of its own: name it after our side.
            if (remote->kind == net::Socket::Address::Kind::unix) peer.hostname = local->text;
        } catch (const async::Error&) {
        }
    } catch (const async::Error&) {
    }
    return peer;
}

HTTPConnection::HTTPConnection(net::Socket socket, std::shared_ptr<detail::ByteStream> stream, HTTPDecoder decoder,
                               net::Logger logger, Peer peer)
    : socket_(socket),
      stream_(std::move(stream)),
      reader_(std::make_shared<detail::ConnectionReader>(stream_)),
      hostname_(std::move(peer.hostname)),
      logger_(std::move(logger)),
      requests_(reader_, std::move(peer.address), decoder, std::move(peer.local)) {}

std::size_t HTTPConnection::tryWrite(std::string_view bytes) {
    std::size_t written = 0;
    while (written < bytes.size()) {
        net::Socket::IOResult result = stream_->tryWrite(bytes.data() + written, bytes.size() - written);
        switch (result.status) {
            case net::Socket::IOResult::Status::done: written += result.count; continue;
            case net::Socket::IOResult::Status::blocked: return written;
            case net::Socket::IOResult::Status::disconnected: throw net::SocketError::disconnected();
            case net::Socket::IOResult::Status::failed: throw result.error("Write");
        }
    }
    return written;
}

async::Task<void> HTTPConnection::write(std::string_view bytes) {
    for (;;) {
        bytes.remove_prefix(tryWrite(bytes));
        if (bytes.empty()) co_return;
        co_await stream_->waitUntil(net::Socket::Event::write);
    }
}

async::Task<void> HTTPConnection::send(HTTPResponse response) {
    writeBuffer_.clear();
    encodeResponseHeader(response, writeBuffer_);
    if (const auto* handler = response.payload.webSocketHandler()) {
        co_await (*handler)->takeOver(*this, std::move(writeBuffer_));
        co_return;
    }
    const HTTPBodySequence& body = *response.payload.body();
    auto memory = body.bytesInMemory();
    if (memory && memory->size() <= coalescedBodyBytes) {
        writeBuffer_.append(*memory);
        // Almost always the socket takes it all at once: no extra coroutine on the hot path.
        std::size_t written = tryWrite(writeBuffer_);
        if (written < writeBuffer_.size()) co_await write(std::string_view(writeBuffer_).substr(written));
        co_return;
    }
    co_await write(writeBuffer_);
    if (memory) {
        co_await write(*memory);
        co_return;
    }
    auto iterator = body.makeIterator();
    while (auto buffer = co_await iterator.next()) {
        co_await write(std::string_view(reinterpret_cast<const char*>(buffer->data()), buffer->size()));
    }
}

void HTTPConnection::close() {
    if (std::exchange(closed_, true)) return;
    stream_->close();
}

}  // namespace orvel::http
