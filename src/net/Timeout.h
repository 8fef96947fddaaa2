#pragma once
#include "async/Cancellation.h"
#include "async/Error.h"
#include "async/Executor.h"
#include "async/Sleep.h"
#include "async/Spawn.h"
#include "async/Task.h"

#include <chrono>
#include <cstdint>
#include <exception>
#include <string>

namespace orvel::net {

// Raised when a body run under withThrowingTimeout does not finish in time.
class TimeoutError final : public async::Error {
public:
    explicit TimeoutError(double seconds);
};

// seconds in the shortest decimal form that reads back as the same double ("5.0", "0.5", "1e-05").
std::string shortestDecimal(double seconds);

// The sleep for seconds as nanoseconds; seconds must be finite, not negative and small enough
// for the count to fit 64 bits (anything else stops the program: it is a caller's bug).
std::uint64_t timeoutNanoseconds(double seconds);

namespace detail {
template <class T>
async::Task<void> expireAfter(std::uint64_t nanoseconds, async::TaskHandle<T> body, double seconds) {
    co_await async::sleep(std::chrono::nanoseconds(nanoseconds));
    body.cancel();
    throw TimeoutError(seconds);
}

template <class T>
async::Task<void> cancelAfter(std::uint64_t nanoseconds, async::TaskHandle<T> task) {
    co_await async::sleep(std::chrono::nanoseconds(nanoseconds));
    task.cancel();
}
}  // namespace detail

// Runs body as a task beside a second task that sleeps for seconds. When the time passes first,
// the body's task is cancelled and TimeoutError is raised; otherwise the body's value or error is
// the result. The body runs on the caller's executor (a serialised object's, when called from one).
template <class T>
async::Task<T> withThrowingTimeout(double seconds, async::Task<T> body) {
    std::uint64_t nanoseconds = timeoutNanoseconds(seconds);
    async::Executor* executor = async::currentExecutor() ? async::currentExecutor() : &async::defaultExecutor();
    auto bodyTask = async::spawn(std::move(body), *executor);
    auto timeoutTask = async::spawn(detail::expireAfter(nanoseconds, bodyTask, seconds));

    async::detail::Result<T> result;
    {
        async::CancellationHandler cancelBody([bodyTask] { bodyTask.cancel(); });
        try {
            if constexpr (std::is_void_v<T>) {
                co_await bodyTask.value();
                result.storage.template emplace<1>();
            } else {
                result.storage.template emplace<1>(co_await bodyTask.value());
            }
        } catch (...) {
            result.storage.template emplace<2>(std::current_exception());
        }
    }
    timeoutTask.cancel();
    try {
        co_await timeoutTask.value();
    } catch (const TimeoutError&) {
        throw;
    } catch (...) {
        // The sleep was cancelled: the body finished first.
    }
    co_return result.get();
}

// How getValue cancels the task it waits for.
struct CancellationPolicy {
    enum class Kind { afterTimeout, whenParentIsCancelled };
    Kind kind;
    double seconds = 0;

    static CancellationPolicy afterTimeout(double seconds) { return {Kind::afterTimeout, seconds}; }
    static CancellationPolicy whenParentIsCancelled() { return {Kind::whenParentIsCancelled, 0}; }
};

// Waits for task's result, cancelling it as policy says.
template <class T>
async::Task<T> getValue(async::TaskHandle<T> task, CancellationPolicy policy) {
    if (policy.kind == CancellationPolicy::Kind::whenParentIsCancelled) {
        async::CancellationHandler cancelTask([task] { task.cancel(); });
        co_return co_await task.value();
    }
    auto timer = async::spawn(detail::cancelAfter(timeoutNanoseconds(policy.seconds), task));
    struct CancelTimer {
        async::TaskHandle<void>& timer;
        ~CancelTimer() { timer.cancel(); }
    } cancelTimer{timer};
    co_return co_await task.value();
}

}  // namespace orvel::net
