#pragma once
#include "net/AsyncBufferedSequence.h"

#include <cstddef>
#include <optional>

namespace orvel::net {

// A sequence without bytes. With completeImmediately it ends at once. Without, the first pull
// waits until its task is cancelled and only then reports the end: a source that never delivers
// and never ends by itself, for tests and for bodies that must hold a reader until it gives up.
class AsyncBufferedEmptySequence {
public:
    class Iterator;

    explicit AsyncBufferedEmptySequence(bool completeImmediately = true) noexcept
        : completeImmediately_(completeImmediately) {}

    bool completeImmediately() const noexcept { return completeImmediately_; }
    Iterator makeIterator() const noexcept;

private:
    bool completeImmediately_;
};

class AsyncBufferedEmptySequence::Iterator final : public AsyncByteSequence {
public:
    async::Task<std::optional<Byte>> next() override;
    async::Task<std::optional<Bytes>> nextBuffer(std::size_t suggested) override;

private:
    friend class AsyncBufferedEmptySequence;
    explicit Iterator(bool completeImmediately) noexcept : completeImmediately_(completeImmediately) {}

    // Returns at once when complete or already cancelled, else when the calling task is cancelled.
    async::Task<void> waitUntilCancelled();

    bool completeImmediately_;
    bool isCancelled_ = false;
};

inline AsyncBufferedEmptySequence::Iterator AsyncBufferedEmptySequence::makeIterator() const noexcept {
    return Iterator(completeImmediately_);
}

}  // namespace orvel::net
