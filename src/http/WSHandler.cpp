#include "http/WSHandler.h"

#include "async/Cancellation.h"
#include "async/Continuation.h"

#include <utility>

namespace orvel::http {

namespace detail {

void WSFrameQueue::push(WSFrame frame) {
    std::function<void()> wake;
    {
        std::lock_guard lock(mutex_);
        if (ended_) return;
        frames_.push_back(std::move(frame));
        wake = std::exchange(wake_, nullptr);
    }
    if (wake) wake();
}

void WSFrameQueue::finish(std::exception_ptr error) {
    std::unique_lock lock(mutex_);
    if (ended_) return;
    ended_ = true;
    error_ = std::move(error);
    auto wake = std::exchange(wake_, nullptr);
    terminate(lock);  // unlocks
    if (wake) wake();
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

WSFrameStream::Pair WSFrameStream::make() {
    auto queue = std::make_shared<detail::WSFrameQueue>();
    return Pair{WSFrameStream(queue), Continuation(queue)};
}

WSFrameStream& WSFrameStream::operator=(WSFrameStream&& other) noexcept {
    if (this != &other) {
        if (queue_) queue_->consumerGone();
        queue_ = std::move(other.queue_);
        ended_ = other.ended_;
    }
    return *this;
}

WSFrameStream::~WSFrameStream() {
    if (queue_) queue_->consumerGone();
}

std::optional<WSFrame> WSFrameStream::tryNext() {
    if (ended_) return std::nullopt;
    return queue_->tryPop();
}

async::Task<std::optional<WSFrame>> WSFrameStream::next() {
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
