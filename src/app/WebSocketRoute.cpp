#include "app/WebSocketRoute.h"

#include "app/AppLogger.h"
#include "app/OrvelMessageHandler.h"
#include "http/WebSocketHTTPHandler.h"

#include <algorithm>
#include <string>
#include <utility>

namespace orvel {

namespace {

constexpr std::int64_t frameSize = 16384;
constexpr std::string_view localOrigin = "http://localhost";

http::HTTPResponse forbidden() {
    return http::HTTPResponse(http::HTTPVersion::http11, http::HTTPStatusCode::forbidden);
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

async::Task<http::HTTPResponse> handleWebSocketRoute(http::HTTPRequest request) {
    // One handler for every connection: it holds no per-connection state.
    static const auto messageHandler = std::make_shared<OrvelMessageHandler>();
    return handleWebSocketRoute(std::move(request), messageHandler, appLogger());
}

async::Task<http::HTTPResponse> handleWebSocketRoute(http::HTTPRequest request,
                                                     std::shared_ptr<http::WSMessageHandler> messageHandler,
                                                     net::Logger logger) {
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
