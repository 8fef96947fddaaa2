#pragma once
#include "http/HTTPHandler.h"
#include "http/HTTPMethod.h"
#include "websocket/WSHandler.h"
#include "websocket/WSHandshake.h"
#include "websocket/WSMessageHandler.h"

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_set>

namespace orvel::http {

// Answers a WebSocket opening handshake (RFC 6455 section 4.2): 101 with `handler` as the
// payload that takes the connection over, or 400 with a body saying what was wrong. Never throws.
// Holds no mutable state; every connection shares `handler`.
class WebSocketHTTPHandler final : public HTTPHandler {
public:
    WebSocketHTTPHandler(std::shared_ptr<WSHandler> handler, std::unordered_set<HTTPMethod> acceptedMethods);
    // GET only, with the messages cut into frames of at most frameSize bytes.
    WebSocketHTTPHandler(std::shared_ptr<WSMessageHandler> handler, std::int64_t frameSize);

    async::Task<HTTPResponse> handleRequest(HTTPRequest request) override;

    // The same, synchronously.
    HTTPResponse respond(const HTTPRequest& request) const;

    // Checks the upgrade headers and returns the client's key as received, or throws
    // WSInvalidHandshakeError with the first rule the headers break.
    static std::string validateHeaders(const HTTPHeaders& headers);

    const std::shared_ptr<WSHandler> handler;
    const std::unordered_set<HTTPMethod> acceptedMethods;
};

}  // namespace orvel::http
