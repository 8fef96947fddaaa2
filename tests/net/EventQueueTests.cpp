#include "net/EPoll.h"
#include "net/OwnedDescriptor.h"
#include "net/Poll.h"

#include "net/PoolTesting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <future>
#include <memory>

using namespace orvel::net;
using orvel::test::errorOf;
using orvel::test::Pair;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;
using Error = EventNotification::Error;
using Event = Socket::Event;

namespace {

Logger logger() { return std::make_shared<DisabledLogger>(); }

class EPollQueue : public orvel::test::FdLeakCheck {
protected:
    void open(EPoll::Mode mode = EPoll::Mode::levelTriggered) {
        queue = std::make_unique<EPoll>(20, logger(), mode);
        queue->open();
    }
    void TearDown() override {
        queue.reset();
        FdLeakCheck::TearDown();
    }
    bool registered(const Pair& pair) const { return orvel::test::epollWatch(queue->file().rawValue, pair.first.get()).has_value(); }

    std::unique_ptr<EPoll> queue;
};

}  // namespace

TEST_F(EPollQueue, EventsAreRegisteredOnceAndAddedAndRemovedSeparately) {
    open();
    Pair pair;
    const auto file = pair.socket().file;
    queue->addEvents(Event::read, file);
    queue->addEvents(Event::read, file);
    queue->removeEvents(Event::write, file);
    queue->removeEvents(Event::read, pair.peer().file);
    EXPECT_EQ(queue->existing().at(file), Socket::Events(Event::read));
    EXPECT_TRUE(registered(pair));

    queue->addEvents(Event::write, file);
    EXPECT_EQ(queue->existing().at(file), (Socket::Events{Event::read, Event::write}));
    queue->removeEvents(Event::read, file);
    EXPECT_EQ(queue->existing().at(file), Socket::Events(Event::write));
    EXPECT_THAT(queue->getNotifications(), ElementsAre(EventNotification{file, Event::write, {}}));
    queue->removeEvents(Event::write, file);
    EXPECT_FALSE(queue->existing().contains(file));
    EXPECT_FALSE(registered(pair));
}

