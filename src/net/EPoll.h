#pragma once
#include "net/EventQueue.h"
#include "net/Logging.h"
#include "net/OwnedDescriptor.h"

#include <memory>
#include <unordered_map>
#include <unordered_set>

struct epoll_event;

namespace orvel::net {

// epoll(7) as our event queue, kept to a kernel-queue contract: read and write are added and
// removed separately per descriptor (`existing` mirrors what the kernel holds, so adding an
// event twice makes no system call), one wait returns at most `eventsLimit` descriptors, and end
// of file and errors are reported as flags. Level-triggered, or in `dispatch` mode one-shot: a
// reported descriptor stays known to the kernel but disarmed until events are added again, so a
// pool's wake-up costs no removal and its next wait one re-arming call instead of two. An eventfd
// registered beside the sockets lets stop() end a blocked wait; stop() must not race open() or
// close(). Owned by one pool.
class EPoll final : public EventQueue {
public:
    enum class Mode { levelTriggered, dispatch };

    EPoll(int maxEvents, Logger logger, Mode mode = Mode::levelTriggered);
    ~EPoll() override;

    void open() override;
    void close() override;
    void stop() noexcept override;
    void addEvents(Socket::Events events, Socket::FileDescriptor file) override;
    void removeEvents(Socket::Events events, Socket::FileDescriptor file) override;
    void getNotifications(std::vector<EventNotification>& into) override;
    using EventQueue::getNotifications;
    bool disarmsOnDelivery() const noexcept override { return mode_ == Mode::dispatch; }
    void delivered(const std::vector<EventNotification>& notifications) noexcept override;

    // -1 when not open.
    Socket::FileDescriptor file() const noexcept { return Socket::FileDescriptor{epoll_.get()}; }
    const std::unordered_map<Socket::FileDescriptor, Socket::Events>& existing() const noexcept { return existing_; }
    int eventsLimit() const noexcept { return eventsLimit_; }

private:
    void change(int operation, Socket::FileDescriptor file, Socket::Events events, const char* label);

    OwnedDescriptor epoll_;
    OwnedDescriptor wake_;
    std::unique_ptr<epoll_event[]> received_;  // eventsLimit records, reused by every wait
    std::unordered_map<Socket::FileDescriptor, Socket::Events> existing_;
    std::unordered_set<Socket::FileDescriptor> known_;  // dispatch: registered, armed or not
    int eventsLimit_;
    Mode mode_;
    Logger logger_;
};

}  // namespace orvel::net
