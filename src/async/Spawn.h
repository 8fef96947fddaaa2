#pragma once
#include "async/Executor.h"
#include "async/Task.h"
#include "async/detail/Root.h"
#include "async/detail/TaskContext.h"

#include <atomic>
#include <cassert>
#include <condition_variable>
#include <mutex>
#include <utility>

namespace orvel::async {

namespace detail {

// Shared by a spawned task and its handles: the context, the result and who waits for it.
template <class T>
class SpawnState {
public:
    explicit SpawnState(ContextRef context) : context_(std::move(context)) {}

    void retain() noexcept { references_.fetch_add(1, std::memory_order_relaxed); }
    void release() noexcept {
        if (references_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
    }

    void complete(Result<T>&& result, TaskContext*) {
        CompletionWaiter* waiters;
        {
            std::lock_guard lock(mutex_);
            result_ = std::move(result);
            finished_ = true;
            waiters = std::exchange(waiters_, nullptr);
        }
        while (waiters) {
            CompletionWaiter* next = waiters->next;
            waiters->notify();
            waiters = next;
        }
    }

    // False when the task has already finished (the waiter is not kept).
    bool addWaiter(CompletionWaiter& waiter) {
        std::lock_guard lock(mutex_);
        if (finished_) return false;
        waiter.next = waiters_;
        waiters_ = &waiter;
        return true;
    }

    bool isFinished() {
        std::lock_guard lock(mutex_);
        return finished_;
    }

    // Only after the task has finished. Each waiter gets its own copy of a value.
    T result() {
        std::lock_guard lock(mutex_);
        if constexpr (std::is_void_v<T> || std::is_copy_constructible_v<T>) {
            Result<T> copy = result_;
            return copy.get();
        } else {
            return result_.get();
        }
    }

    TaskContext* context() const noexcept { return context_.get(); }

private:
    std::atomic<int> references_{2};  // the root and the first handle
    ContextRef context_;
    std::mutex mutex_;
    Result<T> result_;
    bool finished_ = false;
    CompletionWaiter* waiters_ = nullptr;
};

}  // namespace detail

// The handle of a spawned task: cancel it, or await its value. Dropping every handle does not
// cancel the task; whoever spawns work that must end owns a handle and cancels and awaits it.
template <class T>
class TaskHandle {
public:
    TaskHandle() = default;
    explicit TaskHandle(detail::SpawnState<T>* adopted) noexcept : state_(adopted) {}
    TaskHandle(const TaskHandle& other) noexcept : state_(other.state_) { if (state_) state_->retain(); }
    TaskHandle(TaskHandle&& other) noexcept : state_(std::exchange(other.state_, nullptr)) {}
    TaskHandle& operator=(TaskHandle other) noexcept {
        std::swap(state_, other.state_);
        return *this;
    }
    ~TaskHandle() {
        if (state_) state_->release();
    }

    bool isValid() const noexcept { return state_ != nullptr; }
    void cancel() const { state_->context()->cancel(); }
    bool isCancelled() const noexcept { return state_->context()->isCancelled(); }
    bool isFinished() const { return state_->isFinished(); }

    // Awaits the task's value (rethrowing its error). Does not cancel the task when the waiting
    // task is cancelled; getValue with a cancellation policy does.
    struct ValueAwaiter {
        detail::SpawnState<T>* state;
        detail::CoroutineWaiter waiter;
        bool await_ready() { return state->isFinished(); }
        bool await_suspend(std::coroutine_handle<> handle) {
            waiter.handle = handle;
            waiter.executor = currentExecutor() ? currentExecutor() : &defaultExecutor();
            return state->addWaiter(waiter);
        }
        T await_resume() { return state->result(); }
    };
    ValueAwaiter value() const { return ValueAwaiter{state_, {}}; }

    // Blocks the calling thread (never a pool worker) until the task ends.
    T wait() const {
        detail::BlockingWaiter waiter;
        if (state_->addWaiter(waiter)) waiter.wait();
        return state_->result();
    }

private:
    detail::SpawnState<T>* state_ = nullptr;
};

// Starts task on executor as a new top-level task. It inherits the caller's task-local values
// but not its cancellation.
template <class T>
TaskHandle<T> spawn(Task<T> task, Executor& executor = defaultExecutor()) {
    detail::TaskContext* parent = detail::currentContext();
    detail::ContextRef context(new detail::TaskContext(nullptr, parent ? parent->locals : nullptr));
    auto* state = new detail::SpawnState<T>(context);
    auto root = detail::runRoot(std::move(task), state, std::move(context));
    executor.schedule(root.handle);
    return TaskHandle<T>(state);
}

// Runs task on the default executor and blocks the calling thread until it ends. For main() and
// tests; calling it from a pool worker would deadlock the pool.
template <class T>
T syncWait(Task<T> task) {
    return spawn(std::move(task)).wait();
}

}  // namespace orvel::async
