#include "net/Poll.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cmath>
#include <limits>
#include <span>

namespace orvel::net {

namespace {

int milliseconds(Poll::Interval interval) {
    const double value = interval.secondsValue * 1000;
    assert(std::isfinite(value) && value >= std::numeric_limits<int>::min() && value <= std::numeric_limits<int>::max());
    return static_cast<int>(value);
}

}  // namespace

Poll::Poll(Interval interval, Logger logger) : timeoutMilliseconds_(milliseconds(interval)), logger_(std::move(logger)) {}

void Poll::open() {
    OwnedDescriptor wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!wake)
        throw SocketError::failed("eventfd", errno);
    std::lock_guard guard(lock_);
    entries_.clear();
    wake_ = std::move(wake);
    isOpen_ = true;
}

void Poll::close() {
    std::lock_guard guard(lock_);
    entries_.clear();
    wake_ = OwnedDescriptor();
    isOpen_ = false;
}

void Poll::stop() noexcept {
    std::lock_guard guard(lock_);
    wake();
}

void Poll::wake() const noexcept {
    const std::uint64_t one = 1;
    if (wake_.get() >= 0)
        [[maybe_unused]] const auto written = ::write(wake_.get(), &one, sizeof one);
}

bool Poll::isOpen() const {
    std::lock_guard guard(lock_);
    return isOpen_;
}

std::vector<Poll::Entry> Poll::entries() const {
    std::lock_guard guard(lock_);
    return entries_;
}

void Poll::addEvents(Socket::Events events, Socket::FileDescriptor file) {
    std::lock_guard guard(lock_);
    if (!isOpen_)
        throw SocketError::failed("poll.addEvents notReady", errno);
    const Entry entry{file, events};
    if (std::find(entries_.begin(), entries_.end(), entry) == entries_.end()) {
        entries_.push_back(entry);
        wake();  // a wait in progress does not watch it yet
    }
}

void Poll::removeEvents(Socket::Events events, Socket::FileDescriptor file) {
    std::lock_guard guard(lock_);
    if (!isOpen_)
        throw SocketError::failed("poll.removeEvents notReady", errno);
    std::erase(entries_, Entry{file, events});
}

bool Poll::isRegistered(Socket::FileDescriptor file) const noexcept {
    std::lock_guard guard(lock_);
    return std::any_of(entries_.begin(), entries_.end(), [&](const Entry& entry) { return entry.file == file; });
}

void Poll::forget(Socket::FileDescriptor file) noexcept {
    std::lock_guard guard(lock_);
    std::erase_if(entries_, [&](const Entry& entry) { return entry.file == file; });
}

void Poll::getNotifications(std::vector<EventNotification>& into) {
    into.clear();
    std::vector<pollfd> list;
    {
        std::lock_guard guard(lock_);
        if (!isOpen_)
            throw SocketError::failed("poll.getNotifications notReady", errno);
        list.reserve(entries_.size() + 1);
        list.push_back({wake_.get(), POLLIN, 0});
        for (const auto& entry : entries_) {
            const short events = static_cast<short>((entry.events.contains(Socket::Event::read) ? POLLIN : 0) |
                                                    (entry.events.contains(Socket::Event::write) ? POLLOUT : 0));
            list.push_back({entry.file.rawValue, events, 0});
        }
    }
    // An interrupted wait (EINTR, as after a stop and continue) is waited again for the time left.
    const int limit = list.size() == 1 ? -1 : timeoutMilliseconds_;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(limit);
    for (int timeout = limit; ::poll(list.data(), list.size(), timeout) < 0;) {
        if (errno != EINTR)
            throw SocketError::failed("poll.getNotifications poll", errno);
        if (timeout > 0)
            timeout = static_cast<int>(std::max<std::int64_t>(
                0, std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count()));
    }
    if (list[0].revents & POLLIN) {
        std::uint64_t count;
        [[maybe_unused]] const auto drained = ::read(list[0].fd, &count, sizeof count);
    }
    for (const auto& item : std::span(list).subspan(1)) {
        EventNotification::Errors errors;
        if (item.revents & POLLHUP)
            errors.insert(EventNotification::Error::endOfFile);
        if (item.revents & (POLLERR | POLLNVAL))
            errors.insert(EventNotification::Error::error);
        const bool askedRead = item.events & POLLIN;
        if ((item.events & POLLOUT) && !errors.empty()) {
            Socket::Events events = Socket::Event::write;
            if (askedRead)
                events.insert(Socket::Event::read);
            into.push_back({Socket::FileDescriptor{item.fd}, events, errors});
            continue;
        }
        if (!(item.revents & item.events))
            continue;
        Socket::Events events;
        if (item.revents & POLLIN)
            events.insert(Socket::Event::read);
        if (item.revents & POLLOUT)
            events.insert(Socket::Event::write);
        into.push_back({Socket::FileDescriptor{item.fd}, events, {}});
    }
}

}  // namespace orvel::net
