#pragma once
#include "async/Task.h"
#include "http/WSFrame.h"
#include "http/WSFrameSequence.h"

#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

namespace orvel::http {

namespace detail {

// The buffer between whoever produces a connection's outgoing frames (any thread) and the
// connection that writes them (one consumer). Unbounded, like the frames it carries.
class WSFrameQueue {
public:
    void push(WSFrame frame);
    void finish(std::exception_ptr error);
    void setOnTermination(std::function<void()> handler);
    void consumerGone();

    std::optional<WSFrame> tryPop();
    // A frame, or nothing at the end (or when the waiting task is cancelled, which ends the
    // queue); rethrows the producer's error once.
    async::Task<std::optional<WSFrame>> pop();

private:
    void terminate(std::unique_lock<std::mutex>& lock);

    std::mutex mutex_;
    std::deque<WSFrame> frames_;
    bool ended_ = false;      // no more frames will come
    bool terminated_ = false;  // the termination handler has run (or is running)
    std::exception_ptr error_;
    std::function<void()> onTermination_;
    std::function<void()> wake_;  // resumes the waiting consumer; set while it waits
};

}  // namespace detail

// The outgoing frames of one upgraded connection: a sequence that cannot fail, it only ends.
// When its producer ends it with an error, the peer is told with a last "Protocol Error" close
// frame. Dropping it tells the producer that nobody reads any more.
class WSFrameStream {
public:
    // The producing side: copyable, usable from any thread; after the end it does nothing.
    class Continuation {
    public:
        void yield(WSFrame frame) const { queue_->push(std::move(frame)); }
        void finish() const { queue_->finish(nullptr); }
        void finish(std::exception_ptr error) const { queue_->finish(std::move(error)); }
        // Runs exactly once: when the stream is finished, or when its reader drops it.
        void onTermination(std::function<void()> handler) const { queue_->setOnTermination(std::move(handler)); }

    private:
        friend class WSFrameStream;
        explicit Continuation(std::shared_ptr<detail::WSFrameQueue> queue) : queue_(std::move(queue)) {}
        std::shared_ptr<detail::WSFrameQueue> queue_;
    };

    struct Pair;
    static Pair make();

    WSFrameStream(WSFrameStream&& other) noexcept = default;
    WSFrameStream& operator=(WSFrameStream&& other) noexcept;
    ~WSFrameStream();

    // The next frame, waiting for one; nothing at the end.
    async::Task<std::optional<WSFrame>> next();
    // A frame that is ready now, without waiting; nothing when none is (the end included), so a
    // writer can gather what is ready into one write.
    std::optional<WSFrame> tryNext();

private:
    explicit WSFrameStream(std::shared_ptr<detail::WSFrameQueue> queue) : queue_(std::move(queue)) {}
    std::shared_ptr<detail::WSFrameQueue> queue_;
    bool ended_ = false;
};

struct WSFrameStream::Pair {
    WSFrameStream stream;
    Continuation continuation;
};

// Takes an upgraded connection over: given its incoming frames, returns the frames to write.
// One instance may serve many connections at once. The connection stops reading and closes
// once the outgoing frames end.
class WSHandler {
public:
    virtual ~WSHandler() = default;
    virtual async::Task<WSFrameStream> makeFrames(std::shared_ptr<WSFrameSequence> incoming) = 0;
};

}  // namespace orvel::http
