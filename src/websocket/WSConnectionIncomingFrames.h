#pragma once
#include "async/Continuation.h"
#include "async/Task.h"
#include "websocket/WSIncomingFrames.h"
#include "websocket/WSHandler.h"
#include "http/detail/ConnectionReader.h"

#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace orvel::http {

class HTTPConnection;

// The incoming frames of an upgraded connection, decoded one per next() from the connection's
// byte source. The peer going away (or its bytes ending inside a frame) ends the sequence
// quietly; any other failure ends it with that error. stop() lets the connection close safely:
// later reads see the end without touching the reader, and it returns once a read in progress
// has returned, so the reader need only outlive stop().
class WSConnectionIncomingFrames final : public WSIncomingFrames {
public:
    explicit WSConnectionIncomingFrames(detail::ConnectionReader& reader) : reader_(reader) {}

    async::Task<std::optional<WSFrame>> next() override;
    async::Task<void> stop();

private:
    detail::ConnectionReader& reader_;
    std::mutex mutex_;
    bool reading_ = false;
    bool stopped_ = false;
    std::optional<async::Continuation<void>> stopWaiter_;
};

// The hand-over of a connection to a WebSocket handler: asks `handler` for its outgoing frames
// (nothing is written when that fails), writes the 101 header block `header`, logs the switch,
// completes the connection's request sequence and writes frames until they end.
// `handler` must outlive the returned task.
async::Task<void> serveWebSocket(HTTPConnection& connection, WSHandler& handler, std::string header);

}  // namespace orvel::http
