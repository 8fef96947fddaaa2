#include "net/ConsumingAsyncSequence.h"

#include <algorithm>
#include <utility>

namespace orvel::net {

std::size_t ConsumingAsyncSequence::index() const { return buffer_->index(); }

// A pull's hold on the base: waits until the pulls before it are done, and on its way out hands
// the base to the next waiting pull.
class ConsumingAsyncSequence::SharedBuffer::Turn {
public:
    static async::Task<Turn> take(SharedBuffer& buffer) {
        co_await async::withCheckedContinuation<void>([&buffer](async::Continuation<void> turn) {
            const bool free = buffer.state_.withLock([&](State& state) {
                if (!state.pulling) return state.pulling = true;
                state.waiting.push_back(turn);
                return false;
            });
            if (free) turn.resume();
        });
        co_return Turn(buffer);
    }
    Turn(Turn&& other) noexcept : buffer_(std::exchange(other.buffer_, nullptr)) {}
    Turn& operator=(Turn&&) = delete;
    ~Turn() {
        if (!buffer_) return;
        auto next = buffer_->state_.withLock([](State& state) {
            async::Continuation<void> next;
            if (state.waiting.empty()) {
                state.pulling = false;
            } else {
                next = state.waiting.front();
                state.waiting.pop_front();
            }
            return next;
        });
        if (next.isValid()) next.resume();
    }

private:
    explicit Turn(SharedBuffer& buffer) noexcept : buffer_(&buffer) {}
    SharedBuffer* buffer_;
};

async::Task<std::optional<Bytes>> ConsumingAsyncSequence::SharedBuffer::take(std::size_t count) {
    const auto turn = co_await Turn::take(*this);
    auto* base = state_.withLock([](State& state) {
        if (!state.base) {
            state.base = state.makeBase();
            state.makeBase = nullptr;
        }
        return state.base.get();
    });
    std::optional<Bytes> run;
    if (count <= 1) {
        if (auto byte = co_await base->next()) run = Bytes{*byte};
    } else {
        run = co_await base->nextBuffer(count);
    }
    if (run) state_.withLock([&](State& state) { state.index += run->size(); });
    co_return run;
}

std::size_t ConsumingAsyncSequence::SharedBuffer::index() const {
    return state_.withLock([](const State& state) { return state.index; });
}

async::Task<std::optional<Byte>> ConsumingAsyncSequence::Iterator::next() {
    const auto run = co_await buffer_->take(1);
    if (!run) co_return std::nullopt;
    co_return run->front();
}

async::Task<std::optional<Bytes>> ConsumingAsyncSequence::Iterator::nextBuffer(std::size_t suggested) {
    co_return co_await buffer_->take(suggested);
}

}  // namespace orvel::net
