#pragma once
#include "app/AudioCaptureError.h"
#include "async/AsyncStream.h"
#include "net/Logging.h"
#include "net/Mutex.h"
#include "platform/CaptureStream.h"

#include <cstdint>
#include <exception>
#include <optional>
#include <vector>

namespace orvel {

// Receives a capture stream's sample buffers, checks each against the one format the page asked
// for (float, 1 channel, expectedSampleRate), converts it to 16-bit little-endian samples and
// yields those bytes into the capture byte stream. Made by startAudioCapture, which sets and
// clears the continuation; called on the capture's thread, and never blocks it.
class AudioCaptureDelegate final : public platform::StreamOutput, public platform::StreamDelegate {
public:
    using Bytes = std::vector<std::uint8_t>;
    using ByteStream = async::AsyncThrowingStream<Bytes>;
    using Continuation = ByteStream::Continuation;

    // The rates a capture may have. Below 8000 Hz a 100 ms message would be meaninglessly small
    // (and under 10 Hz empty); above 384000 Hz the sound server refuses the stream.
    static constexpr std::int64_t minimumSampleRate = 8000;
    static constexpr std::int64_t maximumSampleRate = 384000;

    // Throws AudioCaptureError::cannotCreateSourceFormat for a rate outside the bounds above.
    AudioCaptureDelegate(std::int64_t expectedSampleRate, net::Logger logger);

    std::int64_t expectedSampleRate() const noexcept { return expectedSampleRate_; }

    // Where converted bytes go; absent before the byte stream exists and after it has ended,
    // and then every buffer is dropped. Safe from any thread.
    void setContinuation(std::optional<Continuation> continuation);
    std::optional<Continuation> continuation() const;

    // In order: no continuation, drop; invalid buffer, log and drop; not audio, drop; otherwise
    // convert and yield, or finish the byte stream with the error that stopped the conversion.
    void didOutputSampleBuffer(const platform::SampleBuffer& buffer, platform::StreamOutputType type) override;
    // Finishes the byte stream with the error, if there still is one.
    void didStopWithError(std::exception_ptr error) override;

    // The per-buffer checks and the conversion; throws AudioCaptureError.
    void convertSampleBuffer(const platform::SampleBuffer& buffer, const Continuation& continuation) const;
    Bytes convert(const platform::SampleBuffer& buffer) const;

private:
    std::int64_t expectedSampleRate_;
    net::Logger logger_;
    net::Mutex<std::optional<Continuation>> continuation_;
};

}  // namespace orvel
