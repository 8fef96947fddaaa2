#include "app/CaptureHub.h"

#include "app/SharedCapture.h"
#include "async/Continuation.h"

#include <map>
#include <mutex>
#include <utility>

namespace orvel {

struct CaptureHub::State {
    AudioCaptureEnvironment environment;
    std::mutex mutex;
    std::map<std::int64_t, std::weak_ptr<SharedCapture>> captures;  // under mutex
};

namespace {

// One page's end of its byte stream: it holds the shared capture as long as the page reads.
struct LeaveCapture {
    std::shared_ptr<SharedCapture> capture;
    std::uint64_t reader;
    net::Logger logger;

    void operator()(async::Termination) const {
        logger->logInfo("Stream will close, stopping audio capture.");
        capture->leave(reader);  // the last page's leave asks the platform to stop, without waiting
        logger->logInfo("Stopped audio capture.");
    }
};

async::Task<AudioCaptureStream> startShared(std::shared_ptr<CaptureHub::State> state, std::int64_t sampleRate) {
    auto [bytes, output] = AudioCaptureStream::make();
    std::shared_ptr<SharedCapture> capture;
    std::uint64_t reader = 0;
    bool created = false;
    {
        // Looking up and joining under one lock: a capture whose last page just left is never
        // joined, and two first pages at one rate make one capture.
        std::lock_guard lock(state->mutex);
        if (auto found = state->captures.find(sampleRate); found != state->captures.end()) {
            if (auto existing = found->second.lock()) {
                reader = existing->join(output);
                if (reader != 0) capture = std::move(existing);
            }
        }
        if (!capture) {
            capture = std::make_shared<SharedCapture>(sampleRate, state->environment.logger, state->environment.clock);
            std::erase_if(state->captures, [](const auto& entry) { return entry.second.expired(); });
            state->captures[sampleRate] = capture;
            reader = capture->join(output);
            created = true;
        }
    }
    const net::Logger& logger = state->environment.logger;
    if (created) capture->open(*state->environment.service);
    logger->logInfo("Starting audio capture.");
    if (created) capture->start();
    SharedCapture* joined = capture.get();
    co_await async::withCheckedContinuation<void>([joined](async::Continuation<void> started) {
        joined->whenStarted([started](std::exception_ptr error) {
            if (error) {
                started.resumeThrowing(std::move(error));
            } else {
                started.resume();
            }
        });
    });
    // A stream the capture has ended meanwhile runs the handler at once, so it sees every ending.
    output.onTermination(LeaveCapture{std::move(capture), reader, logger});
    co_return std::move(bytes);
}

}  // namespace

CaptureHub::CaptureHub(AudioCaptureEnvironment environment)
    : state_(std::make_shared<State>()) {
    state_->environment = std::move(environment);
}

async::Task<AudioCaptureStream> CaptureHub::start(std::int64_t sampleRate) const { return startShared(state_, sampleRate); }

}  // namespace orvel
