#include "net/ClientPoolLoader.h"
#include "net/EPoll.h"
#include "net/SocketPool.h"

#include "net/PoolTesting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/epoll.h>

#include <condition_variable>
#include <deque>
#include <filesystem>
#include <fstream>

using namespace orvel;
using namespace orvel::net;
using testing::Contains;
using testing::ElementsAre;
using Event = Socket::Event;
using namespace orvel::test;

namespace {

// An event queue driven by the test: each pushed batch is what the next wait returns.
class ScriptedQueue final : public EventQueue {
public:
    void open() override { isOpen = true; }
    void close() override { isOpen = false; }
    void stop() noexcept override { update([&] { stopped = true; }); }
    void addEvents(Socket::Events, Socket::FileDescriptor) override {}
    bool isRegistered(Socket::FileDescriptor) const noexcept override { return false; }
    void forget(Socket::FileDescriptor) noexcept override {}
    void removeEvents(Socket::Events, Socket::FileDescriptor) override {
        if (failRemoval) throw SocketError::failed("remove", EIO);
    }
    void getNotifications(std::vector<EventNotification>& into) override {
        std::unique_lock lock(mutex);
        changed.wait(lock, [&] { return stopped || !batches.empty() || failure; });
        into.clear();
        if (failure) std::rethrow_exception(std::exchange(failure, nullptr));
        if (std::exchange(stopped, false)) return;
        into = std::move(batches.front());
        batches.pop_front();
    }

    void push(std::vector<EventNotification> batch) { update([&] { batches.push_back(std::move(batch)); }); }
    void fail(std::exception_ptr error) { update([&] { failure = std::move(error); }); }

    std::atomic<bool> isOpen{false};
    bool failRemoval = false;

private:
    template <class Change>
    void update(Change change) {
        std::lock_guard lock(mutex);
        change();
        changed.notify_all();
    }

    std::mutex mutex;
    std::condition_variable changed;
    std::deque<std::vector<EventNotification>> batches;
    std::exception_ptr failure;
    bool stopped = false;
};

// Registrations are read from the kernel (/proc/self/fdinfo of the pool's epoll instance): the
// pool's own record changes on its wait thread, and reading it here would race.
class SocketPoolWaiters : public RunningPool {
protected:
    std::uint32_t watched(const Socket& socket) const {
        return epollWatch(static_cast<const EPoll&>(pool->queue()).file().rawValue, socket.file.rawValue).value_or(0);
    }
    bool registered(const Socket& socket, Socket::Events events) const {
        return watched(socket) == ((events.contains(Event::read) ? EPOLLIN : 0u) | (events.contains(Event::write) ? EPOLLOUT : 0u));
    }
};

}  // namespace

TEST_F(SocketPoolWaiters, WaitersForReadAreAllWokenByOneNotificationAndACancelledOneAlone) {
    Pair pair;
    auto first = park(pair.socket(), Event::read);
    auto cancelled = park(pair.socket(), Event::read);
    auto second = park(pair.socket(), Event::read);
    EXPECT_TRUE(registered(pair.socket(), Event::read));
    cancelled.cancel();
    EXPECT_EQ(outcome(cancelled), "CancellationError()");
    EXPECT_EQ(pool->waitingCount(), 2u);
    pair.peer().write("x", 1);
    EXPECT_EQ(outcome(first), "");
    EXPECT_EQ(outcome(second), "");
    EXPECT_TRUE(parked(0));
    // Already readable when it first parks on the idle pool: registering it must end the idle wait.
    Pair readable;
    readable.peer().write("x", 1);
    EXPECT_EQ(outcome(async::spawn(waitOn(pool.get(), readable.socket(), Event::read))), "");
}

TEST_F(SocketPoolWaiters, AReaderAndAWriterOnOneDescriptorAreWokenSeparately) {
    Pair pair;
    pair.fillSocketBuffer();
    auto writer = park(pair.socket(), Event::write);
    auto reader = park(pair.socket(), Event::read);
    EXPECT_TRUE(registered(pair.socket(), {Event::read, Event::write}));

    pair.peer().write("x", 1);
    EXPECT_EQ(outcome(reader), "");
    EXPECT_EQ(pool->waitingCount(), 1u);
    EXPECT_FALSE(writer.isFinished());

    for (std::vector<char> chunk(1 << 16); pair.peer().tryRead(chunk.data(), chunk.size()).done();) {
    }
    EXPECT_EQ(outcome(writer), "");
}

