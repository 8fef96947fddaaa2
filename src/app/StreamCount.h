#pragma once
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>

namespace orvel {

// A signed 64-bit count that others can watch: each change is one atomic read-modify-write
// followed, on the changing thread, by a synchronous call of every subscriber with the new
// value. Changes and their notifications are serialised, so a subscriber sees values in the
// order they were made and never misses one. Any thread may change, read or subscribe;
// subscribers must not block.
class StreamCount {
public:
    using Subscriber = std::function<void(std::int64_t)>;

    // Ends a subscription when cancelled or destroyed; once cancel() has returned the subscriber
    // is not called again (unless cancel() runs inside that subscriber's own call).
    class Subscription {
    public:
        Subscription() = default;
        Subscription(Subscription&& other) noexcept;
        Subscription& operator=(Subscription&& other) noexcept;
        ~Subscription() { cancel(); }

        void cancel() noexcept;
        bool isActive() const noexcept { return entry_ != nullptr; }

    private:
        friend class StreamCount;
        struct State;
        struct Entry;
        Subscription(std::shared_ptr<State> state, std::shared_ptr<Entry> entry)
            : state_(std::move(state)), entry_(std::move(entry)) {}
        std::shared_ptr<State> state_;
        std::shared_ptr<Entry> entry_;
    };

    StreamCount();
    StreamCount(const StreamCount&) = delete;
    StreamCount& operator=(const StreamCount&) = delete;

    std::int64_t value() const noexcept;

    // Each returns the new value after notifying the subscribers of it.
    std::int64_t increment();
    std::int64_t decrement();

    // Calls `subscriber` with the current value at once, then with every new value.
    [[nodiscard]] Subscription subscribe(Subscriber subscriber);

private:
    std::int64_t change(std::int64_t delta);

    std::shared_ptr<Subscription::State> state_;
};

// The process-wide number of connections that are streaming, starting at 0 and never reset. It
// outlives static destruction, so a stream that ends during exit can still count itself out.
StreamCount& currentStreamCount();

}  // namespace orvel
