#include "http/HTTPRequestSequence.h"

#include "async/Error.h"
#include "net/SocketError.h"
#include "net/Timeout.h"

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

bool HTTPRequestSequence::timeOut(double seconds) {
    std::lock_guard lock(mutex_);
    if (!decoding_ || isComplete()) return false;
    timedOut_ = seconds;
    isComplete_.store(true, std::memory_order_release);
    decodeScope_->cancel();
    return true;
}

async::Task<std::optional<HTTPRequest>> HTTPRequestSequence::next() {
    {
        std::lock_guard lock(mutex_);
        if (isComplete()) co_return std::nullopt;
        if (!decodeScope_) decodeScope_.emplace();
        decoding_ = true;
    }
    struct Decoding {
        HTTPRequestSequence* self;
        ~Decoding() {
            std::lock_guard lock(self->mutex_);
            self->decoding_ = false;
        }
    } decoding{this};
    try {
        // What the handler left of a streamed body stands in front of the next request: drop
        // it (as part of reading that request, so complete() cancels it too). The peer had no
        // reason to send while the handler did not read: its clock starts now.
        if (streamedBody_) {
            bytes_->beginBody();
            auto discard = HTTPDecoder::discardUnreadBody(*std::exchange(streamedBody_, std::nullopt));
            co_await decodeScope_->run(discard);
        }
        auto decode = decoder_.readRequest(bytes_);
        HTTPRequest request = co_await decodeScope_->run(decode);
        request.remoteAddress = remoteAddress_;
        request.localAddress = localAddress_;
        if (!request.shouldKeepAlive()) isComplete_.store(true, std::memory_order_release);
        if (request.bodySequence.source()) streamedBody_ = request.bodySequence;
        co_return request;
    } catch (const net::SocketError& error) {
        if (error.kind() != net::SocketError::Kind::disconnected) throw;
    } catch (const SequenceTerminationError&) {
    } catch (const async::CancellationError&) {
        std::optional<double> seconds;
        {
            std::lock_guard lock(mutex_);
            seconds = timedOut_;
        }
        if (seconds) throw net::TimeoutError(*seconds);
        throw;
    }
    // The peer closed, possibly in the middle of a request.
    isComplete_.store(true, std::memory_order_release);
    co_return std::nullopt;
}

}  // namespace orvel::http
