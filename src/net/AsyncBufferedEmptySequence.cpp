#include "net/AsyncBufferedEmptySequence.h"

#include "net/IdentifiableContinuation.h"

namespace orvel::net {

async::Task<std::optional<Byte>> AsyncBufferedEmptySequence::Iterator::next() {
    co_await waitUntilCancelled();
    co_return std::nullopt;
}

async::Task<std::optional<Bytes>> AsyncBufferedEmptySequence::Iterator::nextBuffer(std::size_t) {
    co_await waitUntilCancelled();
    co_return std::nullopt;
}

async::Task<void> AsyncBufferedEmptySequence::Iterator::waitUntilCancelled() {
    if (completeImmediately_ || isCancelled_) co_return;
    // The continuation lives in this frame. The hand-shake calls onCancel only after body has
    // stored it, and at most once, so no lock of our own is needed.
    IdentifiableContinuation<void> waiting;
    co_await withIdentifiableContinuation<void>(
        [&waiting](IdentifiableContinuation<void> continuation) { waiting = continuation; },
        [&waiting](ContinuationID) { waiting.resume(); });
    isCancelled_ = true;
}

}  // namespace orvel::net
