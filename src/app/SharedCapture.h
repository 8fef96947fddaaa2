#pragma once
#include "app/AudioCaptureDelegate.h"
#include "async/Error.h"
#include "net/Logging.h"
#include "platform/CaptureStream.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace orvel {

// One platform capture at one rate, read by every page streaming at that rate. Each buffer is
// checked and converted once, then cut into each reader's own 100 ms chunks from the moment that
// reader joined, so a page is woken once per message whatever the platform's buffer size. The
// platform is asked for samples when the next reader's chunk is due, so pages that joined at
// different moments are served at different moments, not all in one burst every 100 ms. The
// capture thread never waits for a reader: one that leaves too much unread is dropped. Found and
// made by CaptureHub. The platform stream holds this object as its output and delegate, and this
// holds the platform stream until the capture ends (failure, or the last reader leaving), which
// breaks that cycle. Any thread.
class SharedCapture final : public platform::StreamOutput,
                            public platform::StreamDelegate,
                            public std::enable_shared_from_this<SharedCapture> {
public:
    using Bytes = AudioCaptureDelegate::Bytes;
    using Output = AudioCaptureDelegate::Continuation;

    // Ends the byte stream of a reader that left maximumUnreadChunks chunks unread.
    class ReaderTooSlow final : public async::Error {
    public:
        ReaderTooSlow() : Error("The page's task fell 10 s behind its capture") {}
    };

    // 10 s: as much as a page's connection may hold unsent. A reader this far behind is a task
    // that does not run, and keeping more would only grow memory.
    static constexpr std::size_t maximumUnreadChunks = 100;
    // Readers due within one step are served together: fewer, larger hand-ons cost less, and a
    // chunk waits at most this long.
    static constexpr std::chrono::milliseconds handOnStep{50};

    using Clock = std::chrono::steady_clock;
    using Now = std::function<Clock::time_point()>;

    // Throws AudioCaptureError::cannotCreateSourceFormat for a rate the delegate refuses.
    SharedCapture(std::int64_t sampleRate, net::Logger logger, Now clock);
    ~SharedCapture() override;

    std::int64_t sampleRate() const noexcept { return delegate_.expectedSampleRate(); }

    // Makes the platform stream (1 channel at the rate) and adds this as its screen and audio
    // output. Throws the platform's error; the capture has then ended with it.
    void open(platform::CaptureService& service);
    // Starts the opened platform stream; whenStarted tells every waiter the outcome.
    void start();

    // Adds a reader whose chunks go to `output` once the capture runs; 0 when the capture has
    // already ended (the page must start a new one).
    std::uint64_t join(Output output);
    // Calls `started` once: with nullptr when the capture runs, or with the error that ended it.
    void whenStarted(std::function<void(std::exception_ptr)> started);
    // Removes a reader (one already dropped is fine); the last one to leave stops the capture.
    void leave(std::uint64_t reader);

    void didOutputSampleBuffer(const platform::SampleBuffer& buffer, platform::StreamOutputType type) override;
    std::size_t framesWanted() const noexcept override { return framesWanted_.load(std::memory_order_relaxed); }
    // Every reader's byte stream ends with the error.
    void didStopWithError(std::exception_ptr error) override;

private:
    enum class Phase { starting, running, ended };
    struct Reader {
        std::uint64_t id;
        Output output;
        std::uint64_t firstFrame;  // of the capture's frames, the first one this reader gets
        Bytes pending;             // less than a chunk, waiting for more samples
    };
    struct Shared {  // under mutex_
        Phase phase = Phase::starting;
        std::exception_ptr error;
        std::vector<Reader> readers;
        std::vector<std::function<void(std::exception_ptr)>> waiting;
        std::shared_ptr<platform::CaptureStream> stream;
        std::uint64_t lastId = 0;
        std::uint64_t frames = 0;  // received so far
        Clock::time_point lastBuffer;  // when the last of them came
    };

    // The frame, counted like Shared::frames, with which the reader's next chunk is complete.
    std::uint64_t dueFrame(const Reader& reader) const noexcept;
    // Chunks are handed on at the first step boundary at or after they are due: a fixed grid, so
    // a reader is served at the same point of every step, however the others are spread.
    std::uint64_t handOnFrame(std::uint64_t due) const noexcept;
    std::size_t chunkFrames() const noexcept { return chunkBytes_ / 2; }

    // Ends the capture: waiters and readers get the error, the platform stream is released
    // (asked to stop first when it ran).
    void end(std::exception_ptr error, bool stopStream);

    AudioCaptureDelegate delegate_;
    net::Logger logger_;
    Now clock_;
    std::size_t chunkBytes_;
    std::uint64_t stepFrames_;  // a hand-on step's worth
    std::atomic<std::size_t> framesWanted_;  // until the first due chunk; written under mutex_
    std::mutex mutex_;
    Shared shared_;
};

}  // namespace orvel
