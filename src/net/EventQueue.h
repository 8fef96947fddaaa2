#pragma once
#include "net/Socket.h"

#include <cstdint>
#include <iosfwd>
#include <vector>

namespace orvel::net {

// Readiness report for one descriptor: the events that are ready, and whether the descriptor
// reached end of file or an error.
struct EventNotification {
    enum class Error : std::uint8_t { endOfFile = 1, error = 2 };

    // A set of Error, as a bit mask.
    class Errors {
    public:
        constexpr Errors() = default;
        constexpr Errors(std::initializer_list<Error> errors) {
            for (auto error : errors)
                insert(error);
        }
        constexpr bool contains(Error error) const { return bits_ & static_cast<std::uint8_t>(error); }
        constexpr bool empty() const { return bits_ == 0; }
        constexpr void insert(Error error) { bits_ |= static_cast<std::uint8_t>(error); }
        friend constexpr bool operator==(Errors, Errors) = default;

    private:
        std::uint8_t bits_ = 0;
    };

    Socket::FileDescriptor file;
    Socket::Events events;
    Errors errors;

    friend bool operator==(const EventNotification&, const EventNotification&) = default;
};

std::ostream& operator<<(std::ostream& out, const EventNotification& notification);

// Tells a socket pool which descriptors became ready. One pool owns it: open, close, add and
// remove run on the pool's side; getNotifications blocks on the pool's wait thread, possibly
// while add and remove run elsewhere, and stop() may be called from any thread to end a
// blocked wait early. Failures are SocketError.
class EventQueue {
public:
    virtual ~EventQueue() = default;

    virtual void open() = 0;
    virtual void close() = 0;
    // Wakes a blocked getNotifications (it then returns what it has, possibly nothing).
    virtual void stop() noexcept = 0;
    virtual void addEvents(Socket::Events events, Socket::FileDescriptor file) = 0;
    virtual void removeEvents(Socket::Events events, Socket::FileDescriptor file) = 0;
    // Waits and replaces the contents of `into` with the ready descriptors; `into` is the
    // caller's so that its memory is reused from one wait to the next.
    virtual void getNotifications(std::vector<EventNotification>& into) = 0;

    // True for a queue that disarms a descriptor's whole registration when it reports it: its
    // owner then calls delivered() with each batch and adds back the events it still waits for.
    virtual bool disarmsOnDelivery() const noexcept { return false; }
    virtual void delivered(const std::vector<EventNotification>& notifications) noexcept {}

    std::vector<EventNotification> getNotifications() {
        std::vector<EventNotification> notifications;
        getNotifications(notifications);
        return notifications;
    }
};

}  // namespace orvel::net
