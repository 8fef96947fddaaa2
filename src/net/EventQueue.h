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
// remove run on the pool's side; getNotifications blocks on the pool's wait thread (queues with
// no pollable descriptor), possibly while add and remove run elsewhere, and stop() may be called
// from any thread to end a blocked wait early. Failures are SocketError.
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

    // A descriptor that becomes readable when notifications are ready (an epoll instance is
    // itself pollable), or -1. A pool waits on it among the thread pool's event sources rather
    // than on a thread of its own, taking the notifications with getReadyNotifications().
    virtual int pollableDescriptor() const noexcept { return -1; }
    // Replaces the contents of `into` with what is ready now, without waiting; true when there
    // may be more (a full batch).
    virtual bool getReadyNotifications(std::vector<EventNotification>& into) {
        into.clear();
        return false;
    }

    // True for an edge-triggered queue, which reports each change of readiness once: its owner
    // keeps a descriptor's registration for the descriptor's life (removing it just before the
    // close) and remembers readiness that came while nobody waited.
    virtual bool keepsRegistrations() const noexcept { return false; }
    // Whether anything is registered for the descriptor; forget() drops it without a system call,
    // for a number whose descriptor was closed behind the queue's back.
    virtual bool isRegistered(Socket::FileDescriptor file) const noexcept = 0;
    virtual void forget(Socket::FileDescriptor file) noexcept = 0;

    std::vector<EventNotification> getNotifications() {
        std::vector<EventNotification> notifications;
        getNotifications(notifications);
        return notifications;
    }
};

}  // namespace orvel::net
