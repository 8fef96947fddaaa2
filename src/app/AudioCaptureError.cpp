#include "app/AudioCaptureError.h"

#include <array>
#include <bit>
#include <charconv>
#include <cmath>
#include <string_view>

namespace orvel {

namespace {

std::string_view caseName(AudioCaptureError::Kind kind) {
    using Kind = AudioCaptureError::Kind;
    switch (kind) {
    case Kind::wrongChannelCount: return "wrongChannelCount";
    case Kind::wrongSampleRate: return "wrongSampleRate";
    case Kind::noBufferFormatDescription: return "noBufferFormatDescription";
    case Kind::cannotCreateSourceFormat: return "cannotCreateSourceFormat";
    case Kind::cannotCreateTargetFormat: return "cannotCreateTargetFormat";
    case Kind::cannotCreateConverter: return "cannotCreateConverter";
    case Kind::cannotCreateSourceBuffer: return "cannotCreateSourceBuffer";
    case Kind::cannotCreateTargetBuffer: return "cannotCreateTargetBuffer";
    }
    return "unknown";
}

// Shortest round-trip digits, always with a fraction or an exponent ("44100.0", "48000.7",
// "1e+16", "nan").
std::string describeDouble(double value) {
    if (std::isnan(value)) return "nan";
    if (std::isinf(value)) return value < 0 ? "-inf" : "inf";
    // Plain digits from 1e-4 up to 2^53, where every integer is still exact; an exponent beyond.
    const double magnitude = std::fabs(value);
    const bool plain = magnitude == 0.0 || (magnitude >= 1e-4 && magnitude < 9007199254740992.0);
    std::array<char, 64> buffer{};
    const auto format = plain ? std::chars_format::fixed : std::chars_format::scientific;
    const auto result = std::to_chars(buffer.data(), buffer.data() + buffer.size(), value, format);
    std::string text(buffer.data(), result.ptr);
    if (plain && text.find('.') == std::string::npos) text += ".0";
    return text;
}

std::string render(AudioCaptureError::Kind kind, std::uint32_t channels, std::int64_t expected, double actual) {
    std::string text = "AudioCaptureError.";
    text += caseName(kind);
    if (kind == AudioCaptureError::Kind::wrongChannelCount) {
        text += "(actual: " + std::to_string(channels) + ")";
    } else if (kind == AudioCaptureError::Kind::wrongSampleRate) {
        text += "(expected: " + std::to_string(expected) + ", actual: " + describeDouble(actual) + ")";
    }
    return text;
}

}  // namespace

AudioCaptureError::AudioCaptureError(Kind kind, std::uint32_t actualChannelCount, std::int64_t expectedSampleRate,
                                     double actualSampleRate)
    : Error(render(kind, actualChannelCount, expectedSampleRate, actualSampleRate)),
      kind_(kind),
      actualChannelCount_(actualChannelCount),
      expectedSampleRate_(expectedSampleRate),
      actualSampleRate_(actualSampleRate) {}

AudioCaptureError AudioCaptureError::wrongChannelCount(std::uint32_t actual) {
    return AudioCaptureError(Kind::wrongChannelCount, actual);
}

AudioCaptureError AudioCaptureError::wrongSampleRate(std::int64_t expected, double actual) {
    return AudioCaptureError(Kind::wrongSampleRate, 0, expected, actual);
}

bool operator==(const AudioCaptureError& a, const AudioCaptureError& b) noexcept {
    return a.kind_ == b.kind_ && a.actualChannelCount_ == b.actualChannelCount_ &&
           a.expectedSampleRate_ == b.expectedSampleRate_ &&
           std::bit_cast<std::uint64_t>(a.actualSampleRate_) == std::bit_cast<std::uint64_t>(b.actualSampleRate_);
}

}  // namespace orvel
