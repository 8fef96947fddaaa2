#include "websocket/WSOutgoingFrames.h"

#include "async/Cancellation.h"
#include "async/Continuation.h"

#include <algorithm>
#include <utility>

namespace orvel::http {

namespace detail {

namespace {

// What a frame takes on the wire, as WSFrameEncoder writes it.
std::size_t wireSize(const WSFrame& frame) noexcept {
    const std::size_t length = frame.payload.size();
    std::size_t header = 2;
    if (length > 65535) header += 8;
    else if (length > 125) header += 2;
    if (frame.mask) header += 4;
    return header + length;
}

}  // namespace

void WSFrameQueue::push(WSFrame frame) {
    std::unique_lock lock(mutex_);
    if (ended_) return;
    backlog_ += wireSize(frame);
    if (backlog_ > maxBacklog_) {
        // The peer does not read: what it has not been sent yet is dropped, and it is told why.
        for (const auto& queued : frames_) backlog_ -= wireSize(queued);
        frames_.clear();
        backlog_ -= wireSize(frame);
        auto overflow = std::exchange(onOverflow_, nullptr);
        const std::size_t budget = maxBacklog_;
        end(lock, WSFrame::close(1008, "Client too slow"), nullptr);  // unlocks
        if (overflow) overflow(budget);
        return;
    }
    frames_.push_back(std::move(frame));
    auto wake = std::exchange(wake_, nullptr);
    lock.unlock();
    if (wake) wake();
}

void WSFrameQueue::pushLast(WSFrame frame) {
    std::unique_lock lock(mutex_);
    end(lock, std::move(frame), nullptr);
}

void WSFrameQueue::finish(std::exception_ptr error) {
    std::unique_lock lock(mutex_);
    end(lock, std::nullopt, std::move(error));
}

void WSFrameQueue::end(std::unique_lock<std::mutex>& lock, std::optional<WSFrame> last, std::exception_ptr error) {
    if (ended_) {
        lock.unlock();
        return;
    }
    ended_ = true;
    error_ = std::move(error);
    if (last) {
        backlog_ += wireSize(*last);
        frames_.push_back(std::move(*last));
    }
    auto wake = std::exchange(wake_, nullptr);
    terminate(lock);  // unlocks
    if (wake) wake();
}

void WSFrameQueue::setMaxBacklog(std::size_t bytes) {
    std::lock_guard lock(mutex_);
    maxBacklog_ = bytes;
}

void WSFrameQueue::written(std::size_t bytes) {
    std::lock_guard lock(mutex_);
    backlog_ -= std::min(bytes, backlog_);
}

void WSFrameQueue::setOnOverflow(std::function<void(std::size_t)> handler) {
    std::lock_guard lock(mutex_);
    onOverflow_ = std::move(handler);
}

void WSFrameQueue::consumerGone() {
    std::unique_lock lock(mutex_);
    ended_ = true;
    frames_.clear();
    error_ = nullptr;
    terminate(lock);
}

void WSFrameQueue::terminate(std::unique_lock<std::mutex>& lock) {
    std::function<void()> handler;
    if (!terminated_) {
        terminated_ = true;
        handler = std::exchange(onTermination_, nullptr);
    }
    lock.unlock();
    if (handler) handler();
}

void WSFrameQueue::setOnTermination(std::function<void()> handler) {
    {
        std::lock_guard lock(mutex_);
        if (!terminated_) {
            onTermination_ = std::move(handler);
            return;
        }
    }
    // Set after the end: the end already happened, so the handler runs now, still only once.
    if (handler) handler();
}

std::optional<WSFrame> WSFrameQueue::tryPop() {
    std::lock_guard lock(mutex_);
    if (frames_.empty()) return std::nullopt;
    WSFrame frame = std::move(frames_.front());
    frames_.pop_front();
    return frame;
}

async::Task<std::optional<WSFrame>> WSFrameQueue::pop() {
    for (;;) {
        {
            std::lock_guard lock(mutex_);
            if (!frames_.empty()) {
                WSFrame frame = std::move(frames_.front());
                frames_.pop_front();
                co_return frame;
            }
            if (ended_) {
                if (auto error = std::exchange(error_, nullptr)) std::rethrow_exception(error);
                co_return std::nullopt;
            }
        }
        bool cancelled = false;
        {
            // A cancelled reader stops waiting; the wake-up is taken under the lock, so it
            // happens exactly once whoever (producer or cancellation) gets there first.
            async::CancellationHandler onCancel([this, &cancelled] {
                std::function<void()> wake;
                {
                    std::lock_guard lock(mutex_);
                    wake = std::exchange(wake_, nullptr);
                }
                if (wake) {
                    cancelled = true;
                    wake();
                }
            });
            co_await async::withCheckedContinuation<void>([this](async::Continuation<void> continuation) {
                std::lock_guard lock(mutex_);
                if (!frames_.empty() || ended_ || async::isCancelled()) continuation.resume();
                else wake_ = [continuation] { continuation.resume(); };
            });
        }
        if (cancelled || async::isCancelled()) {
            consumerGone();
            co_return std::nullopt;
        }
    }
}

}  // namespace detail

WSOutgoingFrames::Pair WSOutgoingFrames::make(std::size_t maxBacklog) {
    auto queue = std::make_shared<detail::WSFrameQueue>(maxBacklog);
    return Pair{WSOutgoingFrames(queue), Continuation(queue)};
}

WSOutgoingFrames& WSOutgoingFrames::operator=(WSOutgoingFrames&& other) noexcept {
    if (this != &other) {
        if (queue_) queue_->consumerGone();
        queue_ = std::move(other.queue_);
        ended_ = other.ended_;
    }
    return *this;
}

WSOutgoingFrames::~WSOutgoingFrames() {
    if (queue_) queue_->consumerGone();
}

std::optional<WSFrame> WSOutgoingFrames::tryNext() {
    if (ended_) return std::nullopt;
    return queue_->tryPop();
}

async::Task<std::optional<WSFrame>> WSOutgoingFrames::next() {
    if (ended_) co_return std::nullopt;
    try {
        auto frame = co_await queue_->pop();
        if (!frame) ended_ = true;
        co_return frame;
    } catch (...) {
        // Every error (a broken fragmentation rule, a frame that could not be decoded, an
        // invalid message) ends the connection the same way.
    }
    ended_ = true;
    co_return WSFrame::close("Protocol Error");
}

}  // namespace orvel::http
