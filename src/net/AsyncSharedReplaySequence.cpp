#include "net/AsyncSharedReplaySequence.h"

#include "async/Cancellation.h"
#include "async/SerialExecutor.h"
#include "async/Spawn.h"
#include "net/IdentifiableContinuation.h"
#include "net/SocketError.h"

#include <algorithm>
#include <cassert>
#include <exception>
#include <unordered_map>
#include <utility>

namespace orvel::net {

// The state every reader shares. Its operations run one at a time on its serial executor, so its
// fields need no lock; readers that reach the end of what has arrived wait in `waiting_` and are
// all served by the single request in flight.
class AsyncSharedReplaySequence::SharedBuffer final : public std::enable_shared_from_this<SharedBuffer> {
public:
    SharedBuffer(std::shared_ptr<AsyncByteSequence> base, std::optional<std::size_t> bufferCount)
        : state_(bufferCount == 0 ? State::ended : State::initial), base_(std::move(base)), bufferCount_(bufferCount) {}

    // At most count bytes from index: from the buffer when they have arrived, else the bytes of
    // the next chunk. Nothing at the end, or when the calling task is cancelled while it waits.
    async::Task<std::optional<Bytes>> request(std::size_t index, std::size_t count);

    // Static with the buffer by value: the flush keeps the buffer alive, whoever made it.
    static async::Task<void> flush(std::shared_ptr<SharedBuffer> self);

private:
    enum class State { initial, iterating, ended, error };
    using Resumer = IdentifiableContinuation<std::optional<Bytes>>;
    struct Waiter {
        Resumer continuation;
        std::size_t count;
        bool wantsBytes;  // false for flush(): told that bytes arrived, without a copy of them
    };

    // The caller is at the end of what has arrived: wait for the next chunk from the base.
    async::Task<std::optional<Bytes>> waitForChunk(std::size_t count, bool wantsBytes);
    void startRequest();
    static async::Task<void> performRequest(std::shared_ptr<SharedBuffer> self, std::size_t count);
    static async::Task<void> cancelWaiter(std::shared_ptr<SharedBuffer> self, ContinuationID id);
    void receive(std::optional<Bytes> chunk, std::exception_ptr error);
    void fail(std::exception_ptr error);
    Bytes slice(std::size_t index, std::size_t count) const;

