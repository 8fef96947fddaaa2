#pragma once
#include "app/AudioCapture.h"
#include "async/Task.h"

#include <cstdint>
#include <memory>

namespace orvel {

// Hands each page a capture byte stream of its own while the machine runs one platform capture
// per sample rate: the first page at a rate starts it, later pages join it, the last to leave
// stops it, and the next page after that starts a new one. Owned by the streaming handler and
// shared by all its connections; any thread. Captures outlive the hub until their last page.
class CaptureHub {
public:
    explicit CaptureHub(AudioCaptureEnvironment environment);

    // startAudioCapture's contract for one page, which gets 100 ms chunks of the samples captured
    // since its own start and logs its own "Starting audio capture." and, when its byte stream
    // ends, "Stream will close, stopping audio capture." and "Stopped audio capture.". A failure
    // of the shared capture ends every page's byte stream with that error.
    async::Task<AudioCaptureStream> start(std::int64_t sampleRate) const;

    struct State;

private:
    std::shared_ptr<State> state_;
};

}  // namespace orvel