// Waits after the first cost no system call: wake-ups and cancellations leave the kernel's
// registration as it is, and readiness that comes while nobody waits is kept for the next waiter.
TEST_F(SocketPoolWaiters, ADescriptorStaysRegisteredUntilItClosesAndNoEdgeIsLost) {
    Pair pair;
    auto first = park(pair.socket(), Event::read);
    pair.peer().write("x", 1);
    EXPECT_EQ(outcome(first), "");
    EXPECT_TRUE(registered(pair.socket(), Event::read));
    pair.peer().write("y", 1);  // nobody waits for this one
    EXPECT_EQ(outcome(async::spawn(waitOn(pool.get(), pair.socket(), Event::read))), "");

    char buffer[4];
    ASSERT_EQ(pair.socket().tryRead(buffer, sizeof buffer).count, 2u);
    auto cancelled = park(pair.socket(), Event::read);
    cancelled.cancel();
    EXPECT_EQ(outcome(cancelled), "CancellationError()");
    EXPECT_TRUE(registered(pair.socket(), Event::read));
    pool->descriptorWillClose(pair.socket().file);
    EXPECT_EQ(watched(pair.socket()), 0u);
}

TEST_F(SocketPoolWaiters, WaitersOfAClosedDescriptorOrAGonePeerAloneAreWokenWithDisconnected) {
    Pair closing, losingPeer, quiet;
    auto reader = park(closing.socket(), Event::read);
    auto second = park(closing.socket(), Event::read);
    pool->descriptorWillClose(closing.socket().file);
    EXPECT_EQ(outcome(reader), "SocketError. Disconnected");
    EXPECT_EQ(outcome(second), "SocketError. Disconnected");
    EXPECT_EQ(watched(closing.socket()), 0u);

    auto other = park(quiet.socket(), Event::read);
    auto orphan = park(losingPeer.socket(), Event::read);
    losingPeer.second = OwnedDescriptor();
    EXPECT_EQ(outcome(orphan), "SocketError. Disconnected");
    EXPECT_FALSE(other.isFinished());
    other.cancel();
    EXPECT_EQ(outcome(other), "CancellationError()");
}

using SocketPoolLifecycle = SocketPoolWaiters;

TEST_F(SocketPoolLifecycle, ASecondRunFailsAndCancellingTheRunWakesEveryWaiterAndLeavesThePoolComplete) {
    EXPECT_EQ(outcome(async::spawn(runPool(pool.get()))), "Not Ready");
    EXPECT_EQ(pool->state(), SocketPool::State::running);
    Pair first, second;
    auto a = park(first.socket(), Event::read);
    auto b = park(first.socket(), Event::read);
    auto c = park(second.socket(), Event::read);
    loop.cancel();
    EXPECT_EQ(outcome(loop), "CancellationError()");
    for (const auto* waiter : {&a, &b, &c})
        EXPECT_EQ(outcome(*waiter), "CancellationError()");
    EXPECT_EQ(pool->state(), SocketPool::State::complete);
    EXPECT_EQ(pool->waitingCount(), 0u);
    EXPECT_EQ(static_cast<const EPoll&>(pool->queue()).file().rawValue, -1);
    EXPECT_THAT(logger->lines(), ElementsAre("info: SocketPoll prepare", "info: SocketPoll cancelAll"));

    EXPECT_EQ(outcome(async::spawn(waitOn(pool.get(), first.socket(), Event::read))), "Not Ready");
    EXPECT_EQ(outcome(async::spawn(runPool(pool.get()))), "Not Ready");
}

namespace {
// The state letter of each of this process's threads with the name (R running, S sleeping).
std::string statesOfThreads(std::string_view name) {
    std::string states;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream comm(task.path() / "comm"), stat(task.path() / "stat");
        std::string threadName, line;
        std::getline(comm, threadName);
        std::getline(stat, line);
        if (threadName == name && line.rfind(')') != std::string::npos)
            states += line[line.rfind(')') + 2];
    }
    return states;
}
}  // namespace

