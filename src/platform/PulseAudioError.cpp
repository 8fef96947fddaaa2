#include "platform/PulseAudioError.h"

#include <pulse/def.h>
#include <pulse/error.h>

namespace orvel::platform {

PulseAudioError PulseAudioError::failed(std::string_view operation, int code) {
    const char* reason = pa_strerror(code);
    std::string text = "PulseAudioError. ";
    text += operation;
    text += "(" + std::to_string(code) + "): ";
    text += reason != nullptr ? reason : "Unknown error code";
    return PulseAudioError(std::move(text), operation, code);
}

bool PulseAudioError::isAccessDenied() const noexcept { return code_ == PA_ERR_ACCESS; }

}  // namespace orvel::platform
