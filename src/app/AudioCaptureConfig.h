#pragma once
#include <cstdint>
#include <span>
#include <string_view>

namespace orvel {

// What a page asks to capture: its first WebSocket message, a JSON object such as
// {"type": "loopback", "sample_rate": 48000}. Only ever decoded. The rate is not range-checked
// here; the capture refuses rates it cannot serve.
class AudioCaptureConfig {
public:
    enum class Kind {
        loopback,  // the machine's own output, one channel at sampleRate
    };

    // Fields and their member names on the wire.
    enum class CodingKeys {
        type,        // "type"
        sampleRate,  // "sample_rate"
    };

    static AudioCaptureConfig loopback(std::uint64_t sampleRate) noexcept { return {Kind::loopback, sampleRate}; }

    // Decodes the UTF-8 bytes of a JSON text; members other than "type" and "sample_rate" are
    // ignored, the last of duplicate members wins. "sample_rate" must be
    // written as a plain non-negative integer up to 2^64 - 1: a fraction, an exponent or a minus
    // sign (even "-0") is refused, so that the decoded value is always exactly what was sent.
    // Throws DecodingError.
    static AudioCaptureConfig decode(std::string_view json);
    static AudioCaptureConfig decode(std::span<const std::uint8_t> json) {
        return decode(std::string_view(reinterpret_cast<const char*>(json.data()), json.size()));
    }

    Kind kind() const noexcept { return kind_; }
    std::uint64_t sampleRate() const noexcept { return sampleRate_; }

    friend bool operator==(const AudioCaptureConfig&, const AudioCaptureConfig&) = default;

private:
    AudioCaptureConfig(Kind kind, std::uint64_t sampleRate) noexcept : kind_(kind), sampleRate_(sampleRate) {}

    Kind kind_;
    std::uint64_t sampleRate_;
};

// The wire name of a coding key; keys are equal exactly when their wire names are.
std::string_view stringValue(AudioCaptureConfig::CodingKeys key) noexcept;

}  // namespace orvel
