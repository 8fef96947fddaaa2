#pragma once
#include "platform/CaptureStream.h"

#include <chrono>
#include <memory>
#include <string>

namespace orvel::platform {

// Captures what the machine plays from a PulseAudio server (or PipeWire's pulse server): a
// record stream on the monitor of the default sink, float32 at the configured rate and channel
// count. Each capture has its own connection and its own libpulse thread, so captures are
// independent; buffers and errors arrive on that thread. Pulse headers stay in the .cpp.
class PulseAudioCapture final : public CaptureStream {
public:
    struct Options {
        // The server as libpulse writes it ("unix:/run/user/0/pulse/native"); empty means the
        // usual lookup (PULSE_SERVER, then XDG_RUNTIME_DIR).
        std::string server;
        // "@DEFAULT_MONITOR@" follows whatever sink is the default when the stream connects.
        std::string device = "@DEFAULT_MONITOR@";
        // Asked-for read size. The server's default is 2 s bursts; ~20 ms keeps latency low
        // without waking the thread for every few samples.
        std::chrono::milliseconds fragment{20};
        std::string applicationName = "Orvel";
    };

    PulseAudioCapture(Options options, StreamConfiguration configuration, std::shared_ptr<StreamDelegate> delegate);
    // Ends the connection and joins the libpulse thread. Never blocks an executor's thread: on
    // one (a pool worker, or a serial executor's job), or inside one of this capture's own
    // callbacks, it only asks the libpulse thread to disconnect and leaves the join and the
    // freeing to a short-lived thread.
    ~PulseAudioCapture() override;

    // Blocks until every capture handed to a short-lived thread has been freed and its libpulse
    // thread joined. For the end of the process, once nothing makes captures any more.
    static void waitForBackgroundShutdowns();

    PulseAudioCapture(const PulseAudioCapture&) = delete;
    PulseAudioCapture& operator=(const PulseAudioCapture&) = delete;

    // Only before startCapture; throws PulseAudioError (Bad state) afterwards. Screen outputs are
    // accepted and never called: there is no picture.
    void addStreamOutput(std::shared_ptr<StreamOutput> output, StreamOutputType type) override;
    // Fails at once, on the caller's thread, when no server can be reached (for instance
    // "PulseAudioError. Connect(6): Connection refused"); otherwise completes on the libpulse
    // thread once the record stream is ready or has failed.
    void startCapture(std::function<void(std::exception_ptr)> completion) override;
    // Never blocks: it flags the capture and wakes the libpulse thread, which disconnects.
    void stopCapture() override;

    struct Core;

private:
    std::shared_ptr<Core> core_;
};

// Makes PulseAudioCapture streams with the given options.
class PulseAudioCaptureService final : public CaptureService {
public:
    PulseAudioCaptureService() = default;
    explicit PulseAudioCaptureService(PulseAudioCapture::Options options) : options_(std::move(options)) {}

    std::unique_ptr<CaptureStream> makeStream(const StreamConfiguration& configuration,
                                              std::shared_ptr<StreamDelegate> delegate) override;

private:
    PulseAudioCapture::Options options_;
};

}  // namespace orvel::platform
