#pragma once
#include "net/AsyncBufferedSequence.h"
#include "net/Mutex.h"

#include <cstddef>
#include <memory>
#include <optional>

namespace orvel::net {

// One pass over bytes, shared by every iterator made from it: each byte goes to whichever
// iterator asks first, so several readers in different tasks together consume the bytes once,
// in order. Lets tests hand one body to several readers. Copies share the pass.
class ConsumingAsyncSequence {
public:
    class SharedBuffer;
    class Iterator;

    explicit ConsumingAsyncSequence(Bytes base);

    Iterator makeIterator() const noexcept;
    // How many bytes the iterators have taken so far.
    std::size_t index() const;

private:
    std::shared_ptr<SharedBuffer> buffer_;
};

class ConsumingAsyncSequence::SharedBuffer {
public:
    explicit SharedBuffer(Bytes base) : state_(State{std::move(base), 0}) {}

    // The next run of at most count bytes of the shared pass, or nothing at its end.
    std::optional<Bytes> take(std::size_t count);
    std::optional<Byte> takeOne();
    std::size_t index() const;

private:
    struct State {
        Bytes base;
        std::size_t index;
    };
    Mutex<State> state_;
};

class ConsumingAsyncSequence::Iterator final : public AsyncByteSequence {
public:
    async::Task<std::optional<Byte>> next() override;
    // A suggestion of 0 counts as 1.
    async::Task<std::optional<Bytes>> nextBuffer(std::size_t suggested) override;

private:
    friend class ConsumingAsyncSequence;
    explicit Iterator(std::shared_ptr<SharedBuffer> buffer) noexcept : buffer_(std::move(buffer)) {}

    std::shared_ptr<SharedBuffer> buffer_;
};

inline ConsumingAsyncSequence::Iterator ConsumingAsyncSequence::makeIterator() const noexcept { return Iterator(buffer_); }

}  // namespace orvel::net
