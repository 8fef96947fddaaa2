#pragma once
#include "async/Error.h"

#include <cstdint>
#include <string>

namespace orvel {

// What can go wrong while a capture is set up and while its buffers are converted. Raised by
// AudioCaptureDelegate and passed on unchanged by startAudioCapture. It has no text of its own;
// description() is the generic rendering of the case and its payload, for the log.
class AudioCaptureError final : public async::Error {
public:
    enum class Kind {
        wrongChannelCount,
        wrongSampleRate,
        noBufferFormatDescription,
        cannotCreateSourceFormat,
        cannotCreateTargetFormat,
        cannotCreateConverter,
        cannotCreateSourceBuffer,
        cannotCreateTargetBuffer,
    };

    static AudioCaptureError wrongChannelCount(std::uint32_t actual);
    static AudioCaptureError wrongSampleRate(std::int64_t expected, double actual);
    static AudioCaptureError noBufferFormatDescription() { return AudioCaptureError(Kind::noBufferFormatDescription); }
    static AudioCaptureError cannotCreateSourceFormat() { return AudioCaptureError(Kind::cannotCreateSourceFormat); }
    static AudioCaptureError cannotCreateTargetFormat() { return AudioCaptureError(Kind::cannotCreateTargetFormat); }
    static AudioCaptureError cannotCreateConverter() { return AudioCaptureError(Kind::cannotCreateConverter); }
    static AudioCaptureError cannotCreateSourceBuffer() { return AudioCaptureError(Kind::cannotCreateSourceBuffer); }
    static AudioCaptureError cannotCreateTargetBuffer() { return AudioCaptureError(Kind::cannotCreateTargetBuffer); }

    Kind kind() const noexcept { return kind_; }
    // Payloads; zero for the cases that do not carry them.
    std::uint32_t actualChannelCount() const noexcept { return actualChannelCount_; }
    std::int64_t expectedSampleRate() const noexcept { return expectedSampleRate_; }
    double actualSampleRate() const noexcept { return actualSampleRate_; }

    // Same case and payload; sample rates compare bit for bit, so a NaN payload equals itself.
    friend bool operator==(const AudioCaptureError& a, const AudioCaptureError& b) noexcept;

private:
    explicit AudioCaptureError(Kind kind, std::uint32_t actualChannelCount = 0, std::int64_t expectedSampleRate = 0,
                               double actualSampleRate = 0.0);

    Kind kind_;
    std::uint32_t actualChannelCount_;
    std::int64_t expectedSampleRate_;
    double actualSampleRate_;
};

}  // namespace orvel
