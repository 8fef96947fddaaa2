#pragma once
#include "async/Executor.h"

#include <atomic>
#include <coroutine>

namespace orvel::async::detail {

// A suspended coroutine, the executor to resume it on, and the hand-shake between the thread that
// sets the suspension up and the one that resumes it. A resume that arrives while the suspension
// is still being set up posts nothing: the suspension then simply does not happen (commit() says
// so and await_suspend returns false), so the frame is never run by two threads at once.
class Suspension {
public:
    // Before the suspension is handed to anyone who may resume it.
    void prepare(std::coroutine_handle<> handle) noexcept {
        handle_ = handle;
        executor_ = currentExecutor() ? currentExecutor() : &defaultExecutor();
        state_.store(settingUp, std::memory_order_relaxed);
    }
    // Setting up is over: true when the coroutine stays suspended.
    bool commit() noexcept { return (state_.fetch_and(~settingUp, std::memory_order_acq_rel) & resumed) == 0; }
    // Posts the coroutine to its executor, or lets the setting-up thread go on. False, doing
    // nothing, when it was resumed already. The frame must not be touched after a true.
    bool resume() noexcept {
        // Read first: once resumed the coroutine may go on and destroy this object.
        const auto handle = handle_;
        auto* executor = executor_;
        const unsigned previous = state_.fetch_or(resumed, std::memory_order_acq_rel);
        if (previous & resumed) return false;
        if ((previous & settingUp) == 0) executor->schedule(handle);
        return true;
    }

private:
    static constexpr unsigned settingUp = 1;
    static constexpr unsigned resumed = 2;

    std::coroutine_handle<> handle_;
    Executor* executor_ = nullptr;
    std::atomic<unsigned> state_{0};
};

}  // namespace orvel::async::detail
