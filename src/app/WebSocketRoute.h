#pragma once
#include "async/Task.h"
#include "http/HTTPRequest.h"
#include "http/HTTPResponse.h"
#include "websocket/WSMessageHandler.h"
#include "net/Logging.h"

#include <memory>
#include <string_view>

namespace orvel {

// Sites of ours that may stream; compared with the end of the whole Origin value.
inline constexpr std::string_view allowedOriginSuffix = ".tamrix.com";

// A page may stream when its origin is exactly http://localhost, http://localhost: followed by a
// port of 1 to 5 digits and nothing else, or ends with allowedOriginSuffix. Case matters. A mere
// prefix test would admit http://localhost.evil.example.
bool isAllowedOrigin(std::string_view origin) noexcept;

// The catch-all route: 403 with no headers and an empty body (and a log line) for a connection
// whose socket belongs to another user (or whose owner cannot be found), then for a missing or
// foreign origin; otherwise the WebSocket handshake around OrvelMessageHandler with frames of at most
// 16384 bytes, with the application's message handler (one for every connection) and log.
async::Task<http::HTTPResponse> handleWebSocketRoute(http::HTTPRequest request,
                                                     std::shared_ptr<http::WSMessageHandler> messageHandler,
                                                     net::Logger logger);

}  // namespace orvel