    async::SerialExecutor executor_;
    State state_;
    std::shared_ptr<AsyncByteSequence> base_;
    std::exception_ptr error_;
    std::optional<std::size_t> bufferCount_;
    Bytes buffer_;
    std::unordered_map<ContinuationID, Waiter> waiting_;
    bool isRequesting_ = false;
    async::TaskHandle<void> request_;
    bool requestCancelled_ = false;
};

namespace {
bool isCancellation(const std::exception_ptr& error) {
    try {
        std::rethrow_exception(error);
    } catch (const async::CancellationError&) {
        return true;
    } catch (...) {
        return false;
    }
}
}  // namespace

Bytes AsyncSharedReplaySequence::SharedBuffer::slice(std::size_t index, std::size_t count) const {
    const auto first = buffer_.begin() + static_cast<std::ptrdiff_t>(index);
    return Bytes(first, first + static_cast<std::ptrdiff_t>(std::min(count, buffer_.size() - index)));
}

async::Task<std::optional<Bytes>> AsyncSharedReplaySequence::SharedBuffer::request(std::size_t index, std::size_t count) {
    co_await executor_.enter();
    assert(index <= buffer_.size());
    if (index < buffer_.size()) co_return slice(index, count);
    co_return co_await waitForChunk(count, true);
}

async::Task<std::optional<Bytes>> AsyncSharedReplaySequence::SharedBuffer::waitForChunk(std::size_t count, bool wantsBytes) {
    if (state_ == State::error) std::rethrow_exception(error_);
    // A cancelled reader sees the end; it must not start a read of the base either.
    if (state_ == State::ended || async::isCancelled()) co_return std::nullopt;
    // Keeps the buffer alive while we wait. The closures capture only `this`: g++ 12 destroys
    // closure temporaries of a co_await operand twice, which a captured shared_ptr does not survive.
    const auto self = shared_from_this();
    co_return co_await withIdentifiableContinuation<std::optional<Bytes>>(
        [this, count, wantsBytes](Resumer continuation) {
            waiting_.emplace(continuation.id, Waiter{continuation, count, wantsBytes});
            if (!isRequesting_) startRequest();
        },
        // Runs on the cancelling thread: the waiting table belongs to the executor.
        [this](ContinuationID id) { async::spawn(cancelWaiter(shared_from_this(), id), executor_); });
}

void AsyncSharedReplaySequence::SharedBuffer::startRequest() {
    // One request serves every waiter: ask for the most any of them wants, but never past count.
    std::size_t count = 1;
    for (const auto& [id, waiter] : waiting_) count = std::max(count, waiter.count);
    if (bufferCount_) count = std::min(count, *bufferCount_ - buffer_.size());
    if (state_ == State::initial) state_ = State::iterating;
    isRequesting_ = true;
    requestCancelled_ = false;
    request_ = async::spawn(performRequest(shared_from_this(), count), executor_);
}

async::Task<void> AsyncSharedReplaySequence::SharedBuffer::performRequest(std::shared_ptr<SharedBuffer> self, std::size_t count) {
    co_await self->executor_.enter();
    std::optional<Bytes> chunk;
    std::exception_ptr error;
    try {
        chunk = co_await self->base_->nextBuffer(count);
    } catch (...) {
        error = std::current_exception();
    }
    self->receive(std::move(chunk), std::move(error));
}

void AsyncSharedReplaySequence::SharedBuffer::receive(std::optional<Bytes> chunk, std::exception_ptr error) {
    isRequesting_ = false;
    request_ = {};
    const bool wasCancelled = std::exchange(requestCancelled_, false);
    const bool brought = chunk && !chunk->empty();  // an empty buffer breaks the contract: the end
    // We cancel a request only when its last waiter went away. Unless it brought bytes, its
    // outcome says nothing about the base (a cancelled source may well report its end), so the
    // base is asked again when somebody wants more.
    if (wasCancelled && !brought && (!error || isCancellation(error))) {
        if (!waiting_.empty()) startRequest();
        return;
    }
    if (error) return fail(std::move(error));
    if (!brought) {
        if (bufferCount_ && buffer_.size() < *bufferCount_) return fail(std::make_exception_ptr(SocketError::disconnected()));
        state_ = State::ended;
        for (auto& [id, waiter] : std::exchange(waiting_, {})) waiter.continuation.resume(std::nullopt);
        return;
    }
    const std::size_t oldEnd = buffer_.size();
    std::size_t taken = chunk->size();
    if (bufferCount_) taken = std::min(taken, *bufferCount_ - oldEnd);
    buffer_.insert(buffer_.end(), chunk->begin(), chunk->begin() + static_cast<std::ptrdiff_t>(taken));
    if (bufferCount_ && buffer_.size() == *bufferCount_) state_ = State::ended;
    for (auto& [id, waiter] : std::exchange(waiting_, {}))
        waiter.continuation.resume(waiter.wantsBytes ? slice(oldEnd, waiter.count) : Bytes());
}

void AsyncSharedReplaySequence::SharedBuffer::fail(std::exception_ptr error) {
    state_ = State::error;
    error_ = error;
    for (auto& [id, waiter] : std::exchange(waiting_, {})) waiter.continuation.resumeThrowing(error);
}

async::Task<void> AsyncSharedReplaySequence::SharedBuffer::cancelWaiter(std::shared_ptr<SharedBuffer> self, ContinuationID id) {
    co_await self->executor_.enter();
    auto found = self->waiting_.find(id);
    if (found == self->waiting_.end()) co_return;  // a chunk, the end or an error came first
    const Resumer continuation = found->second.continuation;
    self->waiting_.erase(found);
    continuation.resume(std::nullopt);
    // Nobody is left to read what the request brings: stop it, so an abandoned body does not
    // hold its connection open waiting for bytes.
    if (self->waiting_.empty() && self->isRequesting_ && !self->requestCancelled_) {
        self->requestCancelled_ = true;
        self->request_.cancel();
    }
}

async::Task<void> AsyncSharedReplaySequence::SharedBuffer::flush(std::shared_ptr<SharedBuffer> self) {
    co_await self->executor_.enter();
    if (!self->bufferCount_) co_return;
    while (self->buffer_.size() < *self->bufferCount_) {
        async::checkCancellation();
        // Not `if (!co_await ...)`: g++ 12.2 lays out this frame wrongly for that form (SIGILL on
        // the first resume).
        const auto arrived = co_await self->waitForChunk(flushChunkSize, false);
        if (!arrived) {
            async::checkCancellation();
            if (self->state_ == State::ended) co_return;
        }
    }
}

AsyncSharedReplaySequence::AsyncSharedReplaySequence(std::shared_ptr<AsyncByteSequence> base,
                                                     std::optional<std::size_t> count)
    : buffer_(std::make_shared<SharedBuffer>(std::move(base), count)) {}

AsyncSharedReplaySequence::Iterator AsyncSharedReplaySequence::makeIterator() const { return Iterator(buffer_); }

async::Task<void> AsyncSharedReplaySequence::flush() { return SharedBuffer::flush(buffer_); }

async::Task<std::optional<Bytes>> AsyncSharedReplaySequence::Iterator::nextBuffer(std::size_t suggested) {
    const std::size_t count = std::max<std::size_t>(suggested, 1);
    if (blockIndex_ < block_.size()) {
        const auto first = block_.begin() + static_cast<std::ptrdiff_t>(blockIndex_);
        const std::size_t taken = std::min(count, block_.size() - blockIndex_);
        blockIndex_ += taken;
        co_return Bytes(first, first + static_cast<std::ptrdiff_t>(taken));
    }
    if (isEnded_) co_return std::nullopt;
    auto run = co_await buffer_->request(index_, count);
    if (!run) {
        isEnded_ = true;
        co_return std::nullopt;
    }
    index_ += run->size();
    co_return run;
}

async::Task<std::optional<Byte>> AsyncSharedReplaySequence::Iterator::next() {
    if (blockIndex_ == block_.size()) {
        if (isEnded_) co_return std::nullopt;
        auto run = co_await buffer_->request(index_, blockSize);
        if (!run) {
            isEnded_ = true;
            co_return std::nullopt;
        }
        index_ += run->size();
        block_ = std::move(*run);
        blockIndex_ = 0;
    }
    co_return block_[blockIndex_++];
}

}  // namespace orvel::net
