#include "net/AsyncSocketPool.h"

namespace orvel::net {

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
