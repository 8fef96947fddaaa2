#include "app/AudioCaptureType.h"

#include "app/DecodingError.h"

#include <string>

namespace orvel {

std::string_view rawValue(AudioCaptureType type) noexcept {
    switch (type) {
    case AudioCaptureType::loopback: return "loopback";
    }
    return {};
}

std::optional<AudioCaptureType> audioCaptureType(std::string_view rawValue) noexcept {
    if (rawValue == "loopback") return AudioCaptureType::loopback;
    return std::nullopt;
}

AudioCaptureType decodeAudioCaptureType(std::string_view jsonString) {
    if (auto type = audioCaptureType(jsonString)) return *type;
    // The text comes from the page; keep the error small whatever it sent.
    constexpr std::size_t maxQuoted = 64;
    std::string text = "Cannot initialize AudioCaptureType from invalid String value ";
    text += jsonString.substr(0, maxQuoted);
    if (jsonString.size() > maxQuoted) text += "...";
    throw DecodingError(std::move(text));
}

}  // namespace orvel
