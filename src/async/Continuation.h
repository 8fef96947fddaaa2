#pragma once
#include "async/Executor.h"
#include "async/detail/Suspension.h"

#include <coroutine>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <optional>
#include <type_traits>
#include <utility>

namespace orvel::async {

namespace detail {

// The resumable half of a suspension: a result slot and the suspended coroutine. It lives in the
// suspended coroutine's frame.
template <class T>
class ContinuationCore {
public:
    using Value = std::conditional_t<std::is_void_v<T>, bool, T>;

    template <class... Args>
    void resumeWith(Args&&... args) {
        value_.emplace(std::forward<Args>(args)...);
        finish();
    }
    void resumeThrowing(std::exception_ptr error) {
        error_ = std::move(error);
        finish();
    }

    // Called by the awaiter before it hands the continuation out.
    void prepare(std::coroutine_handle<> handle) noexcept { suspension_.prepare(handle); }
    // Called by the awaiter when setting up is over: true when the coroutine stays suspended.
    bool commitSuspension() noexcept { return suspension_.commit(); }

    T take() {
        if (error_) std::rethrow_exception(error_);
        if constexpr (!std::is_void_v<T>) return std::move(*value_);
    }

private:
    void finish() {
        if (!suspension_.resume()) {
            std::fputs("orvel: a continuation was resumed twice\n", stderr);
            std::abort();
        }
    }

    std::optional<Value> value_;
    std::exception_ptr error_;
    Suspension suspension_;
};

}  // namespace detail

// The resuming side of a suspended task. Resume it exactly once, from any thread; resuming posts
// the task to its executor and never runs it on the resumer's stack. Resuming twice aborts.
template <class T>
class Continuation {
public:
    Continuation() = default;
    explicit Continuation(detail::ContinuationCore<T>* core) noexcept : core_(core) {}

    template <class U = T>
        requires(!std::is_void_v<U>)
    void resume(U value) const {
        core_->resumeWith(std::move(value));
    }
    void resume() const
        requires std::is_void_v<T>
    {
        core_->resumeWith(true);
    }
    void resumeThrowing(std::exception_ptr error) const { core_->resumeThrowing(std::move(error)); }
    template <class E>
    void resumeThrowing(E error) const {
        core_->resumeThrowing(std::make_exception_ptr(std::move(error)));
    }

    bool isValid() const noexcept { return core_ != nullptr; }

private:
    detail::ContinuationCore<T>* core_ = nullptr;
};

template <class T, class Body>
class ContinuationAwaiter {
public:
    explicit ContinuationAwaiter(Body body) : body_(std::move(body)) {}
    // Awaiters are moved only before they suspend, so the core starts afresh.
    ContinuationAwaiter(ContinuationAwaiter&& other) noexcept : body_(std::move(other.body_)) {}
    bool await_ready() const noexcept { return false; }
    bool await_suspend(std::coroutine_handle<> handle) {
        core_.prepare(handle);
        // The body may hand the continuation to another thread that resumes it at once; it runs
        // from a local so that nothing in this frame is touched after the suspension is committed.
        Body body = std::move(body_);
        body(Continuation<T>(&core_));
        return core_.commitSuspension();
    }
    T await_resume() { return core_.take(); }

private:
    Body body_;
    detail::ContinuationCore<T> core_;
};

// Suspends the calling task and calls body with its continuation; the task resumes with what the
// continuation is resumed with.
template <class T, class Body>
ContinuationAwaiter<T, std::decay_t<Body>> withCheckedContinuation(Body&& body) {
    static_assert(std::is_trivially_destructible_v<std::decay_t<Body>>,
                  "g++ 12 destroys a lambda written inside a co_await expression twice: capture only "
                  "pointers, references and plain values here, or name the lambda before the co_await");
    return ContinuationAwaiter<T, std::decay_t<Body>>(std::forward<Body>(body));
}

}  // namespace orvel::async
