#pragma once
#include "async/AsyncStream.h"
#include "async/Task.h"
#include "websocket/WSMessage.h"

#include <cstddef>
#include <functional>

namespace orvel::http {

// A connection's messages, named by the way they go: read from the peer, or to be sent to it.
using WSIncomingMessages = async::AsyncStream<WSMessage>;
using WSOutgoingMessages = async::AsyncStream<WSMessage>;

// What an application implements to talk WebSocket in whole messages: given the connection's
// incoming messages, return the messages to send. Asked once per connection, possibly for
// several connections at once. The incoming sequence ends when the peer is gone; the
// connection closes once the returned sequence ends.
class WSMessageHandler {
public:
    // Sets how many bytes the connection may hold for a peer that does not read (frames queued
    // and not yet written) before it ends with 1008 "Client too slow". Any thread, any time.
    using SetSendBudget = std::function<void(std::size_t bytes)>;

    virtual ~WSMessageHandler() = default;
    virtual async::Task<WSOutgoingMessages> makeMessages(WSIncomingMessages incoming) = 0;
    // The same, for a handler that sizes the budget of each connection itself (by the rate it
    // streams at, say). By default the connection keeps the budget it was given.
    virtual async::Task<WSOutgoingMessages> makeMessages(WSIncomingMessages incoming, SetSendBudget setSendBudget) {
        return makeMessages(std::move(incoming));
    }
};

}  // namespace orvel::http
