#include "net/IdentifiableContinuation.h"

#include "async/Async.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <stdexcept>
#include <optional>
#include <thread>

using namespace orvel;
using namespace std::chrono_literals;

namespace {

// A waiting slot like an entry of the socket pool's table: stored with its id, cancelled by id.
struct Waiters {
    std::mutex mutex;
    std::optional<net::IdentifiableContinuation<int>> waiting;
    std::atomic<int> bodyRuns{0}, cancelCalls{0};
    std::atomic<bool> cancelBeforeBody{false};

    void store(net::IdentifiableContinuation<int> continuation) {
        std::lock_guard lock(mutex);
        bodyRuns.fetch_add(1);
        waiting = continuation;
    }
    void cancel(net::ContinuationID id) {
        if (bodyRuns.load() == 0) cancelBeforeBody = true;
        cancelCalls.fetch_add(1);
        if (auto continuation = take(id)) continuation->resumeThrowing(std::make_exception_ptr(async::CancellationError()));
    }
    bool resumeAny(int value) {
        auto continuation = take(std::nullopt);
        if (continuation) continuation->resume(value);
        return continuation.has_value();
    }
    // The waiting continuation, when it has the id (any id without one), out of its slot.
    std::optional<net::IdentifiableContinuation<int>> take(std::optional<net::ContinuationID> id) {
        std::lock_guard lock(mutex);
        if (!waiting || (id && waiting->id != *id)) return std::nullopt;
        return std::exchange(waiting, std::nullopt);
    }
};

async::Task<int> wait(Waiters* waiters) {
    co_return co_await net::withIdentifiableContinuation<int>(
        [waiters](net::IdentifiableContinuation<int> continuation) { waiters->store(continuation); },
        [waiters](net::ContinuationID id) { waiters->cancel(id); });
}

async::Task<int> refusedWait(Waiters* waiters) {
    co_return co_await net::withIdentifiableContinuation<int>(
        [](net::IdentifiableContinuation<int>) { throw std::runtime_error("no room for a waiter"); },
        [waiters](net::ContinuationID id) { waiters->cancel(id); });
}

}  // namespace

TEST(IdentifiableContinuations, ACancellationBeforeTheBodyIsDeliveredOnceAfterIt) {
    Waiters waiters;
    auto handle = async::spawn([](Waiters* waiters) -> async::Task<int> {
        try {
            co_await async::sleep(1h);
        } catch (const async::CancellationError&) {
        }
        co_return co_await wait(waiters);  // already cancelled when the body runs
    }(&waiters));
    handle.cancel();
    EXPECT_THROW(handle.wait(), async::CancellationError);
    EXPECT_EQ(waiters.bodyRuns.load(), 1);
    EXPECT_EQ(waiters.cancelCalls.load(), 1);
    EXPECT_FALSE(waiters.cancelBeforeBody.load());
}

TEST(IdentifiableContinuations, CancellationRacingResumptionEndsEachWaitExactlyOnce) {
    for (int round = 0; round < 2000; ++round) {
        Waiters waiters;
        auto handle = async::spawn(wait(&waiters));
        std::thread resumer([&] {
            while (!waiters.resumeAny(round) && !handle.isFinished()) std::this_thread::yield();
        });
        if (round % 3 != 0) handle.cancel();
        try {
            EXPECT_EQ(handle.wait(), round);
        } catch (const async::CancellationError&) {
            EXPECT_EQ(waiters.cancelCalls.load(), 1);
        }
        resumer.join();
        EXPECT_LE(waiters.cancelCalls.load(), 1);
        EXPECT_FALSE(waiters.cancelBeforeBody.load());
    }
}

TEST(IdentifiableContinuations, ABodyThatThrowsLeavesNoCancellationHandlerBehind) {
    // The awaiter's frame is gone once the error is caught; a later cancel must not reach it
    // (AddressSanitizer reports the use after free).
    Waiters waiters;
    std::atomic<bool> refused{false};
    auto handle = async::spawn([](Waiters* waiters, std::atomic<bool>* refused) -> async::Task<int> {
        try {
            co_await refusedWait(waiters);
        } catch (const std::runtime_error&) {
            refused->store(true);
        }
        co_await async::sleep(1h);
        co_return 0;
    }(&waiters, &refused));
    while (!refused.load()) std::this_thread::yield();
    handle.cancel();
    EXPECT_THROW(handle.wait(), async::CancellationError);
    EXPECT_EQ(waiters.cancelCalls.load(), 0);
}
