#pragma once
#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <span>

namespace orvel::platform {

// The small capture interface the application's capture session is written against: a service
// makes streams, a stream is given outputs and a delegate, started, and later stopped. Sample
// buffers and the stop-with-error call arrive on the stream's own thread. PulseAudioCapture is
// the real one; tests drive the session with fakes of these types.

// Format of the samples in a delivered buffer.
struct AudioStreamDescription {
    double sampleRate = 0.0;
    std::uint32_t channelsPerFrame = 0;
};

// One captured buffer: a view of the stream's own memory, valid only during the output call.
// The samples are 32-bit floats in native byte order, channels interleaved.
struct SampleBuffer {
    bool isValid = true;
    std::optional<AudioStreamDescription> formatDescription;  // absent when the stream has none
    std::span<const std::byte> audioBufferList;
};

enum class StreamOutputType : int {
    screen = 0,
    audio = 1,
};

// Receives a stream's buffers on the stream's thread. Must not block: the thread also serves
// the sound server connection.
class StreamOutput {
public:
    virtual ~StreamOutput() = default;
    virtual void didOutputSampleBuffer(const SampleBuffer& buffer, StreamOutputType type) = 0;
    // How many more frames the output needs before a buffer is of use to it (its next message is
    // complete); 0 leaves it to the stream's own batching. Asked on the stream's thread, which may
    // hold samples back until then so the output is woken less often. Must not block.
    virtual std::size_t framesWanted() const noexcept { return 0; }
};

// Told, on the stream's thread, when a started stream ends by itself with an error.
class StreamDelegate {
public:
    virtual ~StreamDelegate() = default;
    virtual void didStopWithError(std::exception_ptr error) = 0;
};

struct StreamConfiguration {
    bool capturesAudio = false;
    std::uint32_t channelCount = 2;
    std::int64_t sampleRate = 48000;
    int queueDepth = 8;
};

class CaptureStream {
public:
    virtual ~CaptureStream() = default;
    // Throws the platform's error when the output cannot be added.
    virtual void addStreamOutput(std::shared_ptr<StreamOutput> output, StreamOutputType type) = 0;
    // Calls completion exactly once: with nullptr once buffers may flow, or with the error that
    // kept the stream from starting. It may run on the caller's thread before startCapture
    // returns (when nothing can be started at all) or on the stream's thread.
    virtual void startCapture(std::function<void(std::exception_ptr)> completion) = 0;
    // Asks the stream to stop and returns without waiting; from any thread, any number of times.
    // Once it has returned, no buffer delivery begins; called from another thread, a delivery
    // already under way may still finish.
    virtual void stopCapture() = 0;
};

// Makes capture streams of what the machine plays.
class CaptureService {
public:
    virtual ~CaptureService() = default;
    virtual std::unique_ptr<CaptureStream> makeStream(const StreamConfiguration& configuration,
                                                      std::shared_ptr<StreamDelegate> delegate) = 0;
};

}  // namespace orvel::platform
