#pragma once
// Fakes for the capture tests: a capture service whose streams record what is asked of them and
// deliver buffers when the test says so.

#include "app/AudioCapture.h"
#include "app/OrvelMessageHandler.h"
#include "async/Spawn.h"
#include "http/HTTPTestSupport.h"
#include "platform/CaptureStream.h"

#include <atomic>
#include <cstring>
#include <string>
#include <vector>

namespace orvel::test {

using RecordingLogger = http::RecordingLogger;

class FakeCaptureStream final : public platform::CaptureStream {
public:
    struct Record {
        platform::StreamConfiguration configuration;
        std::vector<platform::StreamOutputType> outputTypes;
        std::shared_ptr<platform::StreamDelegate> delegate;
        std::vector<std::shared_ptr<platform::StreamOutput>> outputs;
        bool started = false;
        int stops = 0;
        bool destroyed = false;
        std::exception_ptr startError;        // what start reports; nullptr for success
        std::exception_ptr addOutputError;    // thrown by addStreamOutput when set
        std::function<void(Record&)> duringStart;  // runs before the start reports its outcome
    };

    explicit FakeCaptureStream(std::shared_ptr<Record> record) : record_(std::move(record)) {}
    ~FakeCaptureStream() override { record_->destroyed = true; }

    void addStreamOutput(std::shared_ptr<platform::StreamOutput> output, platform::StreamOutputType type) override {
        if (record_->addOutputError) std::rethrow_exception(record_->addOutputError);
        record_->outputTypes.push_back(type);
        record_->outputs.push_back(std::move(output));
    }
    void startCapture(std::function<void(std::exception_ptr)> completion) override {
        if (record_->duringStart) record_->duringStart(*record_);
        record_->started = record_->startError == nullptr;
        completion(record_->startError);
    }
    void stopCapture() override { ++record_->stops; }

private:
    std::shared_ptr<Record> record_;
};

class FakeCaptureService final : public platform::CaptureService {
public:
    std::unique_ptr<platform::CaptureStream> makeStream(const platform::StreamConfiguration& configuration,
                                                        std::shared_ptr<platform::StreamDelegate> delegate) override {
        auto record = next ? std::exchange(next, nullptr) : std::make_shared<FakeCaptureStream::Record>();
        record->configuration = configuration;
        record->delegate = std::move(delegate);
        made.push_back(record);
        return std::make_unique<FakeCaptureStream>(record);
    }

    std::shared_ptr<FakeCaptureStream::Record> next;  // settings for the next stream made, if any
    std::vector<std::shared_ptr<FakeCaptureStream::Record>> made;
};

// Delivers a buffer to every output of a fake stream as its capture thread would.
inline void deliver(FakeCaptureStream::Record& record, const platform::SampleBuffer& buffer,
                    platform::StreamOutputType type = platform::StreamOutputType::audio) {
    for (std::size_t i = 0; i < record.outputs.size(); ++i)
        if (record.outputTypes[i] == type) record.outputs[i]->didOutputSampleBuffer(buffer, type);
}

// A buffer of float samples as the platform hands them over; the floats must outlive it.
inline platform::SampleBuffer floatBuffer(const std::vector<float>& samples, double rate = 48000.0,
                                          std::uint32_t channels = 1) {
    return {true, platform::AudioStreamDescription{rate, channels}, std::as_bytes(std::span(samples))};
}

inline async::Task<std::optional<AudioCaptureDelegate::Bytes>> nextOf(AudioCaptureStream* stream) { co_return co_await stream->next(); }

// The next element of the byte stream, waiting on this (non-pool) thread.
inline std::optional<AudioCaptureDelegate::Bytes> next(AudioCaptureStream& stream) { return async::syncWait(nextOf(&stream)); }

// The error that ended a byte stream, as its description (which names its type and payload).
inline std::string endingError(AudioCaptureStream& stream) {
    try {
        return next(stream) ? "an element" : "the end";
    } catch (const async::Error& error) {
        return error.description();
    }
}

// A capture the test feeds by hand: the stream is handed to the first start, the feed stays here.
struct FakeCapture {
    std::optional<AudioCaptureStream> stream;
    std::optional<AudioCaptureStream::Continuation> feed;
    std::exception_ptr startError;
    std::vector<std::int64_t> startedRates;
    std::shared_ptr<std::atomic<bool>> terminated = std::make_shared<std::atomic<bool>>(false);

    explicit FakeCapture(std::size_t (*weigh)(const AudioCaptureDelegate::Bytes&) = nullptr) {
        auto [bytes, continuation] = AudioCaptureStream::make(weigh);
        continuation.onTermination([ended = terminated](async::Termination) { *ended = true; });
        stream.emplace(std::move(bytes));
        feed.emplace(continuation);
    }
};

inline async::Task<AudioCaptureStream> fakeStart(std::shared_ptr<FakeCapture> fake, std::int64_t rate) {
    fake->startedRates.push_back(rate);
    if (fake->startError) std::rethrow_exception(fake->startError);
    co_return std::move(*fake->stream);
}

inline CaptureStart startingWith(std::shared_ptr<FakeCapture> fake) {
    return [fake](std::int64_t rate) { return fakeStart(fake, rate); };
}

inline std::vector<std::int16_t> samplesOf(const AudioCaptureDelegate::Bytes& bytes) {
    std::vector<std::int16_t> samples(bytes.size() / 2);
    for (std::size_t i = 0; i < samples.size(); ++i)
        samples[i] = static_cast<std::int16_t>(bytes[2 * i] | (bytes[2 * i + 1] << 8));
    return samples;
}

}  // namespace orvel::test
