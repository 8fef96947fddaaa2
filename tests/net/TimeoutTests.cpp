#include "net/Timeout.h"

#include "async/Async.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>

using namespace orvel;
using namespace std::chrono_literals;
using ::testing::StrEq;
using ::testing::ThrowsMessage;

namespace {

async::Task<int> sleepThenReturn(std::chrono::milliseconds delay, int value, std::atomic<bool>* cancelled = nullptr) {
    try {
        co_await async::sleep(delay);
    } catch (const async::CancellationError&) {
        if (cancelled) cancelled->store(true);
        throw;
    }
    co_return value;
}

async::Task<int> failing() {
    co_await async::sleep(1ms);
    throw std::runtime_error("body failed");
}

}  // namespace

TEST(Timeouts, ABodyOverTheLimitIsCancelledWithTheExactTextAndOneWithinGivesItsValueOrError) {
    std::atomic<bool> cancelled{false};
    EXPECT_THAT([&] { async::syncWait(net::withThrowingTimeout(0.5, sleepThenReturn(1h, 1, &cancelled))); },
                ThrowsMessage<net::TimeoutError>(StrEq("Task timed out before completion. Timeout: 0.5 seconds.")));
    EXPECT_TRUE(cancelled.load());
    EXPECT_EQ(async::syncWait(net::withThrowingTimeout(30.0, sleepThenReturn(1ms, 7))), 7);
    EXPECT_THROW(async::syncWait(net::withThrowingTimeout(30.0, failing())), std::runtime_error);
}

TEST(Timeouts, CancellingTheCallerCancelsTheBody) {
    std::atomic<bool> cancelled{false};
    auto handle = async::spawn(net::withThrowingTimeout(3600.0, sleepThenReturn(1h, 1, &cancelled)));
    handle.cancel();  // wherever it lands, the hour-long body must end
    EXPECT_THROW(handle.wait(), async::CancellationError);
    EXPECT_TRUE(cancelled.load());
}

TEST(Timeouts, TextUsesTheShortestDecimalOfTheSeconds) {
    EXPECT_EQ(net::TimeoutError(5).description(), "Task timed out before completion. Timeout: 5.0 seconds.");
    EXPECT_EQ(net::shortestDecimal(15), "15.0");
    EXPECT_EQ(net::shortestDecimal(0.1), "0.1");
    EXPECT_EQ(net::shortestDecimal(1e-5), "1e-05");
    EXPECT_EQ(net::shortestDecimal(1e16), "1e+16");
    EXPECT_EQ(net::shortestDecimal(123.25), "123.25");
}

TEST(Timeouts, NegativeOrInfiniteSecondsStopTheProgram) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");  // the pool's threads are running
    EXPECT_DEATH(net::timeoutNanoseconds(-1), "cannot be slept");
    EXPECT_DEATH(net::timeoutNanoseconds(1e300), "cannot be slept");
}

TEST(GetValue, CancelsTheTaskWhenTheWaiterIsCancelledOrTheTimePasses) {
    std::atomic<bool> cancelled{false};
    auto task = async::spawn(sleepThenReturn(1h, 1, &cancelled));
    auto waiter = async::spawn(net::getValue(task, net::CancellationPolicy::whenParentIsCancelled()));
    waiter.cancel();
    EXPECT_THROW(waiter.wait(), async::CancellationError);
    EXPECT_THROW(task.wait(), async::CancellationError);
    EXPECT_TRUE(cancelled.load());

    std::atomic<bool> timedOut{false};
    auto slow = async::spawn(sleepThenReturn(1h, 1, &timedOut));
    EXPECT_THROW(async::syncWait(net::getValue(slow, net::CancellationPolicy::afterTimeout(0.05))), async::CancellationError);
    EXPECT_TRUE(timedOut.load());

    auto quick = async::spawn(sleepThenReturn(1ms, 9));
    EXPECT_EQ(async::syncWait(net::getValue(quick, net::CancellationPolicy::afterTimeout(30))), 9);
}
