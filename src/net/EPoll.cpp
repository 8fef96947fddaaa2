#include "net/EPoll.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <cstdint>
#include <ostream>

namespace orvel::net {

std::ostream& operator<<(std::ostream& out, const EventNotification& notification) {
    out << "EventNotification(file: " << notification.file.rawValue << ", events: " << notification.events << ", errors: {";
    if (notification.errors.contains(EventNotification::Error::endOfFile))
        out << "endOfFile" << (notification.errors.contains(EventNotification::Error::error) ? ", " : "");
    if (notification.errors.contains(EventNotification::Error::error))
        out << "error";
    return out << "})";
}

namespace {

// The wake eventfd's mark in epoll_event.data; descriptors are never negative.
constexpr std::uint64_t wakeMark = ~std::uint64_t{0};

std::uint32_t epollMask(Socket::Events events) noexcept {
    // EPOLLRDHUP marks the peer's end of stream, the moment to ask whether bytes remain.
    return (events.contains(Socket::Event::read) ? EPOLLIN | EPOLLRDHUP : 0u) |
           (events.contains(Socket::Event::write) ? EPOLLOUT : 0u);
}

// The registered events travel with each registration, so a wait can tell read from write
// interest without reading `existing`, which may change under it.
epoll_event registration(Socket::FileDescriptor file, Socket::Events events, EPoll::Mode mode) noexcept {
    epoll_event event{};
    event.events = epollMask(events) | (mode == EPoll::Mode::edgeTriggered ? EPOLLET : 0u);
    event.data.u64 = static_cast<std::uint32_t>(file.rawValue) | (std::uint64_t{events.bits()} << 32);
    return event;
}

Socket::Events eventsFromBits(std::uint8_t bits) noexcept {
    Socket::Events events;
    if (bits & static_cast<std::uint8_t>(Socket::Event::read))
        events.insert(Socket::Event::read);
    if (bits & static_cast<std::uint8_t>(Socket::Event::write))
        events.insert(Socket::Event::write);
    return events;
}

}  // namespace

EPoll::EPoll(int maxEvents, Logger logger, Mode mode) : eventsLimit_(maxEvents), mode_(mode), logger_(std::move(logger)) {
    assert(maxEvents > 0);
}

EPoll::~EPoll() = default;

void EPoll::open() {
    existing_.clear();
    OwnedDescriptor epoll(::epoll_create1(EPOLL_CLOEXEC));
    if (!epoll)
        throw SocketError::failed("epoll", errno);
    OwnedDescriptor wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!wake)
        throw SocketError::failed("eventfd", errno);
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = wakeMark;
    if (::epoll_ctl(epoll.get(), EPOLL_CTL_ADD, wake.get(), &event) == -1)
        throw SocketError::failed("epoll", errno);
    if (!received_)
        received_ = std::make_unique<epoll_event[]>(static_cast<std::size_t>(eventsLimit_));
    epoll_ = std::move(epoll);
    wake_ = std::move(wake);
}

void EPoll::close() {
    existing_.clear();
    if (epoll_.get() < 0)
        throw SocketError::disconnected();
    wake_ = OwnedDescriptor();
    const int result = ::close(epoll_.release());
    if (result < 0)
        throw SocketError::failed("epoll", errno);
}

void EPoll::stop() noexcept {
    const std::uint64_t one = 1;
    if (wake_.get() >= 0)
        [[maybe_unused]] const auto written = ::write(wake_.get(), &one, sizeof one);
}

void EPoll::change(int operation, Socket::FileDescriptor file, Socket::Events events, const char* label) {
    auto event = registration(file, events, mode_);
    if (::epoll_ctl(epoll_.get(), operation, file.rawValue, &event) == 0)
        return;
    int error = errno;
    // The kernel forgets a registration when its descriptor closes, and a reused number may
    // still be known there; repair either mismatch once.
    if (operation == EPOLL_CTL_MOD && error == ENOENT) {
        if (::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, file.rawValue, &event) == 0)
            return;
        error = errno;
    } else if (operation == EPOLL_CTL_ADD && error == EEXIST) {
        if (::epoll_ctl(epoll_.get(), EPOLL_CTL_MOD, file.rawValue, &event) == 0)
            return;
        error = errno;
    }
    throw SocketError::failed(label, error);
}

