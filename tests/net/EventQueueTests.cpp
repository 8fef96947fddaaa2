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
    // A wait that must return nothing: the queue is stopped while (or before) it blocks.
    std::vector<EventNotification> stoppedWait() {
        auto waited = std::async(std::launch::async, [&] { return queue->getNotifications(); });
        queue->stop();  // the eventfd stays readable until a wait drains it
        EXPECT_EQ(waited.wait_for(std::chrono::seconds(60)), std::future_status::ready);
        return waited.get();
    }
    std::size_t kernelRegistrations(const Pair& pair) const {
        return orvel::test::epollWatch(queue->file().rawValue, pair.first.get()).has_value();
    }

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
    EXPECT_EQ(kernelRegistrations(pair), 1u);

    queue->addEvents(Event::write, file);
    EXPECT_EQ(queue->existing().at(file), (Socket::Events{Event::read, Event::write}));
    queue->removeEvents(Event::read, file);
    EXPECT_EQ(queue->existing().at(file), Socket::Events(Event::write));
    EXPECT_THAT(queue->getNotifications(), ElementsAre(EventNotification{file, Event::write, {}}));
    queue->removeEvents(Event::write, file);
    EXPECT_FALSE(queue->existing().contains(file));
    EXPECT_EQ(kernelRegistrations(pair), 0u);
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

TEST_F(EPollQueue, ReadAndWriteReadinessAreSeparateNotificationsAtMostTheLimitPerWait) {
    open();
    Pair pair;
    queue->addEvents({Event::read, Event::write}, pair.socket().file);
    pair.peer().write("x", 1);
    EXPECT_THAT(queue->getNotifications(), ElementsAre(EventNotification{pair.socket().file, Event::read, {}},
                                                       EventNotification{pair.socket().file, Event::write, {}}));
    queue->removeEvents({Event::read, Event::write}, pair.socket().file);
    std::vector<Pair> pairs(25);
    for (auto& readable : pairs) {
        queue->addEvents(Event::read, readable.socket().file);
        readable.peer().write("x", 1);
    }
    EXPECT_EQ(queue->getNotifications().size(), 20u);
}

TEST_F(EPollQueue, AGonePeerIsEndOfFileForWritersAtOnceAndForReadersOnceTheBytesAreRead) {
    open();
    Pair reading, writing;
    queue->addEvents(Event::read, reading.socket().file);
    reading.peer().write("left", 4);
    reading.second = OwnedDescriptor();
    EXPECT_THAT(queue->getNotifications(), ElementsAre(EventNotification{reading.socket().file, Event::read, {}}));
    char buffer[8];
    ASSERT_EQ(::read(reading.first.get(), buffer, sizeof buffer), 4);
    EXPECT_THAT(queue->getNotifications(), ElementsAre(EventNotification{reading.socket().file, Event::read, {Error::endOfFile}}));
    queue->removeEvents(Event::read, reading.socket().file);

    queue->addEvents(Event::write, writing.socket().file);
    writing.second = OwnedDescriptor();
    EXPECT_THAT(queue->getNotifications(), ElementsAre(EventNotification{writing.socket().file, Event::write, {Error::endOfFile}}));
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
    EXPECT_THAT(stoppedWait(), IsEmpty());  // still readable, but nothing changed
    pair.peer().write("y", 1);
    queue->getReadyNotifications(ready);
    EXPECT_THAT(ready, ElementsAre(EventNotification{file, Event::read, {}}));
    EXPECT_EQ(kernelRegistrations(pair), 1u);
}

class PollQueue : public orvel::test::FdLeakCheck {
protected:
    void TearDown() override {
        queue.close();  // its wake-up eventfd
        FdLeakCheck::TearDown();
    }
    Poll queue{Poll::Interval::immediate(), logger()};
};

TEST_F(PollQueue, RefusesEverythingUntilOpenedAndKeepsDescriptorAndEventSetPairs) {
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

TEST_F(PollQueue, ReportsOnlyReadyEvents) {
    Pair pair;
    queue.open();
    queue.addEvents(Event::read, pair.socket().file);
    EXPECT_THAT(queue.getNotifications(), IsEmpty());
    queue.removeEvents(Event::read, pair.socket().file);
    queue.addEvents({Event::read, Event::write}, pair.socket().file);
    pair.peer().write("x", 1);
    EXPECT_THAT(queue.getNotifications(), ElementsAre(EventNotification{pair.socket().file, {Event::read, Event::write}, {}}));
}

TEST_F(PollQueue, AFailedDescriptorIsReportedToItsWritersNotToItsReaders) {
    int fds[2];
    ASSERT_EQ(::pipe2(fds, O_CLOEXEC), 0);
    OwnedDescriptor reader(fds[0]);
    OwnedDescriptor writer(fds[1]);
    reader = OwnedDescriptor();  // the write end now reports POLLERR
    queue.open();
    queue.addEvents(Event::read, {writer.get()});
    EXPECT_THAT(queue.getNotifications(), IsEmpty());
    queue.removeEvents(Event::read, {writer.get()});
    queue.addEvents({Event::read, Event::write}, {writer.get()});
    const auto notifications = queue.getNotifications();
    ASSERT_EQ(notifications.size(), 1u);
    EXPECT_EQ(notifications[0].events, (Socket::Events{Event::read, Event::write}));
    EXPECT_TRUE(notifications[0].errors.contains(Error::error));
}
