#pragma once
#include "async/Cancellation.h"
#include "async/Continuation.h"
#include "async/Executor.h"
#include "async/Task.h"
#include "async/detail/Suspension.h"
#include "async/detail/TaskContext.h"

#include <atomic>
#include <cassert>
#include <coroutine>
#include <cstddef>
#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

namespace orvel::async {

// How a stream ended, as its termination handler is told.
enum class Termination { finished, cancelled };

namespace detail {

// The shared state of one stream: an unbounded buffer, the end, and the one waiting consumer.
// With a weight function it also sums the weights of the buffered elements, so that a producer
// can wait until its consumer has caught up.
template <class T>
class StreamState {
public:
    using Weigh = std::size_t (*)(const T&);
    explicit StreamState(Weigh weigh) : weigh_(weigh) {}

    struct Waiter : CancellationNode {
        Suspension suspension;
        std::optional<T> element;
        std::exception_ptr error;
        StreamState* stream = nullptr;
    };

    void yield(T element) {
        Waiter* waiter = nullptr;
        {
            std::lock_guard lock(mutex_);
            if (terminated_) return;
            if (waiter_) {
                waiter = std::exchange(waiter_, nullptr);
                waiter->element.emplace(std::move(element));
            } else {
                if (weigh_) buffered_ += weigh_(element);
                buffer_.push_back(std::move(element));
            }
        }
        if (waiter) resume(*waiter);
    }

    // The producer's side: false when at most `limit` is buffered or the stream has ended;
    // otherwise `room` is resumed once the consumer has taken enough, or at the end.
    bool waitForRoom(std::size_t limit, Continuation<void> room) {
        std::lock_guard lock(mutex_);
        // Cancellation sets its flag before it runs handlers: seen here, or the handler finds us.
        if (terminated_ || buffered_ <= limit || isCancelled()) return false;
        roomLimit_ = limit;
        room_ = room;
        return true;
    }
    // The waiting producer was cancelled: resumes it unless that happened already.
    void cancelRoom() {
        Continuation<void> room;
        {
            std::lock_guard lock(mutex_);
            room = std::exchange(room_, {});
        }
        if (room.isValid()) room.resume();
    }

    void finish(std::exception_ptr error) { terminate(Termination::finished, std::move(error)); }

    std::size_t bufferedCount() {
        std::lock_guard lock(mutex_);
        return buffer_.size();
    }

    void setOnTermination(std::function<void(Termination)> handler) {
        std::optional<Termination> already;
        {
            std::lock_guard lock(mutex_);
            if (terminated_) already = termination_;
            else onTermination_ = std::move(handler);
        }
        // Set after the end: the end already happened, so the handler runs now, still only once.
        if (already && handler) handler(*already);
    }

    // The consumer's side. True when the consumer must suspend (waiter registered).
    bool next(Waiter& waiter) {
        std::lock_guard lock(mutex_);
        assert(!waiter_ && "two consumers iterate one stream");
        if (!buffer_.empty()) {
            waiter.element.emplace(std::move(buffer_.front()));
            buffer_.pop_front();
            if (weigh_) buffered_ -= weigh_(*waiter.element);
            if (room_.isValid() && buffered_ <= roomLimit_) std::exchange(room_, {}).resume();
            return false;
        }
        if (terminated_) {
            waiter.error = std::exchange(error_, nullptr);  // the error ends the sequence once
            return false;
        }
        waiter_ = &waiter;
        return true;
    }

    // The consumer's task was cancelled while it waited, or the consumer went away.
    void cancel() { terminate(Termination::cancelled, nullptr); }

    bool withdraw(Waiter& waiter) {
        std::lock_guard lock(mutex_);
        if (waiter_ != &waiter) return false;
        waiter_ = nullptr;
        return true;
    }

    static void resume(Waiter& waiter) { waiter.suspension.resume(); }

private:
    void terminate(Termination how, std::exception_ptr error) {
        std::function<void(Termination)> handler;
        Waiter* waiter = nullptr;
        {
            std::lock_guard lock(mutex_);
            if (terminated_) return;
            terminated_ = true;
            termination_ = how;
            handler = std::move(onTermination_);
            onTermination_ = nullptr;
            if (how == Termination::cancelled) buffer_.clear();
            if (room_.isValid()) std::exchange(room_, {}).resume();
            if (waiter_ && buffer_.empty()) {
                waiter = std::exchange(waiter_, nullptr);
                waiter->error = std::move(error);
            } else {
                error_ = std::move(error);
            }
        }
        if (handler) handler(how);
        if (waiter) resume(*waiter);
    }

