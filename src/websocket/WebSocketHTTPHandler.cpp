#include "websocket/WebSocketHTTPHandler.h"

#include "websocket/MessageFrameWSHandler.h"
#include "websocket/WSHandshake.h"
#include "http/detail/Ascii.h"

#include <utility>

namespace orvel::http {

namespace {

bool hasUpgradeToken(std::string_view connection) {
    bool found = false;
    detail::forEachNonEmptyPiece(connection, ',', [&](std::string_view piece) {
        if (detail::equalsIgnoringCase(detail::trimSpaceAndNewlines(piece), "upgrade")) found = true;
    });
    return found;
}

}  // namespace

WebSocketHTTPHandler::WebSocketHTTPHandler(std::shared_ptr<WSHandler> handler,
                                           std::unordered_set<HTTPMethod> acceptedMethods)
    : handler(std::move(handler)), acceptedMethods(std::move(acceptedMethods)) {}

WebSocketHTTPHandler::WebSocketHTTPHandler(std::shared_ptr<WSMessageHandler> handler, std::int64_t frameSize)
    : WebSocketHTTPHandler(std::make_shared<MessageFrameWSHandler>(std::move(handler), frameSize),
                           std::unordered_set<HTTPMethod>{HTTPMethod::GET}) {}

std::string WebSocketHTTPHandler::validateHeaders(const HTTPHeaders& headers) {
    if (!headers.contains(HTTPHeader::host)) throw WSInvalidHandshakeError("Host header must be present");

    auto upgrade = headers.value(HTTPHeader::upgrade);
    if (!upgrade || !detail::equalsIgnoringCase(*upgrade, "websocket")) {
        throw WSInvalidHandshakeError("Upgrade header must be 'websocket'");
    }

    auto connection = headers.value(HTTPHeader::connection);
    if (!connection) throw WSInvalidHandshakeError("Connection header must must be present");
    if (!hasUpgradeToken(*connection)) throw WSInvalidHandshakeError("Connection header must include 'Upgrade'");

    auto key = headers.value(HTTPHeader::webSocketKey);
    if (!key) throw WSInvalidHandshakeError("Sec-WebSocket-Key header must be present");
    if (!WSHandshake::isValidKey(*key)) {
        throw WSInvalidHandshakeError("Sec-WebSocket-Key header must be 16 bytes encoded as base64");
    }

    auto version = headers.value(HTTPHeader::webSocketVersion);
    if (!version || *version != "13") throw WSInvalidHandshakeError("Sec-WebSocket-Version header must be '13'");

    return std::string(*key);
}

HTTPResponse WebSocketHTTPHandler::respond(const HTTPRequest& request) const {
    try {
        if (!acceptedMethods.contains(request.method)) {
            throw WSInvalidHandshakeError("HTTP Request method cannot be upgraded to websocket");
        }
        const std::string key = validateHeaders(request.headers);
        HTTPHeaders headers;
        headers.set(HTTPHeader::connection, "upgrade");
        headers.set(HTTPHeader::upgrade, "websocket");
        headers.set(HTTPHeader::webSocketAccept, WSHandshake::acceptValue(key));
        return HTTPResponse(handler, std::move(headers));
    } catch (const WSInvalidHandshakeError& error) {
        return HTTPResponse(HTTPVersion::http11, HTTPStatusCode::badRequest, HTTPHeaders{}, error.description());
    }
}

async::Task<HTTPResponse> WebSocketHTTPHandler::handleRequest(HTTPRequest request) { co_return respond(request); }

}  // namespace orvel::http
