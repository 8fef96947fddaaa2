#include "app/WebSocketRoute.h"

#include "app/AppLogger.h"
#include "app/OrvelMessageHandler.h"
#include "websocket/WebSocketHTTPHandler.h"
#include "net/SocketOwner.h"

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>

namespace orvel {

namespace {

constexpr std::int64_t frameSize = 16384;
constexpr std::string_view localOrigin = "http://localhost";

http::HTTPResponse forbidden() {
    return http::HTTPResponse(http::HTTPVersion::http11, http::HTTPStatusCode::forbidden);
}

net::Socket::Address socketAddress(const http::HTTPRequest::Address& address) {
    switch (address.kind) {
        case http::HTTPRequest::Address::Kind::ip4: return net::Socket::Address::ip4(address.text, address.port);
        case http::HTTPRequest::Address::Kind::ip6: return net::Socket::Address::ip6(address.text, address.port);
        case http::HTTPRequest::Address::Kind::unix: break;
    }
    return net::Socket::Address::unix(address.text);
}

// The user id that owns the peer's socket; the reason in `failure` when the kernel cannot tell.
std::optional<std::uint32_t> connectionOwner(const http::HTTPRequest& request, std::string& failure) {
    if (!request.remoteAddress || !request.localAddress) {
        failure = "no connection addresses";
        return std::nullopt;
    }
    try {
        return net::socketOwner(socketAddress(*request.remoteAddress), socketAddress(*request.localAddress));
    } catch (const async::Error& error) {
        failure = error.description();
        return std::nullopt;
    }
}

}  // namespace

bool isAllowedOrigin(std::string_view origin) noexcept {
    if (origin.ends_with(allowedOriginSuffix)) return true;
    if (!origin.starts_with(localOrigin)) return false;
    std::string_view rest = origin.substr(localOrigin.size());
    if (rest.empty()) return true;
    if (rest.front() != ':') return false;
    rest.remove_prefix(1);
    return !rest.empty() && rest.size() <= 5 &&
           std::all_of(rest.begin(), rest.end(), [](char c) { return c >= '0' && c <= '9'; });
}

async::Task<http::HTTPResponse> handleWebSocketRoute(http::HTTPRequest request,
                                                     std::shared_ptr<http::WSMessageHandler> messageHandler,
                                                     net::Logger logger) {
    // Every account on this machine can reach the port; only this user's programs may listen.
    std::string failure;
    const auto owner = connectionOwner(request, failure);
    if (!owner) {
        logger->logError([&] { return "Could not tell the user of the connection (" + failure + "), rejecting WebSocket connection."; });
        co_return forbidden();
    }
    if (*owner != ::geteuid()) {
        logger->logError([&] { return "Connection from user " + std::to_string(*owner) + " is not allowed, rejecting WebSocket connection."; });
        co_return forbidden();
    }
    const auto origin = request.headers.value("Origin");
    if (!origin) {
        logger->logError("Origin header is not present, rejecting WebSocket connection.");
        co_return forbidden();
    }
    if (!isAllowedOrigin(*origin)) {
        logger->logError([&] { return "Origin " + std::string(*origin) + " is not allowed, rejecting WebSocket connection."; });
        co_return forbidden();
    }
    const http::WebSocketHTTPHandler upgrade(std::move(messageHandler), frameSize);
    co_return upgrade.respond(request);
}

}  // namespace orvel
