#include "app/StreamCount.h"

#include <algorithm>
#include <mutex>
#include <utility>
#include <vector>

namespace orvel {

struct StreamCount::Subscription::Entry {
    Subscriber subscriber;
    bool active = true;
};

// One lock orders every change with its notification. It is recursive so that a subscriber may
// change the count or cancel a subscription from inside its call without deadlocking.
struct StreamCount::Subscription::State {
    std::atomic<std::int64_t> value{0};
    std::recursive_mutex lock;
    std::vector<std::shared_ptr<Entry>> entries;
};

StreamCount::Subscription::Subscription(Subscription&& other) noexcept
    : state_(std::move(other.state_)), entry_(std::move(other.entry_)) {}

StreamCount::Subscription& StreamCount::Subscription::operator=(Subscription&& other) noexcept {
    if (this != &other) {
        cancel();
        state_ = std::move(other.state_);
        entry_ = std::move(other.entry_);
    }
    return *this;
}

void StreamCount::Subscription::cancel() noexcept {
    if (!entry_) return;
    {
        std::lock_guard guard(state_->lock);
        entry_->active = false;
        std::erase(state_->entries, entry_);
    }
    entry_.reset();
    state_.reset();
}

StreamCount::StreamCount() : state_(std::make_shared<Subscription::State>()) {}

std::int64_t StreamCount::value() const noexcept { return state_->value.load(std::memory_order_acquire); }

std::int64_t StreamCount::increment() { return change(1); }
std::int64_t StreamCount::decrement() { return change(-1); }

std::int64_t StreamCount::change(std::int64_t delta) {
    std::lock_guard guard(state_->lock);
    const std::int64_t now = state_->value.fetch_add(delta, std::memory_order_acq_rel) + delta;
    // A copy: a subscriber may subscribe or cancel while we go through the list.
    auto entries = state_->entries;
    for (const auto& entry : entries)
        if (entry->active) entry->subscriber(now);
    return now;
}

StreamCount::Subscription StreamCount::subscribe(Subscriber subscriber) {
    auto entry = std::make_shared<Subscription::Entry>(Subscription::Entry{std::move(subscriber)});
    std::lock_guard guard(state_->lock);
    state_->entries.push_back(entry);
    entry->subscriber(state_->value.load(std::memory_order_acquire));
    return Subscription(state_, std::move(entry));
}

StreamCount& currentStreamCount() {
    // Never destroyed: a stream still winding down on a pool thread while the process exits may
    // change the count after static destructors have run.
    static StreamCount* const count = new StreamCount;
    return *count;
}

}  // namespace orvel
