#include "http/HTTPRequestSequence.h"

#include "net/SocketError.h"

namespace orvel::http {

HTTPRequestSequence::~HTTPRequestSequence() {
    std::lock_guard lock(mutex_);
    decodeScope_.reset();
}

void HTTPRequestSequence::complete() {
    std::lock_guard lock(mutex_);
    isComplete_.store(true, std::memory_order_release);
    if (decodeScope_) decodeScope_->cancel();
}

async::Task<std::optional<HTTPRequest>> HTTPRequestSequence::next() {
    {
        std::lock_guard lock(mutex_);
        if (isComplete()) co_return std::nullopt;
        if (!decodeScope_) decodeScope_.emplace();
    }
    try {
        // What the handler left of a streamed body stands in front of the next request: drop
        // it (as part of reading that request, so complete() cancels it too).
        if (streamedBody_) {
            auto discard = HTTPDecoder::discardUnreadBody(*std::exchange(streamedBody_, std::nullopt));
            co_await decodeScope_->run(discard);
        }
        auto decode = decoder_.readRequest(bytes_);
        HTTPRequest request = co_await decodeScope_->run(decode);
        request.remoteAddress = remoteAddress_;
        if (!request.shouldKeepAlive()) isComplete_.store(true, std::memory_order_release);
        if (request.bodySequence.source()) streamedBody_ = request.bodySequence;
        co_return request;
    } catch (const net::SocketError& error) {
        if (error.kind() != net::SocketError::Kind::disconnected) throw;
    } catch (const SequenceTerminationError&) {
    }
    // The peer closed, possibly in the middle of a request.
    isComplete_.store(true, std::memory_order_release);
    co_return std::nullopt;
}

}  // namespace orvel::http
