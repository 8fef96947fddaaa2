#include "app/AudioCapture.h"

#include "app/AppLogger.h"
#include "async/Continuation.h"
#include "platform/PulseAudioCapture.h"
#include "platform/PulseAudioError.h"

#include <utility>

namespace orvel {

namespace {

using platform::StreamOutputType;

// The byte stream's termination handler: it owns the delegate and the platform stream, so both
// live exactly as long as the byte stream can still end.
struct StopAudioCapture {
    std::shared_ptr<AudioCaptureDelegate> delegate;
    std::shared_ptr<platform::CaptureStream> stream;
    net::Logger logger;

    void operator()(async::Termination) const {
        logger->logInfo("Stream will close, stopping audio capture.");
        delegate->setContinuation(std::nullopt);
        stream->stopCapture();  // a request: it does not wait for the platform
        logger->logInfo("Stopped audio capture.");
    }
};

}  // namespace

AudioCaptureEnvironment AudioCaptureEnvironment::standard() {
    return {std::make_shared<platform::PulseAudioCaptureService>(), appLogger()};
}

async::Task<AudioCaptureStream> startAudioCapture(std::int64_t sampleRate) {
    return startAudioCapture(sampleRate, AudioCaptureEnvironment::standard());
}

async::Task<AudioCaptureStream> startAudioCapture(std::int64_t sampleRate, AudioCaptureEnvironment environment) {
    auto delegate = std::make_shared<AudioCaptureDelegate>(sampleRate, environment.logger);

    platform::StreamConfiguration configuration;
    configuration.capturesAudio = true;
    configuration.channelCount = 1;
    configuration.sampleRate = sampleRate;
    configuration.queueDepth = 5;

    // The source is the default sink's monitor, chosen by the service: there is no content
    // (display) to look up first.
    std::shared_ptr<platform::CaptureStream> stream = environment.service->makeStream(configuration, delegate);
    stream->addStreamOutput(delegate, StreamOutputType::screen);
    stream->addStreamOutput(delegate, StreamOutputType::audio);

    environment.logger->logInfo("Starting audio capture.");
    co_await async::withCheckedContinuation<void>([&](async::Continuation<void> started) {
        stream->startCapture([started](std::exception_ptr error) {
            if (error) {
                started.resumeThrowing(std::move(error));
            } else {
                started.resume();
            }
        });
    });

    auto [bytes, continuation] = AudioCaptureStream::make();
    // The handler goes in before the delegate can finish the stream, so it sees every ending.
    continuation.onTermination(StopAudioCapture{delegate, std::move(stream), environment.logger});
    delegate->setContinuation(continuation);
    co_return std::move(bytes);
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
