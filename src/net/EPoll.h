#pragma once
#include "net/EventQueue.h"
#include "net/Logging.h"
#include "net/OwnedDescriptor.h"

#include <memory>
#include <unordered_map>

struct epoll_event;

namespace orvel::net {

// epoll(7) as our event queue, kept to a kernel-queue contract: read and write are added and
// removed separately per descriptor (`existing` mirrors what the kernel holds, so adding an
// event twice makes no system call), one wait returns at most `eventsLimit` descriptors, and end
// of file and errors are reported as flags. Level-triggered, or edge-triggered: each change of
// readiness is reported once, so a registration can stay for the life of its descriptor and a
// wait after a wake-up costs no system call (its owner remembers readiness nobody waited for).
// An eventfd registered beside the sockets lets stop() end a blocked wait; stop() must not race
// open() or close(). Owned by one pool.
class EPoll final : public EventQueue {
public:
    enum class Mode { levelTriggered, edgeTriggered };

    EPoll(int maxEvents, Logger logger, Mode mode = Mode::levelTriggered);
    ~EPoll() override;

    void open() override;
    void close() override;
    void stop() noexcept override;
    void addEvents(Socket::Events events, Socket::FileDescriptor file) override;
    void removeEvents(Socket::Events events, Socket::FileDescriptor file) override;
    void getNotifications(std::vector<EventNotification>& into) override;
    using EventQueue::getNotifications;
    int pollableDescriptor() const noexcept override { return epoll_.get(); }
    bool getReadyNotifications(std::vector<EventNotification>& into) override;
    bool keepsRegistrations() const noexcept override { return mode_ == Mode::edgeTriggered; }
    bool isRegistered(Socket::FileDescriptor file) const noexcept override { return existing_.contains(file); }
    void forget(Socket::FileDescriptor file) noexcept override { existing_.erase(file); }

    // -1 when not open.
    Socket::FileDescriptor file() const noexcept { return Socket::FileDescriptor{epoll_.get()}; }
    const std::unordered_map<Socket::FileDescriptor, Socket::Events>& existing() const noexcept { return existing_; }
    int eventsLimit() const noexcept { return eventsLimit_; }

private:
    // Waits at most `timeout` milliseconds (-1: no limit); returns the count of kernel records.
    int wait(std::vector<EventNotification>& into, int timeout);
    void change(int operation, Socket::FileDescriptor file, Socket::Events events, const char* label);

    OwnedDescriptor epoll_;
    OwnedDescriptor wake_;
    std::unique_ptr<epoll_event[]> received_;  // eventsLimit records, reused by every wait
    std::unordered_map<Socket::FileDescriptor, Socket::Events> existing_;
    int eventsLimit_;
    Mode mode_;
    Logger logger_;
};

}  // namespace orvel::net
