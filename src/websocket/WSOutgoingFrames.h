#pragma once
#include "async/Task.h"
#include "websocket/WSFrame.h"

#include <cstddef>
#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

namespace orvel::http {

namespace detail {

// The buffer between whoever produces a connection's outgoing frames (any thread) and the
// connection that writes them (one consumer). It counts the bytes its frames take on the wire
// from the moment they are queued until the consumer says they are written; when that backlog
// passes its budget, the frames still queued are dropped and the queue ends with the close frame
// 1008 "Client too slow".
class WSFrameQueue {
public:
    explicit WSFrameQueue(std::size_t maxBacklog) : maxBacklog_(maxBacklog) {}

    void push(WSFrame frame);
    // Queues `frame` and ends the queue in one step: nothing can follow it.
    void pushLast(WSFrame frame);
    void finish(std::exception_ptr error);
    void setOnTermination(std::function<void()> handler);
    void setOnOverflow(std::function<void(std::size_t maxBacklog)> handler);
    void setMaxBacklog(std::size_t bytes);
    void written(std::size_t bytes);
    void consumerGone();

    std::optional<WSFrame> tryPop();
    // A frame, or nothing at the end (or when the waiting task is cancelled, which ends the
    // queue); rethrows the producer's error once.
    async::Task<std::optional<WSFrame>> pop();

private:
    // Ends the queue; `last` goes after the queued frames. Unlocks.
    void end(std::unique_lock<std::mutex>& lock, std::optional<WSFrame> last, std::exception_ptr error);
    void terminate(std::unique_lock<std::mutex>& lock);

    std::mutex mutex_;
    std::deque<WSFrame> frames_;
    bool ended_ = false;      // no more frames will come
    bool terminated_ = false;  // the termination handler has run (or is running)
    std::exception_ptr error_;
    std::size_t backlog_ = 0;  // wire bytes queued or handed out and not yet written
    std::size_t maxBacklog_;
    std::function<void()> onTermination_;
    std::function<void(std::size_t)> onOverflow_;
    std::function<void()> wake_;  // resumes the waiting consumer; set while it waits
};

}  // namespace detail

// The outgoing frames of one upgraded connection: a sequence that cannot fail, it only ends.
// When its producer ends it with an error, the peer is told with a last "Protocol Error" close
// frame. Dropping it tells the producer that nobody reads any more. Its frames may take at most
// a budget of bytes not yet written (defaultMaxBacklog unless changed); past it the stream ends
// with the close frame 1008 "Client too slow", so a peer that does not read costs no more.
class WSOutgoingFrames {
public:
    static constexpr std::size_t defaultMaxBacklog = 16 * 1024 * 1024;

    // The producing side: copyable, usable from any thread; after the end it does nothing.
    class Continuation {
    public:
        void yield(WSFrame frame) const { queue_->push(std::move(frame)); }
        // Yields `frame` as the very last frame and finishes, atomically: a frame yielded
        // concurrently from elsewhere either precedes it or is dropped.
        void yieldLast(WSFrame frame) const { queue_->pushLast(std::move(frame)); }
        void finish() const { queue_->finish(nullptr); }
        void finish(std::exception_ptr error) const { queue_->finish(std::move(error)); }
        // Runs exactly once: when the stream is finished, or when its reader drops it.
        void onTermination(std::function<void()> handler) const { queue_->setOnTermination(std::move(handler)); }
        // Changes the budget; it applies from the next frame on.
        void setMaxBacklog(std::size_t bytes) const { queue_->setMaxBacklog(bytes); }

    private:
        friend class WSOutgoingFrames;
        explicit Continuation(std::shared_ptr<detail::WSFrameQueue> queue) : queue_(std::move(queue)) {}
        std::shared_ptr<detail::WSFrameQueue> queue_;
    };

    struct Pair;
    static Pair make(std::size_t maxBacklog = defaultMaxBacklog);

    WSOutgoingFrames(WSOutgoingFrames&& other) noexcept = default;
    WSOutgoingFrames& operator=(WSOutgoingFrames&& other) noexcept;
    ~WSOutgoingFrames();

    // The next frame, waiting for one; nothing at the end.
    async::Task<std::optional<WSFrame>> next();
    // A frame that is ready now, without waiting; nothing when none is (the end included), so a
    // writer can gather what is ready into one write.
    std::optional<WSFrame> tryNext();

    // The reader has written `bytes` of the frames it took (their encoded size): they no longer
    // count against the budget.
    void written(std::size_t bytes) { queue_->written(bytes); }
    // Runs once if the budget is passed, on the producing thread, with the budget.
    void onOverflow(std::function<void(std::size_t maxBacklog)> handler) { queue_->setOnOverflow(std::move(handler)); }

private:
    explicit WSOutgoingFrames(std::shared_ptr<detail::WSFrameQueue> queue) : queue_(std::move(queue)) {}
    std::shared_ptr<detail::WSFrameQueue> queue_;
    bool ended_ = false;
};

struct WSOutgoingFrames::Pair {
    WSOutgoingFrames stream;
    Continuation continuation;
};

}  // namespace orvel::http
