#pragma once
#include "app/AudioCaptureDelegate.h"
#include "async/Task.h"
#include "net/Logging.h"
#include "platform/CaptureStream.h"

#include <chrono>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>

namespace orvel {

// The capture byte stream: 16-bit little-endian mono samples in chunks of 100 ms (rate / 10
// samples), from the moment the capture started for this stream. Ending it in any way (its consumer stops, is cancelled, or the
// capture fails) stops the capture.
using AudioCaptureStream = AudioCaptureDelegate::ByteStream;

// What a capture runs on: the platform's capture service, the application's log, and the clock
// that places a page's start among the captured samples.
struct AudioCaptureEnvironment {
    using Clock = std::function<std::chrono::steady_clock::time_point()>;

    std::shared_ptr<platform::CaptureService> service;
    net::Logger logger;
    Clock clock = std::chrono::steady_clock::now;

    // PulseAudio's default server and the application's log (appLogger).
    static AudioCaptureEnvironment standard();
};

// Starts capturing what the machine plays, 1 channel at sampleRate, and returns the running
// byte stream; a capture of its own (CaptureHub shares one capture per rate between pages). Throws AudioCaptureError when the delegate refuses the rate (before anything else
// is made), or the platform's error when adding outputs or starting fails. Logs "Starting audio
// capture." before the start; the byte stream's end logs "Stream will close, stopping audio
// capture." and "Stopped audio capture.".
async::Task<AudioCaptureStream> startAudioCapture(std::int64_t sampleRate, AudioCaptureEnvironment environment);
async::Task<AudioCaptureStream> startAudioCapture(std::int64_t sampleRate);

// True for the platform's refusal of the capture permission (PulseAudio's access denied),
// which the streaming handler reports differently from other failures.
bool isCapturePermissionRefused(const std::exception_ptr& error) noexcept;

}  // namespace orvel
