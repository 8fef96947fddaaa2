#include "http/HTTPConnection.h"

#include "http/WSConnectionFrames.h"

namespace orvel::http {

// Hand-over of a connection to a WebSocket handler (webSocket payload); the WebSocket layer
// does the work (WSConnectionFrames.cpp).
async::Task<void> HTTPConnection::sendWebSocket(std::shared_ptr<WSHandler> handler, std::string header) {
    co_await serveWebSocket(*this, std::move(handler), std::move(header));
}

}  // namespace orvel::http
