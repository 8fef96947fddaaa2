#pragma once
#include "net/EventQueue.h"
#include "net/Logging.h"
#include "net/OwnedDescriptor.h"

#include <mutex>
#include <variant>
#include <vector>

namespace orvel::net {

// poll(2) as an event queue, for where epoll is not wanted. Registrations are (descriptor,
// events) entries, so one descriptor may have several; every wait rebuilds its pollfd list and
// waits at most `interval`, or without a limit while there are no entries (an idle pool parks).
// An eventfd at the head of the list ends a wait early: stop() and every new entry write to it,
// so a waiter added during a long wait is served at once. Entries are guarded by a lock because
// add and remove may run while the pool's thread is in a wait (which uses a snapshot).
class Poll final : public EventQueue {
public:
    struct Entry {
        Socket::FileDescriptor file;
        Socket::Events events;
        friend bool operator==(const Entry&, const Entry&) = default;
    };

    struct Interval {
        static Interval seconds(double seconds) { return Interval{seconds}; }
        static Interval immediate() { return Interval{0.0}; }
        double secondsValue = 0;
    };

    Poll(Interval interval, Logger logger);

    void open() override;
    void close() override;
    void stop() noexcept override;
    void addEvents(Socket::Events events, Socket::FileDescriptor file) override;
    void removeEvents(Socket::Events events, Socket::FileDescriptor file) override;
    void getNotifications(std::vector<EventNotification>& into) override;
    using EventQueue::getNotifications;
    bool isRegistered(Socket::FileDescriptor file) const noexcept override;
    void forget(Socket::FileDescriptor file) noexcept override;

    bool isOpen() const;
    std::vector<Entry> entries() const;

private:
    void wake() const noexcept;  // with lock_ held

    mutable std::mutex lock_;
    std::vector<Entry> entries_;
    OwnedDescriptor wake_;
    bool isOpen_ = false;
    int timeoutMilliseconds_;
    Logger logger_;
};

}  // namespace orvel::net
