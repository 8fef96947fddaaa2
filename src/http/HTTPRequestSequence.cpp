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
    scopeCancelled_ = true;
    if (decodeScope_) decodeScope_->cancel();
}

bool HTTPRequestSequence::timeOut(double seconds) {
    std::lock_guard lock(mutex_);
    // Not isComplete(): the body behind a connection's last request is still read on its clock.
    if (!decoding_ || scopeCancelled_) return false;
    scopeCancelled_ = true;
    timedOut_ = seconds;
    isComplete_.store(true, std::memory_order_release);
    decodeScope_->cancel();
    return true;
}

bool HTTPRequestSequence::beginDecoding(bool evenIfComplete) {
    std::lock_guard lock(mutex_);
    // Under the lock: a complete() that comes first must find the scope and cancel it.
    if (isComplete() && !evenIfComplete) return false;
    if (!decodeScope_) decodeScope_.emplace();
    decoding_ = true;
    return true;
}

void HTTPRequestSequence::endDecoding() {
    std::lock_guard lock(mutex_);
    decoding_ = false;
}

async::Task<void> HTTPRequestSequence::drain(std::shared_ptr<detail::RequestBodySource> source,
                                             std::shared_ptr<net::Flushable> flusher) {
    // Through the replay buffer when there is one: a read of it may still be in flight.
    if (flusher) {
        co_await flusher->flush();
    } else {
        co_await source->discard();
    }
}

async::Task<void> HTTPRequestSequence::finishBody() {
    auto source = std::exchange(pendingSource_, nullptr);
    auto flusher = std::exchange(pendingFlusher_, nullptr);
    if (!source || source->isAtEnd()) co_return;
    if (source->awaitsContinue()) {
        // Its body may or may not follow: no next request can be found behind it.
        isComplete_.store(true, std::memory_order_release);
        co_return;
    }
    // The peer had no reason to send while the handler did not read: its clock starts now.
    bytes_->beginBody();
    beginDecoding(true);
    struct Decoding {
        HTTPRequestSequence* self;
        ~Decoding() { self->endDecoding(); }
    } decoding{this};
    try {
        auto rest = drain(std::move(source), std::move(flusher));
        co_await decodeScope_->run(rest);
    } catch (const async::CancellationError&) {
        std::optional<double> seconds;
        bool stopping;
        {
            std::lock_guard lock(mutex_);
            seconds = timedOut_;
            stopping = scopeCancelled_;
        }
        if (seconds) throw net::TimeoutError(*seconds);
        if (!stopping) throw;
        // Stopping: the response still goes out, and nothing more is read.
    }
}

async::Task<std::optional<HTTPRequest>> HTTPRequestSequence::next() {
    if (isComplete()) co_return std::nullopt;
    if (pendingSource_) {
        try {
            co_await finishBody();
        } catch (const net::SocketError& error) {
            if (error.kind() != net::SocketError::Kind::disconnected) throw;
            isComplete_.store(true, std::memory_order_release);
        }
    }
    if (!beginDecoding(false)) co_return std::nullopt;
    struct Decoding {
        HTTPRequestSequence* self;
        ~Decoding() { self->endDecoding(); }
    } decoding{this};
    try {
        auto decode = decoder_.readRequest(bytes_, &pendingSource_);
        HTTPRequest request = co_await decodeScope_->run(decode);
        request.remoteAddress = remoteAddress_;
        request.localAddress = localAddress_;
        if (!request.shouldKeepAlive()) isComplete_.store(true, std::memory_order_release);
        if (pendingSource_) pendingFlusher_ = request.bodySequence.flusher();
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
