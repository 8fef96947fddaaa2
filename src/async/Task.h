#pragma once
#include "async/Executor.h"
#include "async/detail/TaskContext.h"

#include <atomic>
#include <cassert>
#include <coroutine>
#include <exception>
#include <optional>
#include <type_traits>
#include <utility>

// Two faults of g++ 12.2's coroutines that every coroutine in this code base steers around:
// - A capturing lambda or a brace-built aggregate written inside a co_await expression is destroyed
//   twice (a captured shared_ptr is released twice). Name it before the co_await, or capture only
//   trivially destructible things. The continuation helpers refuse other bodies at compile time.
// - `if (!co_await x)` inside a loop can crash at run time; bind the result first:
//   `auto r = co_await x; if (!r) ...`.

namespace orvel::async {

template <class T = void>
class Task;

namespace detail {

template <class A>
concept HasMemberCoAwait = requires(A&& a) { std::forward<A>(a).operator co_await(); };

// Wraps every awaitable of a task so that the task's context becomes the thread's current
// context again whenever the task resumes, whichever thread resumes it.
template <class Awaiter>
struct ContextRestoringAwaiter {
    Awaiter awaiter;
    TaskContext* context;

    bool await_ready() { return awaiter.await_ready(); }
    template <class Promise>
    auto await_suspend(std::coroutine_handle<Promise> handle) {
        return awaiter.await_suspend(handle);
    }
    decltype(auto) await_resume() {
        setCurrentContext(context);
        return awaiter.await_resume();
    }
};

class TaskPromiseBase {
public:
    struct InitialAwaiter {
        TaskPromiseBase* promise;
        bool await_ready() const noexcept { return false; }
        void await_suspend(std::coroutine_handle<>) const noexcept {}
        void await_resume() const noexcept { setCurrentContext(promise->context_); }
    };

    struct FinalAwaiter {
        bool await_ready() const noexcept { return false; }
        template <class Promise>
        std::coroutine_handle<> await_suspend(std::coroutine_handle<Promise> handle) const noexcept {
            TaskPromiseBase& promise = handle.promise();
            // Finished before the awaiting coroutine's await_suspend returned: it goes on by itself.
            if (promise.phase_.exchange(finished, std::memory_order_acq_rel) == starting) return std::noop_coroutine();
            // Back to the awaiting coroutine: directly when it runs on the executor we are on,
            // otherwise by posting it to its own executor.
            Executor* current = currentExecutor();
            if (promise.callerExecutor_ == current || promise.callerExecutor_ == nullptr) return promise.continuation_;
            promise.callerExecutor_->schedule(promise.continuation_);
            return std::noop_coroutine();
        }
        void await_resume() const noexcept {}
    };

    InitialAwaiter initial_suspend() noexcept { return {this}; }
    FinalAwaiter final_suspend() noexcept { return {}; }
    void unhandled_exception() noexcept { error_ = std::current_exception(); }

    template <class A>
    auto await_transform(A&& awaitable) {
        if constexpr (HasMemberCoAwait<A>) {
            using Awaiter = decltype(std::forward<A>(awaitable).operator co_await());
            return ContextRestoringAwaiter<Awaiter>{std::forward<A>(awaitable).operator co_await(), context_};
        } else {
            return ContextRestoringAwaiter<A>{std::forward<A>(awaitable), context_};
        }
    }

    // Runs the task inside the awaiting coroutine's await_suspend. A task that completes without
    // suspending returns here and the caller goes on without suspending: the stack stays flat
    // even where the compiler makes no tail call for symmetric transfer (sanitizer builds).
    // Returns true when the caller stays suspended (the task will resume it).
    bool start(std::coroutine_handle<> self, std::coroutine_handle<> continuation, TaskContext* context) noexcept {
        continuation_ = continuation;
        context_ = context;
        callerExecutor_ = currentExecutor();
        self.resume();
        return phase_.exchange(suspended, std::memory_order_acq_rel) != finished;
    }

protected:
    void rethrowIfFailed() {
        if (error_) std::rethrow_exception(error_);
    }

private:
    static constexpr int starting = 0;
    static constexpr int suspended = 1;
    static constexpr int finished = 2;

    std::atomic<int> phase_{starting};
    std::coroutine_handle<> continuation_;
    TaskContext* context_ = nullptr;
    Executor* callerExecutor_ = nullptr;
    std::exception_ptr error_;
};

template <class T>
class TaskPromise final : public TaskPromiseBase {
public:
    Task<T> get_return_object() noexcept;
    template <class U>
    void return_value(U&& value) {
        value_.emplace(std::forward<U>(value));
    }
    T takeResult() {
        rethrowIfFailed();
        return std::move(*value_);
    }

private:
    std::optional<T> value_;
};

template <>
class TaskPromise<void> final : public TaskPromiseBase {
public:
    Task<void> get_return_object() noexcept;
    void return_void() noexcept {}
    void takeResult() { rethrowIfFailed(); }
};

}  // namespace detail

// An asynchronous operation producing a T: a lazy coroutine that starts when it is awaited and
// runs in the awaiting task (same cancellation, same task-locals, same executor). Work that must
// outlive its caller goes through spawn().
template <class T>
class [[nodiscard]] Task {
public:
    using promise_type = detail::TaskPromise<T>;
    using Handle = std::coroutine_handle<promise_type>;

    Task() noexcept = default;
    explicit Task(Handle handle) noexcept : handle_(handle) {}
    Task(Task&& other) noexcept : handle_(std::exchange(other.handle_, nullptr)) {}
    Task& operator=(Task other) noexcept {
        std::swap(handle_, other.handle_);
        return *this;
    }
    ~Task() {
        if (handle_) handle_.destroy();
    }

    bool isValid() const noexcept { return static_cast<bool>(handle_); }

    struct Awaiter {
        Handle handle;
        bool await_ready() const noexcept { return false; }
        bool await_suspend(std::coroutine_handle<> caller) noexcept {
            return handle.promise().start(handle, caller, detail::currentContext());
        }
        T await_resume() { return handle.promise().takeResult(); }
    };

    Awaiter operator co_await() && noexcept {
        assert(handle_ && "awaiting an empty task");
        return Awaiter{handle_};
    }
    Awaiter operator co_await() & noexcept {
        assert(handle_ && "awaiting an empty task");
        return Awaiter{handle_};
    }

private:
    Handle handle_;
};

template <class T>
Task<T> detail::TaskPromise<T>::get_return_object() noexcept {
    return Task<T>(std::coroutine_handle<TaskPromise<T>>::from_promise(*this));
}

inline Task<void> detail::TaskPromise<void>::get_return_object() noexcept {
    return Task<void>(std::coroutine_handle<TaskPromise<void>>::from_promise(*this));
}

}  // namespace orvel::async
