#pragma once
#include "async/Error.h"
#include "websocket/WSHandler.h"
#include "websocket/WSMessage.h"
#include "websocket/WSMessageHandler.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace orvel::http {

// The WSHandler that speaks in messages: reassembles and checks incoming frames, hands text and
// data to a WSMessageHandler, answers pings, answers the peer's close, and cuts outgoing
// messages into frames of at most frameSize payload bytes. A close frame is always the last
// frame out. Holds no per-connection state, so
// one instance serves any number of connections.
class MessageFrameWSHandler final : public WSHandler {
public:
    // Why the reader of a connection stopped: a message it cannot accept, or the peer's close.
    class FrameError final : public async::Error {
    public:
        enum class Kind { invalid, closed };
        static FrameError invalid(std::string text) { return FrameError(Kind::invalid, std::move(text)); }
        static FrameError closed() { return FrameError(Kind::closed, "closed"); }
        Kind kind() const noexcept { return kind_; }

    private:
        FrameError(Kind kind, std::string text) : async::Error(std::move(text)), kind_(kind) {}
        Kind kind_;
    };

    // The reader stops taking frames while the handler has this much of incoming messages
    // unread: a slow application cannot make a fast peer grow our memory.
    static constexpr std::size_t maxUnreadIncoming = 16 * 1024 * 1024;

    // frameSize must be at least 1. maxSendBacklog is each connection's budget of outgoing
    // bytes not yet written, until its handler sets another.
    MessageFrameWSHandler(std::shared_ptr<WSMessageHandler> handler, std::int64_t frameSize,
                          std::size_t maxSendBacklog = WSOutgoingFrames::defaultMaxBacklog);

    async::Task<WSOutgoingFrames> makeFrames(std::shared_ptr<WSIncomingFrames> incoming) override;

    // The frames one outgoing message becomes: text or binary first, continuations after, fin on
    // the last; an empty message is one empty frame. Text is cut at byte boundaries.
    static std::vector<WSFrame> frames(WSMessage message, std::size_t frameSize);

    const std::shared_ptr<WSMessageHandler> handler;
    const std::int64_t frameSize;
    const std::size_t maxSendBacklog;
};

}  // namespace orvel::http
