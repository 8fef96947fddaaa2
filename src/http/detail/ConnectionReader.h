#pragma once
#include "async/Task.h"
#include "net/Socket.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>

namespace orvel::http::detail {

// A connection's bytes as the HTTP layer sees them: non-blocking tries, and a wait for readiness
// when a try would block. Over an AsyncSocket in the server; over memory in decoder tests.
class ByteStream {
public:
    virtual ~ByteStream() = default;
    virtual net::Socket::IOResult tryRead(void* into, std::size_t length) noexcept = 0;
    virtual net::Socket::IOResult tryWrite(const void* from, std::size_t length) noexcept = 0;
    // Returns when the event is likely ready; throws CancellationError or a socket error.
    virtual async::Task<void> waitUntil(net::Socket::Event event) = 0;
    // Wakes waiting tasks and closes the descriptor; a failure to close is ignored.
    virtual void close() noexcept = 0;
};

// The read side of a connection: reads up to 4096 bytes per system call into one buffer and
// serves lines and body bytes from it, so bytes behind a request stay for the next one. Used by
// one task at a time (requests on a connection are sequential).
class ConnectionReader {
public:
    static constexpr std::size_t readSize = 4096;
    using Clock = std::chrono::steady_clock;

    // What the peer is expected to deliver next, each with its own time limit.
    enum class Phase { none, idle, head, body };
    struct Limits {
        Clock::duration head;  // a complete request head, from connecting or from its first byte
        Clock::duration idle;  // the first byte of a kept-alive connection's next request
        Clock::duration body;  // the next byte of a body
    };

    explicit ConnectionReader(std::shared_ptr<ByteStream> stream);
    ConnectionReader(const ConnectionReader&) = delete;
    ConnectionReader& operator=(const ConnectionReader&) = delete;

    ByteStream& stream() noexcept { return *stream_; }

    // Bytes read but not yet consumed; valid until the next tryFill().
    std::string_view buffered() const noexcept { return {buffer_.get() + begin_, end_ - begin_}; }
    void consume(std::size_t count) noexcept;

    enum class LineStatus { line, needMore, tooLong };
    // The next line without its "\n" (a "\r" before it stays). A line whose length before "\n"
    // would pass maxLength bytes is tooLong (a trailing "\r" is not counted).
    LineStatus takeLine(std::size_t maxLength, std::string_view& line) noexcept;

    // One read into the buffer: true when bytes arrived, false when the read would block. Throws
    // CancellationError when the calling task is cancelled, SocketError::disconnected at the end
    // of the stream and SocketError "Read" on failure.
    bool tryFill();
    async::Task<void> waitUntilReadable() { return stream_->waitUntil(net::Socket::Event::read); }

    // Starts the peer's clock: its first request head is due within limits.head from now. Without
    // it the reader keeps no time (decoder tests).
    void startClock(Limits limits) noexcept;
    // Phase changes, made by the decoder; each restarts the clock of the new phase. A read that
    // brings bytes moves idle on to head and restarts the body clock, so a deadline is one
    // atomic store rather than a timer per read.
    void beginRequest() noexcept;
    void beginBody() noexcept { setPhase(Phase::body); }
    void endPhase() noexcept { setPhase(Phase::none); }
    // Read from any thread by the connection's watchdog; Clock::time_point::max() in no phase.
    Clock::time_point deadline() const noexcept { return Clock::time_point(Clock::duration(deadline_.load(std::memory_order_acquire))); }
    Phase phase() const noexcept { return phase_.load(std::memory_order_acquire); }
    Clock::duration limit(Phase phase) const noexcept;

    // Fills until at least one byte is buffered.
    async::Task<void> fill();

    // Set after a response has gone out on a keep-alive connection: the client cannot have sent
    // its next request yet, so a read now would only report "would block". Waiting first saves
    // that system call per request.
    void expectIdle() noexcept { expectIdle_ = true; }
    // Not once the peer's end was read: no readiness edge would come for it again.
    // For a wait that reported the end of the stream.
    void noteEnd() noexcept { ended_ = true; }
    bool takeIdleExpectation() noexcept { return std::exchange(expectIdle_, false) && begin_ == end_ && !ended_; }

private:
    std::shared_ptr<ByteStream> stream_;
    std::unique_ptr<char[]> buffer_;
    std::size_t capacity_;
    std::size_t begin_ = 0;
    std::size_t end_ = 0;
    std::size_t scanned_ = 0;  // bytes after begin_ known to hold no "\n"
    bool expectIdle_ = false;
    bool ended_ = false;  // a read found the end of the stream

    void setPhase(Phase phase) noexcept;
    void bytesArrived() noexcept;
    std::optional<Limits> limits_;
    bool firstRequest_ = true;
    std::atomic<Phase> phase_{Phase::none};
    std::atomic<Clock::rep> deadline_{Clock::time_point::max().time_since_epoch().count()};
};

}  // namespace orvel::http::detail
