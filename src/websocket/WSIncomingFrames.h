#pragma once
#include "async/Task.h"
#include "websocket/WSFrame.h"

#include <optional>

namespace orvel::http {

// The incoming frames of one upgraded connection, pulled one at a time: each next() decodes one
// frame from the connection. Nothing once the peer has gone; throws when a frame cannot be read.
// One consumer at a time.
class WSIncomingFrames {
public:
    virtual ~WSIncomingFrames() = default;
    virtual async::Task<std::optional<WSFrame>> next() = 0;
};

}  // namespace orvel::http
