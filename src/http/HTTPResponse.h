#pragma once
#include "async/Error.h"
#include "http/HTTPBodySequence.h"
#include "http/HTTPHeader.h"
#include "http/HTTPStatusCode.h"
#include "http/HTTPUpgradeHandler.h"
#include "http/HTTPVersion.h"

#include <memory>
#include <string>
#include <utility>
#include <variant>

namespace orvel::http {

// A response: status, headers and either a body or a handler that takes the connection over
// once the header block is written (a WebSocket handler). A plain value; bodies are shared.
class HTTPResponse {
public:
    // A header name or value holding CR, LF or NUL: written out, it would end the header block
    // early or add headers of someone else's choosing.
    class InvalidHeaderError final : public async::Error {
    public:
        InvalidHeaderError() : Error("Invalid Header Field") {}
    };

    class Payload {
    public:
        enum class Kind { httpBody, webSocket };

        static Payload httpBody(HTTPBodySequence body) { return Payload(std::move(body)); }
        static Payload webSocket(std::shared_ptr<HTTPUpgradeHandler> handler) { return Payload(std::move(handler)); }

        Kind kind() const noexcept { return value_.index() == 0 ? Kind::httpBody : Kind::webSocket; }
        // The body of an httpBody payload, else null.
        const HTTPBodySequence* body() const noexcept { return std::get_if<HTTPBodySequence>(&value_); }
        // The handler of a webSocket payload, else null.
        const std::shared_ptr<HTTPUpgradeHandler>* webSocketHandler() const noexcept {
            return std::get_if<std::shared_ptr<HTTPUpgradeHandler>>(&value_);
        }

    private:
        explicit Payload(HTTPBodySequence body) : value_(std::move(body)) {}
        explicit Payload(std::shared_ptr<HTTPUpgradeHandler> handler) : value_(std::move(handler)) {}
        std::variant<HTTPBodySequence, std::shared_ptr<HTTPUpgradeHandler>> value_;
    };

    HTTPResponse(HTTPVersion version, HTTPStatusCode statusCode, HTTPHeaders headers, HTTPBodySequence body)
        : version(std::move(version)),
          statusCode(std::move(statusCode)),
          headers(std::move(headers)),
          payload(Payload::httpBody(std::move(body))) {}
    HTTPResponse(HTTPVersion version, HTTPStatusCode statusCode, HTTPHeaders headers = {}, std::string body = {})
        : HTTPResponse(std::move(version), std::move(statusCode), std::move(headers),
                       HTTPBodySequence(std::move(body))) {}
    HTTPResponse(HTTPStatusCode statusCode, HTTPHeaders headers, HTTPBodySequence body)
        : HTTPResponse(HTTPVersion::http11, std::move(statusCode), std::move(headers), std::move(body)) {}
    explicit HTTPResponse(HTTPStatusCode statusCode, HTTPHeaders headers = {}, std::string body = {})
        : HTTPResponse(HTTPVersion::http11, std::move(statusCode), std::move(headers),
                       HTTPBodySequence(std::move(body))) {}
    // 101 Switching Protocols; the handshake supplies the Upgrade, Connection and accept headers.
    HTTPResponse(std::shared_ptr<HTTPUpgradeHandler> webSocketHandler, HTTPHeaders headers)
        : version(HTTPVersion::http11),
          statusCode(HTTPStatusCode::switchingProtocols),
          headers(std::move(headers)),
          payload(Payload::webSocket(std::move(webSocketHandler))) {}

    HTTPVersion version;
    HTTPStatusCode statusCode;
    HTTPHeaders headers;
    Payload payload;

    // Throws InvalidHeaderError unless every header can be written as it stands.
    void checkHeaders() const;

    // Every byte of the body; empty for a WebSocket response.
    async::Task<HTTPBodySequence::Bytes> bodyData() const;
};

}  // namespace orvel::http
