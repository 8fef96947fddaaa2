#pragma once
#include "async/Executor.h"
#include "async/Task.h"
#include "async/detail/Root.h"
#include "async/detail/TaskContext.h"

#include <atomic>
#include <cassert>
#include <coroutine>
#include <deque>
#include <exception>
#include <mutex>
#include <optional>
#include <unordered_map>
#include <vector>

namespace orvel::async {

namespace detail {

template <class T>
class GroupState {
public:
    void retain() noexcept { references_.fetch_add(1, std::memory_order_relaxed); }
    void release() noexcept {
        if (references_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
    }

    explicit GroupState(bool discardResults) : discardResults_(discardResults) {}

    // A child finished.
    void complete(Result<T>&& result, TaskContext* child) {
        CoroutineWaiter* waiter = nullptr;
        {
            std::lock_guard lock(mutex_);
            if (auto found = children_.find(child); found != children_.end()) {
                children_.erase(found);
            }
            if (discardResults_) {
                if (result.hasError() && !firstError_) firstError_ = result.error();
                --pending_;
                if (pending_ == 0) waiter = std::exchange(waiter_, nullptr);
            } else {
                done_.push_back(std::move(result));
                waiter = std::exchange(waiter_, nullptr);
            }
        }
        if (waiter) waiter->notify();
    }

    // True when the group was cancelled: the caller cancels the child. Checking under the lock
    // that cancelAll() takes means each child is cancelled by one of the two, never by neither.
    bool started(TaskContext* child) {
        std::lock_guard lock(mutex_);
        ++pending_;
        child->retain();
        children_.emplace(child, ContextRef(child));
        return cancelled_;
    }

    // False when a result is ready or nothing is pending (the waiter is not kept).
    bool wait(CoroutineWaiter& waiter) {
        std::lock_guard lock(mutex_);
        if (!done_.empty() || pending_ == 0) return false;
        waiter_ = &waiter;
        return true;
    }

    // In discarding mode: the first error of a finished child.
    std::exception_ptr firstError() {
        std::lock_guard lock(mutex_);
        return firstError_;
    }

    std::optional<Result<T>> take() {
        std::lock_guard lock(mutex_);
        if (done_.empty()) return std::nullopt;
        Result<T> result = std::move(done_.front());
        done_.pop_front();
        --pending_;
        return result;
    }

    void cancelAll() {
        std::vector<ContextRef> children;
        {
            std::lock_guard lock(mutex_);
            cancelled_ = true;
            for (auto& [context, reference] : children_) children.push_back(reference);
        }
        for (auto& child : children) child->cancel();
    }

    bool isEmpty() {
        std::lock_guard lock(mutex_);
        return pending_ == 0;
    }

private:
    std::atomic<int> references_{1};
    std::mutex mutex_;
    const bool discardResults_;
    std::deque<Result<T>> done_;
    std::exception_ptr firstError_;
    std::unordered_map<TaskContext*, ContextRef> children_;
    std::size_t pending_ = 0;
    bool cancelled_ = false;
    CoroutineWaiter* waiter_ = nullptr;
};

}  // namespace detail

// Structured child tasks of the task that makes the group: cancelling that task cancels every
// child. Results come back in the order the children finish. A group should be drained (next()
// until empty, or waitForAll()) before it goes; if it is not, its children are cancelled and
// finish on their own. A discarding group keeps no results (for long-lived groups such as a
// server's connections); waitForAll() then rethrows the first error of a finished child.
template <class T>
class TaskGroup {
public:
    explicit TaskGroup(bool discardResults = false)
        : state_(new detail::GroupState<T>(discardResults)), parent_(detail::currentContext()) {
        if (parent_) parent_->retain();
    }
    ~TaskGroup() {
        state_->cancelAll();
        state_->release();
        if (parent_) parent_->release();
    }
    TaskGroup(const TaskGroup&) = delete;
    TaskGroup& operator=(const TaskGroup&) = delete;

    // Starts task as a child on executor (by default the caller's own executor, or the pool).
    void add(Task<T> task, Executor* executor = nullptr) {
        if (!executor) executor = currentExecutor() ? currentExecutor() : &defaultExecutor();
        detail::ContextRef context(new detail::TaskContext(parent_, parent_ ? parent_->locals : nullptr));
        if (state_->started(context.get())) context->cancel();
        state_->retain();
        auto root = detail::runRoot(std::move(task), state_, std::move(context));
        executor->schedule(root.handle);
    }

    class NextAwaiter {
    public:
        explicit NextAwaiter(detail::GroupState<T>* state) : state_(state) {}
        NextAwaiter(NextAwaiter&& other) noexcept : state_(other.state_) {}
        bool await_ready() const noexcept { return false; }
        bool await_suspend(std::coroutine_handle<> handle) {
            waiter_.handle = handle;
            waiter_.executor = currentExecutor() ? currentExecutor() : &defaultExecutor();
            return state_->wait(waiter_);
        }
        // The next child's result, rethrowing its error; nothing when no child is left.
        std::optional<detail::Result<T>> await_resume() { return state_->take(); }

    private:
        detail::GroupState<T>* state_;
        detail::CoroutineWaiter waiter_;
    };

    // Awaits the next finished child: its Result (get() returns the value or rethrows), or nothing
    // when no child is left.
    NextAwaiter nextResult() { return NextAwaiter(state_); }

    // Awaits the next finished child's value (rethrowing its error), or nothing when none is left.
    Task<std::optional<std::conditional_t<std::is_void_v<T>, bool, T>>> next() {
        auto result = co_await nextResult();
        if (!result) co_return std::nullopt;
        if constexpr (std::is_void_v<T>) {
            result->get();
            co_return true;
        } else {
            co_return result->get();
        }
    }

    // Awaits every child; rethrows the first error among them once all have finished.
    Task<void> waitForAll() {
        std::exception_ptr first;
        while (auto result = co_await nextResult()) {
            if (result->hasError() && !first) first = result->error();
        }
        if (!first) first = state_->firstError();
        if (first) std::rethrow_exception(first);
    }

    void cancelAll() { state_->cancelAll(); }
    bool isEmpty() const { return state_->isEmpty(); }

private:
    detail::GroupState<T>* state_;
    detail::TaskContext* parent_;
};

}  // namespace orvel::async
