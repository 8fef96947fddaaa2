#include "app/AudioCapture.h"

#include "app/AppLogger.h"
#include "app/CaptureHub.h"
#include "platform/PulseAudioCapture.h"
#include "platform/PulseAudioError.h"

#include <utility>

namespace orvel {

AudioCaptureEnvironment AudioCaptureEnvironment::standard() {
    return {std::make_shared<platform::PulseAudioCaptureService>(), appLogger()};
}

async::Task<AudioCaptureStream> startAudioCapture(std::int64_t sampleRate) {
    return startAudioCapture(sampleRate, AudioCaptureEnvironment::standard());
}

async::Task<AudioCaptureStream> startAudioCapture(std::int64_t sampleRate, AudioCaptureEnvironment environment) {
    return CaptureHub(std::move(environment)).start(sampleRate);
}

bool isCapturePermissionRefused(const std::exception_ptr& error) noexcept {
    try {
        if (error) std::rethrow_exception(error);
    } catch (const platform::PulseAudioError& pulseError) {
        return pulseError.isAccessDenied();
    } catch (...) {
    }
    return false;
}

}  // namespace orvel
