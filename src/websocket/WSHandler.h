#pragma once
#include "async/Task.h"
#include "http/HTTPUpgradeHandler.h"
#include "websocket/WSIncomingFrames.h"
#include "websocket/WSOutgoingFrames.h"

#include <memory>
#include <string>

namespace orvel::http {

// Takes an upgraded connection over: given its incoming frames, returns the frames to write.
// One instance may serve many connections at once. The connection stops reading and closes
// once the outgoing frames end.
class WSHandler : public HTTPUpgradeHandler {
public:
    virtual async::Task<WSOutgoingFrames> makeFrames(std::shared_ptr<WSIncomingFrames> incoming) = 0;
    // Serves the connection's frames (serveWebSocket in WSConnectionIncomingFrames.h).
    async::Task<void> takeOver(HTTPConnection& connection, std::string header) final;
};

}  // namespace orvel::http
