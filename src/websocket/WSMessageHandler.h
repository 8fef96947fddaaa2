#pragma once
#include "async/AsyncStream.h"
#include "async/Task.h"
#include "websocket/WSMessage.h"

#include <cstddef>
#include <functional>

namespace orvel::http {

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
    virtual async::Task<async::AsyncStream<WSMessage>> makeMessages(async::AsyncStream<WSMessage> incoming) = 0;
    // The same, for a handler that sizes the budget of each connection itself (by the rate it
    // streams at, say). By default the connection keeps the budget it was given.
    virtual async::Task<async::AsyncStream<WSMessage>> makeMessages(async::AsyncStream<WSMessage> incoming,
                                                                    SetSendBudget setSendBudget) {
        return makeMessages(std::move(incoming));
    }
};

}  // namespace orvel::http
