#pragma once
#include "async/Error.h"

#include <string>
#include <string_view>

namespace orvel::platform {

// A failure reported by the sound server or its client library, with PulseAudio's error code
// (PA_ERR_*) and the step that failed:
// PulseAudioError::failed("Connect", 6).description() == "PulseAudioError. Connect(6): Connection refused"
class PulseAudioError final : public async::Error {
public:
    static PulseAudioError failed(std::string_view operation, int code);

    const std::string& operation() const noexcept { return operation_; }
    int code() const noexcept { return code_; }
    // The server refused us access: the capture permission was not granted.
    bool isAccessDenied() const noexcept;

private:
    PulseAudioError(std::string text, std::string_view operation, int code)
        : Error(std::move(text)), operation_(operation), code_(code) {}

    std::string operation_;
    int code_;
};

}  // namespace orvel::platform