void EPoll::addEvents(Socket::Events events, Socket::FileDescriptor file) {
    assert(file.rawValue >= 0);
    const auto found = existing_.find(file);
    const auto current = found == existing_.end() ? Socket::Events() : found->second;
    const auto added = events - current;
    if (added.empty())
        return;
    change(current.empty() ? EPOLL_CTL_ADD : EPOLL_CTL_MOD, file, current | added, "epoll add epoll_ctl");
    existing_[file] = current | added;
}

void EPoll::removeEvents(Socket::Events events, Socket::FileDescriptor file) {
    const auto found = existing_.find(file);
    if (found == existing_.end())
        return;
    const auto removed = events & found->second;
    if (removed.empty())
        return;
    const auto remaining = found->second - removed;
    auto event = registration(file, remaining, mode_);
    const int operation = remaining.empty() ? EPOLL_CTL_DEL : EPOLL_CTL_MOD;
    if (::epoll_ctl(epoll_.get(), operation, file.rawValue, &event) == -1) {
        const int error = errno;
        // Closed already: the kernel holds nothing for it any more, and neither should we.
        if (error == EBADF || error == ENOENT)
            existing_.erase(found);
        throw SocketError::failed("epoll remove epoll_ctl", error);
    }
    if (remaining.empty()) {
        existing_.erase(found);
    } else {
        found->second = remaining;
    }
}

void EPoll::getNotifications(std::vector<EventNotification>& into) {
    if (wait(into, -1) < 1)
        throw SocketError::failed("epoll epoll_wait", errno);
}

bool EPoll::getReadyNotifications(std::vector<EventNotification>& into) {
    const int count = wait(into, 0);
    if (count < 0)
        throw SocketError::failed("epoll epoll_wait", errno);
    return count == eventsLimit_;
}

int EPoll::wait(std::vector<EventNotification>& into, int timeout) {
    into.clear();
    int count;
    // A stop and continue (SIGSTOP, a debugger, suspend) ends a wait with EINTR even with every
    // signal blocked: that is a late wake-up, not a failure.
    do
        count = ::epoll_wait(epoll_.get(), received_.get(), eventsLimit_, timeout);
    while (count < 0 && errno == EINTR);
    if (count < 0)
        return count;
    for (int i = 0; i < count; ++i) {
        const auto& event = received_[static_cast<std::size_t>(i)];
        if (event.data.u64 == wakeMark) {
            std::uint64_t value;
            [[maybe_unused]] const auto drained = ::read(wake_.get(), &value, sizeof value);
            continue;
        }
        const Socket::FileDescriptor file{static_cast<std::int32_t>(event.data.u64 & 0xffffffffu)};
        const auto registered = eventsFromBits(static_cast<std::uint8_t>(event.data.u64 >> 32));
        const bool ended = event.events & (EPOLLHUP | EPOLLRDHUP);
        EventNotification::Errors errors;
        if (ended)
            errors.insert(EventNotification::Error::endOfFile);
        if (event.events & EPOLLERR)
            errors.insert(EventNotification::Error::error);
        // One notification per event, as a kernel queue reports them. A readable descriptor
        // reports its errors only once no bytes remain, so nothing the peer sent before it
        // closed is lost; FIONREAD runs only at the end of a stream.
        if (registered.contains(Socket::Event::read) && (event.events & (EPOLLIN | EPOLLRDHUP | EPOLLHUP | EPOLLERR))) {
            int available = 0;
            const bool bytesRemain = (event.events & EPOLLIN) &&
                                     (!ended || (::ioctl(file.rawValue, FIONREAD, &available) == 0 && available > 0));
            into.push_back({file, Socket::Event::read, bytesRemain ? EventNotification::Errors() : errors});
        }
        // A peer that only stopped sending (EPOLLRDHUP) can still be written to.
        EventNotification::Errors writeErrors;
        if (event.events & EPOLLHUP)
            writeErrors.insert(EventNotification::Error::endOfFile);
        if (event.events & EPOLLERR)
            writeErrors.insert(EventNotification::Error::error);
        if (registered.contains(Socket::Event::write) && (event.events & (EPOLLOUT | EPOLLHUP | EPOLLERR)))
            into.push_back({file, Socket::Event::write, writeErrors});
    }
    return count;
}

}  // namespace orvel::net
