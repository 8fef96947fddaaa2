#pragma once
#include <coroutine>

namespace orvel::async {

// Where coroutines run. Tasks are executor-affine: whoever resumes a suspended coroutine posts it
// to the executor it was running on, never runs it on its own stack.
class Executor {
public:
    virtual void schedule(std::coroutine_handle<> coroutine) = 0;

protected:
    ~Executor() = default;
};

// The executor the calling thread is running jobs for, or null outside every executor.
Executor* currentExecutor() noexcept;

// The cooperative thread pool every task runs on unless it is bound to a serial executor.
Executor& defaultExecutor();

namespace detail {
void setCurrentExecutor(Executor* executor) noexcept;

// Restores the thread's current executor when a job run by a nested executor ends.
class ExecutorScope {
public:
    explicit ExecutorScope(Executor* executor) noexcept : saved_(currentExecutor()) { setCurrentExecutor(executor); }
    ~ExecutorScope() { setCurrentExecutor(saved_); }
    ExecutorScope(const ExecutorScope&) = delete;
    ExecutorScope& operator=(const ExecutorScope&) = delete;

private:
    Executor* saved_;
};
}  // namespace detail

}  // namespace orvel::async
