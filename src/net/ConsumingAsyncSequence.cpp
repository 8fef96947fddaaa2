#include "net/ConsumingAsyncSequence.h"

#include <algorithm>
#include <utility>

namespace orvel::net {

ConsumingAsyncSequence::ConsumingAsyncSequence(Bytes base)
    : buffer_(std::make_shared<SharedBuffer>(std::move(base))) {}

std::size_t ConsumingAsyncSequence::index() const { return buffer_->index(); }

std::optional<Bytes> ConsumingAsyncSequence::SharedBuffer::take(std::size_t count) {
    return state_.withLock([count](State& state) -> std::optional<Bytes> {
        if (state.index == state.base.size()) return std::nullopt;
        const auto first = state.base.begin() + static_cast<std::ptrdiff_t>(state.index);
        const std::size_t taken = std::min(std::max<std::size_t>(count, 1), state.base.size() - state.index);
        state.index += taken;
        return Bytes(first, first + static_cast<std::ptrdiff_t>(taken));
    });
}

std::optional<Byte> ConsumingAsyncSequence::SharedBuffer::takeOne() {
    return state_.withLock([](State& state) -> std::optional<Byte> {
        if (state.index == state.base.size()) return std::nullopt;
        return state.base[state.index++];
    });
}

std::size_t ConsumingAsyncSequence::SharedBuffer::index() const {
    return state_.withLock([](const State& state) { return state.index; });
}

async::Task<std::optional<Byte>> ConsumingAsyncSequence::Iterator::next() {
    co_return buffer_->takeOne();
}

async::Task<std::optional<Bytes>> ConsumingAsyncSequence::Iterator::nextBuffer(std::size_t suggested) {
    co_return buffer_->take(suggested);
}

}  // namespace orvel::net
