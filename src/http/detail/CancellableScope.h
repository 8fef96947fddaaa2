#pragma once
#include "async/Task.h"
#include "async/detail/TaskContext.h"

#include <cassert>
#include <coroutine>
#include <utility>

namespace orvel::http::detail {

// A piece of the calling task that can be cancelled on its own: work awaited through run() sees
// the scope's cancellation (and the task's, which flows down), while cancel() leaves the task
// itself running. It stands in for a child task per request (a spawn, a pool hop and four
// allocations) with one context that lives as long as the connection.
class CancellableScope {
public:
    CancellableScope() {
        async::detail::TaskContext* parent = async::detail::currentContext();
        context_ = async::detail::ContextRef(new async::detail::TaskContext(parent, parent ? parent->locals : nullptr));
    }
    ~CancellableScope() { context_->detachFromParent(); }
    CancellableScope(const CancellableScope&) = delete;
    CancellableScope& operator=(const CancellableScope&) = delete;

    // Any thread; at most once has an effect.
    void cancel() { context_->cancel(); }
    bool isCancelled() const noexcept { return context_->isCancelled(); }

    template <class T>
    struct Awaiter {
        typename async::Task<T>::Awaiter inner;
        async::detail::TaskContext* context;
        bool await_ready() noexcept { return false; }
        auto await_suspend(std::coroutine_handle<> caller) noexcept {
            // The task records the current context when it starts: make that ours. The caller's
            // own context comes back when it resumes (every await restores it).
            async::detail::setCurrentContext(context);
            return inner.await_suspend(caller);
        }
        T await_resume() { return inner.await_resume(); }
    };

    // Awaits task inside this scope. The task must outlive the await (pass a temporary).
    template <class T>
    Awaiter<T> run(async::Task<T>& task) noexcept {
        return Awaiter<T>{task.operator co_await(), context_.get()};
    }

private:
    async::detail::ContextRef context_;
};

}  // namespace orvel::http::detail
