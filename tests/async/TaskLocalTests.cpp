#include "async/Async.h"

#include <gtest/gtest.h>

#include <string>

using namespace orvel::async;
using namespace std::chrono_literals;

namespace {

TaskLocal<std::string> requestID{"none"};

Task<std::string> readLocal() {
    co_await sleep(1ms);  // still bound after a suspension on another thread
    co_return requestID.get();
}

Task<std::string> seenBySpawnedAndGroupChildren() {
    auto spawned = spawn(readLocal());
    TaskGroup<std::string> group;
    group.add(readLocal());
    std::string fromGroup = *co_await group.next();
    co_return co_await spawned.value() + "/" + fromGroup;
}

Task<std::string> bindAndRead() {
    std::string inside = co_await requestID.withValue("r1", seenBySpawnedAndGroupChildren());
    std::string nested = co_await requestID.withValue("outer", requestID.withValue("inner", readLocal()));
    co_return inside + " " + nested + " " + requestID.get();
}

}  // namespace

TEST(TaskLocals, AreVisibleToChildrenWhileBoundAndRestoredAfterwards) {
    EXPECT_EQ(syncWait(bindAndRead()), "r1/r1 inner none");
    EXPECT_EQ(syncWait(readLocal()), "none");
}
