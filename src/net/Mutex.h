#pragma once
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <type_traits>
#include <utility>

namespace orvel::net {

// One value guarded by a lock. Copies share the value and the lock, so a Mutex can be handed
// to several owners. Bodies are short, never suspend and must not call back into the same
// Mutex (the lock is not recursive).
template <class Value>
class Mutex {
public:
    explicit Mutex(Value initialValue = Value{})
        : storage_(std::make_shared<Storage>(std::move(initialValue))) {}

    // Runs body(value) under the lock and returns its result; an exception releases the lock
    // and passes on.
    template <class Body>
    std::invoke_result_t<Body&, Value&> withLock(Body&& body) const {
        std::lock_guard guard(storage_->lock);
        return std::invoke(body, storage_->value);
    }

    // Tries the lock once. Held: the body does not run and the result is absent (false for a
    // body returning void). Free: like withLock.
    template <class Body>
    auto withLockIfAvailable(Body&& body) const {
        using Result = std::invoke_result_t<Body&, Value&>;
        std::unique_lock guard(storage_->lock, std::try_to_lock);
        if constexpr (std::is_void_v<Result>) {
            if (!guard.owns_lock())
                return false;
            std::invoke(body, storage_->value);
            return true;
        } else {
            using Stored = std::remove_cvref_t<Result>;
            if (!guard.owns_lock())
                return std::optional<Stored>();
            return std::optional<Stored>(std::invoke(body, storage_->value));
        }
    }

private:
    struct Storage {
        explicit Storage(Value initial) : value(std::move(initial)) {}
        std::mutex lock;
        Value value;
    };
    std::shared_ptr<Storage> storage_;
};

}  // namespace orvel::net
