#include "app/AudioCaptureDelegate.h"

#include "app/SampleConversion.h"

#include <cmath>
#include <cstring>
#include <limits>
#include <new>

namespace orvel {

namespace {

// The delivered rate as the integer it is compared with, the fraction dropped; none when the
// rate is not a number or lies outside the signed 64-bit range.
std::optional<std::int64_t> integralRate(double rate) {
    // -2^63 is exact in a double; 2^63 is the first value past the range.
    constexpr double lowest = -9223372036854775808.0;
    constexpr double pastHighest = 9223372036854775808.0;
    if (!(rate >= lowest && rate < pastHighest)) return std::nullopt;
    return static_cast<std::int64_t>(rate);
}

}  // namespace

AudioCaptureDelegate::AudioCaptureDelegate(std::int64_t expectedSampleRate, net::Logger logger)
    : expectedSampleRate_(expectedSampleRate), logger_(std::move(logger)) {
    // The source format: float, 1 channel, at the rate. Only the rate can make it impossible.
    // The target (Int16, 1 channel, same rate) and the converter between them are our own code
    // and exist for every rate the source format accepts.
    if (expectedSampleRate < minimumSampleRate || expectedSampleRate > maximumSampleRate) {
        throw AudioCaptureError::cannotCreateSourceFormat();
    }
}

void AudioCaptureDelegate::setContinuation(std::optional<Continuation> continuation) {
    // The old handle is released outside the lock.
    continuation_.withLock([&](std::optional<Continuation>& current) { current.swap(continuation); });
}

std::optional<AudioCaptureDelegate::Continuation> AudioCaptureDelegate::continuation() const {
    return continuation_.withLock([](const std::optional<Continuation>& current) { return current; });
}

void AudioCaptureDelegate::didOutputSampleBuffer(const platform::SampleBuffer& buffer,
                                                 platform::StreamOutputType type) {
    const std::optional<Continuation> continuation = this->continuation();
    if (!continuation) return;
    if (!buffer.isValid) {
        logger_->logError("Received invalid sample buffer, ignoring.");
        return;
    }
    if (type != platform::StreamOutputType::audio) return;
    try {
        convertSampleBuffer(buffer, *continuation);
    } catch (...) {
        continuation->finish(std::current_exception());
    }
}

void AudioCaptureDelegate::didStopWithError(std::exception_ptr error) {
    if (const std::optional<Continuation> continuation = this->continuation()) continuation->finish(std::move(error));
}

void AudioCaptureDelegate::convertSampleBuffer(const platform::SampleBuffer& buffer,
                                               const Continuation& continuation) const {
    continuation.yield(convert(buffer));
}

AudioCaptureDelegate::Bytes AudioCaptureDelegate::convert(const platform::SampleBuffer& buffer) const {
    if (!buffer.formatDescription) throw AudioCaptureError::noBufferFormatDescription();
    const platform::AudioStreamDescription& description = *buffer.formatDescription;
    if (description.channelsPerFrame != 1) throw AudioCaptureError::wrongChannelCount(description.channelsPerFrame);
    const auto rate = integralRate(description.sampleRate);
    if (!rate || *rate != expectedSampleRate_) {
        throw AudioCaptureError::wrongSampleRate(expectedSampleRate_, description.sampleRate);
    }

    // Whole float frames only, and no more than a 32-bit frame count.
    const std::span<const std::byte> data = buffer.audioBufferList;
    const std::size_t frames = data.size() / sizeof(float);
    if (data.size() % sizeof(float) != 0 || frames > std::numeric_limits<std::uint32_t>::max()) {
        throw AudioCaptureError::cannotCreateSourceBuffer();
    }

    // The samples are converted straight into the buffer that is yielded: one allocation, no
    // intermediate copy.
    Bytes bytes;
    try {
        bytes.resize(frames * 2);
    } catch (const std::bad_alloc&) {
        throw AudioCaptureError::cannotCreateTargetBuffer();
    }
    if (reinterpret_cast<std::uintptr_t>(data.data()) % alignof(float) == 0) {
        convertToInt16LE(std::span(reinterpret_cast<const float*>(data.data()), frames), bytes.data());
    } else {
        // The platform's memory is float-aligned in practice; a stray buffer is copied first.
        std::vector<float> aligned(frames);
        std::memcpy(aligned.data(), data.data(), frames * sizeof(float));
        convertToInt16LE(aligned, bytes.data());
    }
    return bytes;
}

}  // namespace orvel
