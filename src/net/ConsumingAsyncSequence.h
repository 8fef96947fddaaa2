#pragma once
#include "async/Continuation.h"
#include "net/AsyncBufferedSequence.h"
#include "net/Mutex.h"

#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <optional>

namespace orvel::net {

// One shared pass over a base sequence: the first iterator to pull makes the base's iterator, and
// every iterator pulls from that one, so each byte goes to whichever iterator asks first and
// several readers in different tasks together consume the base once, in order. Copies share the
// pass.
class ConsumingAsyncSequence {
public:
    class SharedBuffer;
    class Iterator;

    template <AsyncBufferedSequence Base>
    explicit ConsumingAsyncSequence(Base base);

    Iterator makeIterator() const noexcept;
    // How many bytes the iterators have taken so far.
    std::size_t index() const;

private:
    std::shared_ptr<SharedBuffer> buffer_;
};

// Pulls run one at a time, in the order they were asked for: the base iterator is used by one
// task at a time, and a pull waits for the one before it (suspended, not blocking its thread).
class ConsumingAsyncSequence::SharedBuffer {
public:
    using MakeBase = std::function<std::unique_ptr<AsyncByteSequence>()>;
    explicit SharedBuffer(MakeBase makeBase) : state_(State{.makeBase = std::move(makeBase), .base = nullptr, .waiting = {}}) {}

    // The next run of at most count bytes (a byte when count is 0), or nothing at the end.
    async::Task<std::optional<Bytes>> take(std::size_t count);
    std::size_t index() const;

private:
    struct State {
        MakeBase makeBase;                       // until the first pull
        std::unique_ptr<AsyncByteSequence> base;  // from the first pull on
        std::size_t index = 0;
        bool pulling = false;
        std::deque<async::Continuation<void>> waiting;
    };
    class Turn;

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

template <AsyncBufferedSequence Base>
ConsumingAsyncSequence::ConsumingAsyncSequence(Base base)
    : buffer_(std::make_shared<SharedBuffer>([base = std::move(base)]() -> std::unique_ptr<AsyncByteSequence> {
          return std::make_unique<decltype(base.makeIterator())>(base.makeIterator());
      })) {}

inline ConsumingAsyncSequence::Iterator ConsumingAsyncSequence::makeIterator() const noexcept { return Iterator(buffer_); }

}  // namespace orvel::net