    std::mutex mutex_;
    std::deque<T> buffer_;
    bool terminated_ = false;
    Termination termination_ = Termination::finished;
    std::exception_ptr error_;
    std::function<void(Termination)> onTermination_;
    Waiter* waiter_ = nullptr;
    const Weigh weigh_;
    std::size_t buffered_ = 0;  // weight of buffer_
    std::size_t roomLimit_ = 0;
    Continuation<void> room_;  // the producer waiting for the buffer to drain
};

template <class T, bool Throwing>
class BasicStream {
    using State = StreamState<T>;

public:
    // The producer's handle: copyable, usable from any thread. After the stream has ended,
    // yield and finish do nothing.
    class Continuation {
    public:
        void yield(T element) const { state_->yield(std::move(element)); }
        void finish() const { state_->finish(nullptr); }
        void finish(std::exception_ptr error) const
            requires Throwing
        {
            state_->finish(std::move(error));
        }
        // Elements yielded and not yet taken by the consumer: lets a producer that must not wait
        // drop a consumer that falls too far behind.
        std::size_t bufferedCount() const { return state_->bufferedCount(); }
        // Runs exactly once: when the stream is finished, or when its consumer is cancelled or goes away.
        void onTermination(std::function<void(Termination)> handler) const { state_->setOnTermination(std::move(handler)); }

        // For a stream made with a weight function: returns once the buffered elements weigh at
        // most `limit`, or the stream has ended. Throws CancellationError when the calling task
        // is cancelled.
        Task<void> waitUntilBufferedAtMost(std::size_t limit) const {
            State* state = state_.get();
            {
                CancellationHandler onCancel([state] { state->cancelRoom(); });
                co_await withCheckedContinuation<void>([state, limit](async::Continuation<void> room) {
                    if (!state->waitForRoom(limit, room)) room.resume();
                });
            }
            checkCancellation();
        }

    private:
        friend class BasicStream;
        explicit Continuation(std::shared_ptr<State> state) : state_(std::move(state)) {}
        std::shared_ptr<State> state_;
    };

    struct Pair;
    // `weigh`, when given, tells what an element weighs for waitUntilBufferedAtMost.
    static Pair make(typename State::Weigh weigh = nullptr);

    BasicStream(BasicStream&&) noexcept = default;
    BasicStream& operator=(BasicStream&& other) noexcept {
        if (this != &other) {
            end();
            state_ = std::move(other.state_);
        }
        return *this;
    }
    ~BasicStream() { end(); }

    class NextAwaiter {
    public:
        explicit NextAwaiter(State* state) : state_(state) {}
        NextAwaiter(NextAwaiter&& other) noexcept : state_(other.state_) {}

        bool await_ready() const noexcept { return false; }
        bool await_suspend(std::coroutine_handle<> handle) {
            waiter_.suspension.prepare(handle);
            waiter_.stream = state_;
            if (!state_->next(waiter_)) return false;
            context_ = currentContext();
            if (context_) {
                waiter_.run = [](CancellationNode* node) {
                    auto& waiter = static_cast<typename State::Waiter&>(*node);
                    // A consumer cancelled while it waits ends the stream and sees its end.
                    if (waiter.stream->withdraw(waiter)) {
                        waiter.stream->cancel();
                        State::resume(waiter);
                    }
                };
                context_->add(waiter_);
            }
            return waiter_.suspension.commit();
        }
        std::optional<T> await_resume() {
            if (context_) context_->remove(waiter_);
            if constexpr (Throwing) {
                if (waiter_.error) std::rethrow_exception(waiter_.error);
            }
            return std::move(waiter_.element);
        }

    private:
        State* state_;
        typename State::Waiter waiter_;
        TaskContext* context_ = nullptr;
    };

    // The next element, or nothing at the end. One consumer at a time.
    NextAwaiter next() { return NextAwaiter(state_.get()); }

private:
    explicit BasicStream(std::shared_ptr<State> state) : state_(std::move(state)) {}
    void end() {
        if (state_) state_->cancel();
    }
    std::shared_ptr<State> state_;
};

template <class T, bool Throwing>
struct BasicStream<T, Throwing>::Pair {
    BasicStream stream;
    Continuation continuation;
};

template <class T, bool Throwing>
typename BasicStream<T, Throwing>::Pair BasicStream<T, Throwing>::make(typename State::Weigh weigh) {
    auto state = std::make_shared<State>(weigh);
    return Pair{BasicStream(state), Continuation(state)};
}

}  // namespace detail

// A pull-based sequence fed by a producer from any thread, with an unbounded buffer.
// `auto [stream, continuation] = AsyncStream<int>::make();`
template <class T>
using AsyncStream = detail::BasicStream<T, false>;

// The same, and the producer may end it with an error, which the consumer's next() raises once.
template <class T>
using AsyncThrowingStream = detail::BasicStream<T, true>;

}  // namespace orvel::async
