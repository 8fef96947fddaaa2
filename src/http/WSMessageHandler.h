#pragma once
#include "async/AsyncStream.h"
#include "async/Task.h"
#include "http/WSMessage.h"

namespace orvel::http {

// What an application implements to talk WebSocket in whole messages: given the connection's
// incoming messages, return the messages to send. Asked once per connection, possibly for
// several connections at once. The incoming sequence ends when the peer is gone; the
// connection closes once the returned sequence ends.
class WSMessageHandler {
public:
    virtual ~WSMessageHandler() = default;
    virtual async::Task<async::AsyncStream<WSMessage>> makeMessages(async::AsyncStream<WSMessage> incoming) = 0;
};

}  // namespace orvel::http