// An unprepared pool takes no waiters and does not run; waiters parked before the loop runs are
// served once it does. A poll pool parks while nobody waits, however long its interval: a first
// waiter is served at once, stopping takes effect at once, and with `immediate` the idle loop does
// not spin.
TEST(SocketPoolStates, PoolsServeEarlyWaitersAndAPollPoolParksWhileIdleAndWakesForAWaiterOrAStop) {
    FdSnapshot descriptors;
    const auto logger = std::make_shared<DisabledLogger>();
    for (const auto& pool : {SocketPool::make(20, logger), SocketPool::poll(Poll::Interval::seconds(600), logger),
                             SocketPool::poll(Poll::Interval::immediate(), logger)}) {
        const bool polls = !dynamic_cast<const EPoll*>(&pool->queue());
        SCOPED_TRACE(polls ? "poll" : "epoll");
        Pair early, late;
        EXPECT_EQ(pool->state(), std::nullopt);
        EXPECT_EQ(outcome(async::spawn(waitOn(pool.get(), early.socket(), Event::read))), "Not Ready");
        EXPECT_EQ(outcome(async::spawn(runPool(pool.get()))), "Not Ready");
        async::syncWait(preparePool(pool.get()));
        auto waiter = async::spawn(waitOn(pool.get(), early.socket(), Event::read));
        ASSERT_TRUE(eventually([&] { return pool->waitingCount() == 1; }));
        early.peer().write("x", 1);
        auto loop = async::spawn(runPool(pool.get()));
        EXPECT_EQ(outcome(waiter), "");
        if (polls) {
            EXPECT_TRUE(eventually([&] {
                const auto states = statesOfThreads("orvel.pool");
                return !states.empty() && states.find_first_not_of('S') == std::string::npos;
            }));
        }
        late.peer().write("x", 1);
        auto next = async::spawn(waitOn(pool.get(), late.socket(), Event::read));
        ASSERT_TRUE(eventually([&] { return next.isFinished(); })) << "the first waiter waited out the interval";
        loop.cancel();
        ASSERT_TRUE(eventually([&] { return loop.isFinished(); })) << "stop() did not end the wait";
        EXPECT_EQ(outcome(loop), "CancellationError()");
    }
}

class ScriptedPool : public testing::Test {
protected:
    void SetUp() override {
        auto owned = std::make_unique<ScriptedQueue>();
        queue = owned.get();
        pool = SocketPool::withQueue(std::move(owned), logger);
        async::syncWait(preparePool(pool.get()));
        loop = async::spawn(runPool(pool.get()));
    }
    void TearDown() override {
        loop.cancel();
        outcome(loop);
    }
    async::TaskHandle<void> park(int fd, Socket::Events events) { return test::park(pool.get(), Socket(fd), events); }

    std::shared_ptr<RecordingLogger> logger = std::make_shared<RecordingLogger>();
    ScriptedQueue* queue = nullptr;
    std::shared_ptr<SocketPool> pool;
    async::TaskHandle<void> loop;
};

TEST_F(ScriptedPool, AFailedRemovalIsLoggedAndTheWaiterStillWakes) {
    queue->failRemoval = true;
    auto reader = park(3, Event::read);
    queue->push({{{3}, Event::read, {}}});
    EXPECT_EQ(outcome(reader), "");
    EXPECT_THAT(logger->lines(), Contains("error: resumeContinuation queue.removeEvents: SocketError. remove(5): Input/output error"));
}

TEST_F(ScriptedPool, AQueueFailureEndsTheLoopWithThatErrorAfterCancellingEveryone) {
    auto reader = park(3, Event::read);
    queue->fail(std::make_exception_ptr(SocketError::failed("epoll epoll_wait", EINTR)));
    EXPECT_EQ(outcome(loop), "SocketError. epoll epoll_wait(4): Interrupted system call");
    EXPECT_EQ(outcome(reader), "CancellationError()");
    EXPECT_EQ(pool->state(), SocketPool::State::complete);
    EXPECT_FALSE(queue->isOpen);
}

namespace {
async::Task<bool> samePoolTwice(ClientPoolLoader* loader) {
    auto first = co_await loader->pool();
    auto second = co_await loader->pool();
    co_return first == second && first->state().has_value();
}
async::Task<void> stop(ClientPoolLoader* loader) { co_await loader->stop(); }
}  // namespace

TEST(ClientPoolLoading, PreparesAndStartsThePoolOnceAndStopsIt) {
    FdSnapshot descriptors;
    ClientPoolLoader loader(std::make_shared<DisabledLogger>());
    EXPECT_FALSE(loader.isStarted());
    EXPECT_TRUE(async::syncWait(samePoolTwice(&loader)));
    EXPECT_TRUE(loader.isStarted());
    async::syncWait(stop(&loader));
    EXPECT_FALSE(loader.isStarted());
}
