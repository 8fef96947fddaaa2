#include "app/SharedCapture.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace orvel {

using platform::StreamOutputType;

SharedCapture::SharedCapture(std::int64_t sampleRate, net::Logger logger, Now clock)
    : delegate_(sampleRate, logger),  // refuses the rate before anything is made
      logger_(std::move(logger)),
      clock_(std::move(clock)),
      chunkBytes_(static_cast<std::size_t>(sampleRate / 10) * 2),
      stepFrames_(std::max<std::uint64_t>(1, static_cast<std::uint64_t>(sampleRate) * handOnStep.count() / 1000)),
      framesWanted_(chunkFrames()) {}

SharedCapture::~SharedCapture() = default;

void SharedCapture::open(platform::CaptureService& service) {
    platform::StreamConfiguration configuration;
    configuration.capturesAudio = true;
    configuration.channelCount = 1;
    configuration.sampleRate = sampleRate();
    configuration.queueDepth = 5;
    try {
        // The source is the default sink's monitor, chosen by the service.
        auto stream = service.makeStream(configuration, shared_from_this());
        stream->addStreamOutput(shared_from_this(), StreamOutputType::screen);
        stream->addStreamOutput(shared_from_this(), StreamOutputType::audio);
        std::lock_guard lock(mutex_);
        shared_.stream = std::move(stream);
    } catch (...) {
        end(std::current_exception(), false);
        throw;
    }
}

void SharedCapture::start() {
    std::shared_ptr<platform::CaptureStream> stream;
    {
        std::lock_guard lock(mutex_);
        stream = shared_.stream;
    }
    if (!stream) return;  // ended while opening
    stream->startCapture([self = shared_from_this()](std::exception_ptr error) {
        if (error) {
            self->end(std::move(error), false);
            return;
        }
        std::vector<std::function<void(std::exception_ptr)>> waiting;
        {
            std::lock_guard lock(self->mutex_);
            if (self->shared_.phase != Phase::starting) return;
            self->shared_.phase = Phase::running;
            waiting.swap(self->shared_.waiting);
        }
        for (auto& started : waiting) started(nullptr);
    });
}

std::uint64_t SharedCapture::join(Output output) {
    std::lock_guard lock(mutex_);
    if (shared_.phase == Phase::ended) return 0;
    // What was captured since the last buffer is on its way, and came before this reader. At most
    // a chunk of it: a server that sends nothing for a while (a suspended sink) captured nothing.
    std::uint64_t first = shared_.frames;
    if (first > 0) {
        const auto since = std::chrono::duration_cast<std::chrono::microseconds>(clock_() - shared_.lastBuffer).count();
        const auto frames = static_cast<std::uint64_t>(std::max<std::int64_t>(0, since) * sampleRate() / 1'000'000);
        first += std::min<std::uint64_t>(frames, chunkFrames());
    }
    Reader reader{++shared_.lastId, std::move(output), first, {}};
    reader.pending.reserve(chunkBytes_);
    const std::size_t wanted = handOnFrame(dueFrame(reader)) - shared_.frames;
    if (wanted < framesWanted_.load(std::memory_order_relaxed)) framesWanted_.store(wanted, std::memory_order_relaxed);
    shared_.readers.push_back(std::move(reader));
    return shared_.lastId;
}

void SharedCapture::whenStarted(std::function<void(std::exception_ptr)> started) {
    std::exception_ptr outcome;
    {
        std::lock_guard lock(mutex_);
        if (shared_.phase == Phase::starting) {
            shared_.waiting.push_back(std::move(started));
            return;
        }
        outcome = shared_.phase == Phase::ended ? shared_.error : nullptr;
    }
    started(outcome);
}

void SharedCapture::leave(std::uint64_t reader) {
    std::shared_ptr<platform::CaptureStream> stream;
    {
        std::lock_guard lock(mutex_);
        std::erase_if(shared_.readers, [reader](const Reader& r) { return r.id == reader; });
        if (!shared_.readers.empty() || shared_.phase != Phase::running) return;
        shared_.phase = Phase::ended;
        stream = std::move(shared_.stream);
    }
    // A request: it does not wait for the platform, and the release breaks the stream's hold on us.
    if (stream) stream->stopCapture();
}

