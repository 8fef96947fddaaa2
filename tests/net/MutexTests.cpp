#include "net/Mutex.h"

#include <gtest/gtest.h>

#include <future>
#include <stdexcept>
#include <thread>

using orvel::net::Mutex;

TEST(Mutex, WithLockIfAvailableIsAbsentOnlyWhileTheLockIsHeld) {
    Mutex<int> value(3);
    std::promise<void> held;
    std::promise<void> release;
    std::thread holder([&] {
        value.withLock([&](int&) {
            held.set_value();
            release.get_future().wait();
        });
    });
    held.get_future().wait();
    bool ran = false;
    const auto result = value.withLockIfAvailable([&](int& v) { ran = true; return v; });
    const bool voidResult = value.withLockIfAvailable([&](int&) { ran = true; });
    release.set_value();
    holder.join();
    EXPECT_FALSE(result.has_value());
    EXPECT_FALSE(voidResult);
    EXPECT_FALSE(ran);
    EXPECT_EQ(value.withLockIfAvailable([](int& v) { return v; }), std::optional<int>(3));

    EXPECT_THROW(value.withLock([](int&) -> int { throw std::runtime_error("body"); }), std::runtime_error);
    EXPECT_TRUE(value.withLockIfAvailable([](int&) {}));  // the throw released the lock
}
