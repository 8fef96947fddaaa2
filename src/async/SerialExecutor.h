#pragma once
#include "async/Executor.h"

#include <coroutine>
#include <memory>

namespace orvel::async {

class ThreadPool;

// Runs the coroutines of one serialised (actor-like) object one at a time, on the pool's threads.
// A member coroutine starts with `co_await executor.enter()`; it then returns to this executor
// after every suspension, while other members may run in between (re-entrant like an actor).
// Its queue outlives the object while a drain is under way, so the last job may free the owner.
class SerialExecutor final : public Executor {
public:
    SerialExecutor();
    explicit SerialExecutor(ThreadPool& target);
    ~SerialExecutor();
    SerialExecutor(const SerialExecutor&) = delete;
    SerialExecutor& operator=(const SerialExecutor&) = delete;

    void schedule(std::coroutine_handle<> coroutine) override;

    // True while the calling thread runs a job of this executor.
    bool isCurrent() const noexcept;

    struct EnterAwaiter {
        SerialExecutor* executor;
        bool await_ready() const noexcept { return executor->isCurrent(); }
        void await_suspend(std::coroutine_handle<> handle) const { executor->schedule(handle); }
        void await_resume() const noexcept {}
    };
    EnterAwaiter enter() noexcept { return EnterAwaiter{this}; }

private:
    class Queue;
    Queue* queue_;
};

}  // namespace orvel::async
