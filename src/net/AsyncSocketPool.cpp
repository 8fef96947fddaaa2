#include "net/AsyncSocketPool.h"

namespace orvel::net {

void SocketWaiter::prepare(std::coroutine_handle<> handle) noexcept {
    handle_ = handle;
    executor_ = async::currentExecutor() ? async::currentExecutor() : &async::defaultExecutor();
    outcome_ = Outcome::ready;
    state_.store(suspending, std::memory_order_relaxed);
}

void SocketWaiter::resume(Outcome outcome) noexcept {
    // Taken first: once resumed, the task may go on and destroy this node.
    const auto handle = handle_;
    auto* executor = executor_;
    outcome_ = outcome;
    // Still setting up: the task goes on by itself when its await_suspend returns.
    if ((state_.fetch_or(resumed, std::memory_order_acq_rel) & suspending) != 0)
        return;
    executor->schedule(handle);
}

bool SocketWait::await_suspend(std::coroutine_handle<> handle) {
    if (async::isCancelled()) {
        cancelledEarly_ = true;
        return false;
    }
    waiter_.prepare(handle);
    pool_->park(waiter_);
    // Registered after parking, so a cancellation that runs at once finds the waiter to remove.
    onCancel_.emplace([this] { pool_->cancel(waiter_); });
    return waiter_.commitSuspension();
}

void SocketWait::await_resume() {
    onCancel_.reset();  // waits for a handler running elsewhere; none runs after this
    if (cancelledEarly_)
        throw async::CancellationError();
    switch (waiter_.outcome()) {
    case SocketWaiter::Outcome::ready: return;
    case SocketWaiter::Outcome::disconnected: throw SocketError::disconnected();
    case SocketWaiter::Outcome::cancelled: throw async::CancellationError();
    }
}

}  // namespace orvel::net
