#pragma once
#include "async/Executor.h"
#include "async/Task.h"
#include "async/detail/TaskContext.h"

#include <coroutine>
#include <exception>
#include <mutex>
#include <condition_variable>
#include <optional>
#include <type_traits>
#include <variant>

namespace orvel::async::detail {

// The outcome of a finished task.
template <class T>
struct Result {
    using Value = std::conditional_t<std::is_void_v<T>, std::monostate, T>;
    std::variant<std::monostate, Value, std::exception_ptr> storage;

    bool hasError() const noexcept { return storage.index() == 2; }
    std::exception_ptr error() const noexcept { return hasError() ? std::get<2>(storage) : nullptr; }
    T get() {
        if (hasError()) std::rethrow_exception(std::get<2>(storage));
        if constexpr (!std::is_void_v<T>) return std::move(std::get<1>(storage));
    }
};

// The frame that runs a spawned task (or a group's child) to completion: it sets the task's
// context, awaits the task, hands the result to its sink and frees itself.
struct RootCoroutine {
    struct promise_type {
        RootCoroutine get_return_object() noexcept {
            return {std::coroutine_handle<promise_type>::from_promise(*this)};
        }
        std::suspend_always initial_suspend() noexcept { return {}; }
        std::suspend_never final_suspend() noexcept { return {}; }
        void return_void() noexcept {}
        void unhandled_exception() noexcept { std::terminate(); }
    };
    std::coroutine_handle<promise_type> handle;
};

// Sink: a reference-counted object with `void complete(Result<T>&&, TaskContext*)`. The root keeps the task's
// context alive until the task has ended.
template <class T, class Sink>
RootCoroutine runRoot(Task<T> task, Sink* sink, ContextRef context) {
    setCurrentContext(context.get());
    Result<T> result;
    {
        // The task's frame ends here, before anyone hears of the result: its destructors may
        // still touch what the waiter owns, and it may hold the last copy of the error.
        Task<T> running = std::move(task);
        try {
            if constexpr (std::is_void_v<T>) {
                co_await std::move(running);
                result.storage.template emplace<1>();
            } else {
                result.storage.template emplace<1>(co_await std::move(running));
            }
        } catch (...) {
            result.storage.template emplace<2>(std::current_exception());
        }
    }
    context->detachFromParent();
    sink->complete(std::move(result), context.get());
    sink->release();
}

// Someone waiting for a task's result: a coroutine (resumed on its executor) or a blocked thread.
struct CompletionWaiter {
    virtual void notify() = 0;
    CompletionWaiter* next = nullptr;

protected:
    ~CompletionWaiter() = default;
};

struct CoroutineWaiter final : CompletionWaiter {
    std::coroutine_handle<> handle;
    Executor* executor = nullptr;
    void notify() override { executor->schedule(handle); }
};

struct BlockingWaiter final : CompletionWaiter {
    std::mutex mutex;
    std::condition_variable done;
    bool finished = false;
    void notify() override {
        std::lock_guard lock(mutex);
        finished = true;
        done.notify_all();
    }
    void wait() {
        std::unique_lock lock(mutex);
        done.wait(lock, [this] { return finished; });
    }
};

}  // namespace orvel::async::detail
