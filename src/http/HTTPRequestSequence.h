#pragma once
#include "async/Task.h"
#include "http/HTTPDecoder.h"
#include "http/HTTPRequest.h"
#include "http/detail/CancellableScope.h"
#include "http/detail/ConnectionReader.h"
#include "net/AsyncBufferedSequence.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

namespace orvel::http {

// The requests of one connection, one after another for as long as the client keeps the
// connection alive. Decoding runs in a cancellable scope of the connection's task, so complete()
// (from stop, on any thread) ends a connection that waits idle between requests. The first
// next() must come from the task that serves the connection.
class HTTPRequestSequence {
public:
    HTTPRequestSequence(std::shared_ptr<detail::ConnectionReader> bytes, std::optional<HTTPRequest::Address> remoteAddress,
                        HTTPDecoder decoder, std::optional<HTTPRequest::Address> localAddress = std::nullopt)
        : bytes_(std::move(bytes)),
          remoteAddress_(std::move(remoteAddress)),
          localAddress_(std::move(localAddress)),
          decoder_(decoder) {}
    HTTPRequestSequence(const HTTPRequestSequence&) = delete;
    HTTPRequestSequence& operator=(const HTTPRequestSequence&) = delete;
    ~HTTPRequestSequence();

    // The next request, or nothing once the sequence is complete or the peer has closed. Other
    // errors (a malformed request, a read failure, cancellation) are raised.
    async::Task<std::optional<HTTPRequest>> next();

    // Reads what the handler left of the last request's body, so that the connection stands at
    // the next request; runs like a decode (cancelled by complete(), timed by the peer's body
    // limit). A peer still waiting for "100 Continue" is not asked for its body: the sequence is
    // complete instead. Stopping cuts the read short without an error. next() does it too when
    // the caller did not.
    async::Task<void> finishBody();
    // The last request's body may still be on the connection (finishBody() has work to do).
    bool hasPendingBody() const noexcept { return pendingSource_ != nullptr; }

    // No further request is read; a decode in progress is cancelled. Any thread.
    void complete();
    bool isComplete() const noexcept { return isComplete_.load(std::memory_order_acquire); }
    // Ends a decode in progress that the peer has let pass its time limit: next() raises
    // TimeoutError with `seconds`. False (and no effect) when no decode is running. Any thread.
    bool timeOut(double seconds);

    const std::shared_ptr<detail::ConnectionReader>& bytes() const noexcept { return bytes_; }
    const std::optional<HTTPRequest::Address>& remoteAddress() const noexcept { return remoteAddress_; }

private:
    std::shared_ptr<detail::ConnectionReader> bytes_;
    std::optional<HTTPRequest::Address> remoteAddress_;
    std::optional<HTTPRequest::Address> localAddress_;
    HTTPDecoder decoder_;
    std::atomic<bool> isComplete_{false};
    std::mutex mutex_;                               // guards the next four against complete()
    std::optional<detail::CancellableScope> decodeScope_;
    bool decoding_ = false;
    bool scopeCancelled_ = false;  // by complete() or timeOut()
    std::optional<double> timedOut_;
    // The last request's body while part of it may still be on the connection.
    std::shared_ptr<detail::RequestBodySource> pendingSource_;
    std::shared_ptr<net::Flushable> pendingFlusher_;  // its replay buffer, when it has one

    async::Task<void> drain(std::shared_ptr<detail::RequestBodySource> source, std::shared_ptr<net::Flushable> flusher);
    bool beginDecoding(bool evenIfComplete);
    void endDecoding();
};

}  // namespace orvel::http