void SharedCapture::end(std::exception_ptr error, bool stopStream) {
    std::shared_ptr<platform::CaptureStream> stream;
    std::vector<std::function<void(std::exception_ptr)>> waiting;
    std::vector<Reader> readers;
    {
        std::lock_guard lock(mutex_);
        if (shared_.phase == Phase::ended) return;
        shared_.phase = Phase::ended;
        shared_.error = error;
        stream = std::move(shared_.stream);
        waiting.swap(shared_.waiting);
        readers.swap(shared_.readers);
    }
    if (stream && stopStream) stream->stopCapture();
    // Outside the lock: finishing runs each reader's end, which comes back through leave().
    for (auto& started : waiting) started(error);
    for (auto& reader : readers) reader.output.finish(error);
}

void SharedCapture::didOutputSampleBuffer(const platform::SampleBuffer& buffer, StreamOutputType type) {
    {
        std::lock_guard lock(mutex_);
        // Buffers before the start completed belong to no reader's stream yet.
        if (shared_.phase != Phase::running || shared_.readers.empty()) return;
    }
    if (!buffer.isValid) {
        logger_->logError("Received invalid sample buffer, ignoring.");
        return;
    }
    if (type != StreamOutputType::audio) return;
    Bytes bytes;
    try {
        bytes = delegate_.convert(buffer);
    } catch (...) {
        end(std::current_exception(), true);
        return;
    }

    std::vector<Output> tooSlow;
    {
        std::lock_guard lock(mutex_);
        if (shared_.phase != Phase::running) return;
        const std::uint64_t first = shared_.frames;
        shared_.frames += bytes.size() / 2;
        shared_.lastBuffer = clock_();
        std::uint64_t due = std::numeric_limits<std::uint64_t>::max();
        std::erase_if(shared_.readers, [&](Reader& reader) {
            if (reader.output.bufferedCount() >= maximumUnreadChunks) {
                tooSlow.push_back(std::move(reader.output));
                return true;
            }
            // Samples from before the reader joined are not its own.
            const std::uint64_t skipped = std::clamp(reader.firstFrame, first, shared_.frames) - first;
            // Yielding only queues the chunk and schedules the reader; it never runs it here.
            for (auto at = static_cast<std::size_t>(skipped * 2); at < bytes.size();) {
                const std::size_t take = std::min(chunkBytes_ - reader.pending.size(), bytes.size() - at);
                reader.pending.insert(reader.pending.end(), bytes.begin() + static_cast<std::ptrdiff_t>(at),
                                      bytes.begin() + static_cast<std::ptrdiff_t>(at + take));
                at += take;
                if (reader.pending.size() == chunkBytes_) {
                    reader.output.yield(std::exchange(reader.pending, {}));
                    reader.pending.reserve(chunkBytes_);
                }
            }
            due = std::min(due, dueFrame(reader));
            return false;
        });
        framesWanted_.store(shared_.readers.empty() ? chunkFrames() : handOnFrame(due) - shared_.frames,
                            std::memory_order_relaxed);
    }
    for (auto& output : tooSlow) output.finish(std::make_exception_ptr(ReaderTooSlow()));
    // The last reader dropped stops the capture through its own leave().
}

std::uint64_t SharedCapture::dueFrame(const Reader& reader) const noexcept {
    return std::max(reader.firstFrame, shared_.frames) + (chunkBytes_ - reader.pending.size()) / 2;
}

std::uint64_t SharedCapture::handOnFrame(std::uint64_t due) const noexcept {
    return (due + stepFrames_ - 1) / stepFrames_ * stepFrames_;
}

void SharedCapture::didStopWithError(std::exception_ptr error) { end(std::move(error), true); }

}  // namespace orvel