TEST_F(EPollQueue, FailuresAreReportedAndLeaveNothingRegistered) {
    EPoll never(20, logger());
    EXPECT_EQ(errorOf([&] { never.close(); }), "SocketError. Disconnected");

    open();
    OwnedDescriptor file(::open("/proc/self/stat", O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(errorOf([&] { queue->addEvents(Event::read, {file.get()}); }), "SocketError. epoll add epoll_ctl(1): Operation not permitted");
    EXPECT_FALSE(queue->existing().contains({file.get()}));

    Pair pair;
    const auto closed = pair.socket().file;
    queue->addEvents(Event::read, closed);
    pair.first = OwnedDescriptor();
    EXPECT_EQ(errorOf([&] { queue->removeEvents(Event::read, closed); }),
              "SocketError. epoll remove epoll_ctl(9): Bad file descriptor");
    EXPECT_FALSE(queue->existing().contains(closed));

    queue->addEvents(Event::read, pair.peer().file);
    queue->close();
    EXPECT_TRUE(queue->existing().empty());
    EXPECT_EQ(queue->file().rawValue, -1);
    EXPECT_EQ(errorOf([&] { queue->close(); }), "SocketError. Disconnected");
}

TEST_F(EPollQueue, AWaitReturnsAtMostTheLimit) {
    open();
    std::vector<Pair> pairs(25);
    for (auto& readable : pairs) {
        queue->addEvents(Event::read, readable.socket().file);
        readable.peer().write("x", 1);
    }
    EXPECT_EQ(queue->getNotifications().size(), 20u);
}

TEST_F(EPollQueue, EdgeTriggeredReportsEachChangeOnceAndTheNonBlockingTakeNeverWaits) {
    open(EPoll::Mode::edgeTriggered);
    Pair pair;
    const auto file = pair.socket().file;
    std::vector<EventNotification> ready;
    EXPECT_FALSE(queue->getReadyNotifications(ready));
    EXPECT_THAT(ready, IsEmpty());
    queue->addEvents(Event::read, file);
    pair.peer().write("x", 1);
    EXPECT_THAT(queue->getNotifications(), ElementsAre(EventNotification{file, Event::read, {}}));
    // Still readable, but nothing changed: a wait returns nothing once stopped.
    auto waited = std::async(std::launch::async, [&] { return queue->getNotifications(); });
    queue->stop();  // the eventfd stays readable until a wait drains it
    ASSERT_EQ(waited.wait_for(std::chrono::seconds(60)), std::future_status::ready);
    EXPECT_THAT(waited.get(), IsEmpty());
    pair.peer().write("y", 1);
    queue->getReadyNotifications(ready);
    EXPECT_THAT(ready, ElementsAre(EventNotification{file, Event::read, {}}));
    EXPECT_TRUE(registered(pair));
}

TEST(PollQueue, RefusesEverythingUntilOpenedAndKeepsDescriptorAndEventSetPairs) {
    Poll queue{Poll::Interval::immediate(), logger()};
    EXPECT_THAT(errorOf([&] { queue.addEvents(Event::read, {0}); }), StartsWith("SocketError. poll.addEvents notReady("));
    EXPECT_THAT(errorOf([&] { queue.removeEvents(Event::read, {0}); }), StartsWith("SocketError. poll.removeEvents notReady("));
    EXPECT_THAT(errorOf([&] { queue.getNotifications(); }), StartsWith("SocketError. poll.getNotifications notReady("));

    queue.open();
    queue.addEvents(Event::read, {5});
    queue.addEvents(Event::read, {5});
    queue.addEvents({Event::read, Event::write}, {5});
    EXPECT_EQ(queue.entries().size(), 2u);
    queue.removeEvents(Event::read, {5});
    EXPECT_THAT(queue.entries(), ElementsAre(Poll::Entry{{5}, {Event::read, Event::write}}));
    queue.close();
    EXPECT_THAT(queue.entries(), IsEmpty());
    EXPECT_FALSE(queue.isOpen());
}

// Both queues see the same descriptors: epoll reports each event on its own and a readable
// descriptor's end only once its bytes are read; poll reports a descriptor once, and errors to
// its writers alone.
TEST(EventQueues, ReportWhatIsReadyAndAGonePeerOrAFailedDescriptorToTheRightWaiters) {
    orvel::test::FdSnapshot descriptors;
    const Socket::Events both{Event::read, Event::write};
    const struct {
        const char* name;
        Socket::Events registered;
        std::string sent;  // by the peer, then read back when `readBack`
        bool peerGone, readBack, pipeWithoutReader;
        std::vector<std::pair<Socket::Events, EventNotification::Errors>> epoll, poll;
    } cases[] = {
        {"nothing ready", Event::read, "", false, false, false, {}, {}},
        {"readable and writable", both, "x", false, false, false, {{Event::read, {}}, {Event::write, {}}}, {{both, {}}}},
        {"a gone peer's bytes unread", Event::read, "left", true, false, false, {{Event::read, {}}}, {{Event::read, {}}}},
        {"a gone peer's bytes read", Event::read, "left", true, true, false, {{Event::read, {Error::endOfFile}}}, {{Event::read, {}}}},
        {"a writer whose peer is gone", Event::write, "", true, false, false,
         {{Event::write, {Error::endOfFile}}}, {{Event::write, {Error::endOfFile}}}},
        {"a pipe without a reader, watched for reading", Event::read, "", false, false, true, {{Event::read, {Error::error}}}, {}},
        {"a pipe without a reader", both, "", false, false, true,
         {{Event::read, {Error::error}}, {Event::write, {Error::error}}}, {{both, {Error::error}}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EPoll epoll(20, logger());
        Poll poll(Poll::Interval::immediate(), logger());
        for (EventQueue* queue : {static_cast<EventQueue*>(&epoll), static_cast<EventQueue*>(&poll)}) {
            Pair pair;
            if (c.pipeWithoutReader) {  // the write end reports POLLERR
                int fds[2];
                ASSERT_EQ(::pipe2(fds, O_CLOEXEC), 0);
                pair.first = OwnedDescriptor(fds[1]);
                pair.second = OwnedDescriptor(fds[0]);
            }
            if (!c.sent.empty()) pair.peer().write(c.sent.data(), c.sent.size());
            if (c.peerGone || c.pipeWithoutReader) pair.second = OwnedDescriptor();
            std::string buffer(c.sent.size() + 1, '\0');
            if (c.readBack) {
                ASSERT_EQ(::read(pair.first.get(), buffer.data(), buffer.size()), static_cast<ssize_t>(c.sent.size()));
            }
            queue->open();
            queue->addEvents(c.registered, pair.socket().file);
            std::vector<EventNotification> notifications;
            if (queue == &epoll)
                queue->getReadyNotifications(notifications);  // epoll's wait would block on nothing ready
            else
                queue->getNotifications(notifications);
            std::vector<EventNotification> expected;
            for (const auto& [events, errors] : queue == &epoll ? c.epoll : c.poll) expected.push_back({pair.socket().file, events, errors});
            EXPECT_EQ(notifications, expected) << (queue == &epoll ? "epoll" : "poll");
            queue->removeEvents(c.registered, pair.socket().file);
            queue->close();
        }
    }
}
