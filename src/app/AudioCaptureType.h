#pragma once
#include <optional>
#include <string_view>

namespace orvel {

// The kinds of sound a page may ask for. Only the machine's own output, for now.
enum class AudioCaptureType {
    loopback,  // "loopback": what the computer itself plays
};

std::string_view rawValue(AudioCaptureType type) noexcept;

// The case whose text value is exactly rawValue (case-sensitive), if any.
std::optional<AudioCaptureType> audioCaptureType(std::string_view rawValue) noexcept;

// As above for a decoded JSON string; throws DecodingError for unknown texts.
AudioCaptureType decodeAudioCaptureType(std::string_view jsonString);

}  // namespace orvel
