#pragma once
#include "async/Continuation.h"
#include "async/detail/TaskContext.h"

#include <atomic>
#include <coroutine>
#include <cstdint>
#include <exception>
#include <functional>
#include <mutex>
#include <type_traits>
#include <utility>

namespace orvel::net {

// The identity of one suspension: equal only to itself, so a table of waiters can find, resume or
// cancel it. A process-wide counter makes identities without allocating.
class ContinuationID {
public:
    static ContinuationID make() noexcept {
        static std::atomic<std::uint64_t> counter{0};
        return ContinuationID(counter.fetch_add(1, std::memory_order_relaxed) + 1);
    }
    ContinuationID() = default;
    std::uint64_t value() const noexcept { return value_; }
    friend bool operator==(ContinuationID, ContinuationID) = default;

private:
    explicit ContinuationID(std::uint64_t value) : value_(value) {}
    std::uint64_t value_ = 0;
};

// A suspended task together with its identity. Resume it exactly once.
template <class T>
struct IdentifiableContinuation {
    using ID = ContinuationID;

    ID id;
    async::Continuation<T> continuation;

    template <class U = T>
        requires(!std::is_void_v<U>)
    void resume(U value) const {
        continuation.resume(std::move(value));
    }
    void resume() const
        requires std::is_void_v<T>
    {
        continuation.resume();
    }
    void resumeThrowing(std::exception_ptr error) const { continuation.resumeThrowing(std::move(error)); }
};

template <class T, class Body, class OnCancel>
class IdentifiableContinuationAwaiter {
public:
    IdentifiableContinuationAwaiter(Body body, OnCancel onCancel) : body_(std::move(body)), onCancel_(std::move(onCancel)) {}
    IdentifiableContinuationAwaiter(IdentifiableContinuationAwaiter&& other) noexcept
        : body_(std::move(other.body_)), onCancel_(std::move(other.onCancel_)) {}

    bool await_ready() const noexcept { return false; }

    bool await_suspend(std::coroutine_handle<> handle) {
        core_.prepare(handle);
        id_ = ContinuationID::make();
        context_ = async::detail::currentContext();
        if (context_) {
            node_.owner = this;
            node_.run = &IdentifiableContinuationAwaiter::cancelled;
            context_->add(node_);
        }
        Body body = std::move(body_);
        try {
            body(IdentifiableContinuation<T>{id_, async::Continuation<T>(&core_)});
        } catch (...) {
            // The task resumes with the error at once and this awaiter goes: its node must not
            // stay registered, or a later cancellation would run it in freed memory.
            if (context_) context_->remove(node_);
            throw;
        }
        // Whichever of the body and the cancellation comes second calls onCancel: a cancellation
        // that arrived before the continuation was stored is delivered now, exactly once.
        bool wasCancelled;
        {
            std::lock_guard lock(flagsMutex_);
            hasRunBody_ = true;
            wasCancelled = isCancelled_;
        }
        if (wasCancelled) onCancel_(id_);
        return core_.commitSuspension();
    }

    T await_resume() {
        if (context_) context_->remove(node_);
        return core_.take();
    }

private:
    struct Node : async::detail::CancellationNode {
        IdentifiableContinuationAwaiter* owner;
    };

    static void cancelled(async::detail::CancellationNode* node) {
        auto* self = static_cast<Node*>(node)->owner;
        bool hasRunBody;
        {
            std::lock_guard lock(self->flagsMutex_);
            self->isCancelled_ = true;
            hasRunBody = self->hasRunBody_;
        }
        if (hasRunBody) self->onCancel_(self->id_);
    }

    Body body_;
    OnCancel onCancel_;
    async::detail::ContinuationCore<T> core_;
    ContinuationID id_;
    async::detail::TaskContext* context_ = nullptr;
    Node node_;
    std::mutex flagsMutex_;
    bool hasRunBody_ = false;
    bool isCancelled_ = false;
};

// Suspends the calling task on a new identifiable continuation. body receives it (and is expected
// to store it, keyed by its id); onCancel receives the id when the task is cancelled, at most once
// and never before body has run. T is the value the continuation resumes with; an error is
// delivered with resumeThrowing.
template <class T, class Body, class OnCancel>
IdentifiableContinuationAwaiter<T, std::decay_t<Body>, std::decay_t<OnCancel>> withIdentifiableContinuation(
    Body&& body, OnCancel&& onCancel) {
    static_assert(std::is_trivially_destructible_v<std::decay_t<Body>> &&
                      std::is_trivially_destructible_v<std::decay_t<OnCancel>>,
                  "g++ 12 destroys a lambda written inside a co_await expression twice: capture only "
                  "pointers, references and plain values here, or name the lambda before the co_await");
    return {std::forward<Body>(body), std::forward<OnCancel>(onCancel)};
}

}  // namespace orvel::net

template <>
struct std::hash<orvel::net::ContinuationID> {
    std::size_t operator()(orvel::net::ContinuationID id) const noexcept { return std::hash<std::uint64_t>{}(id.value()); }
};
