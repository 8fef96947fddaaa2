#pragma once
#include "platform/CaptureStream.h"

#include <chrono>
#include <memory>
#include <string>

namespace orvel::platform {

// Captures what the machine plays from a PulseAudio server (or PipeWire's pulse server): a
// record stream on the monitor of the default sink, float32 at the configured rate. A 1-channel
// capture records the monitor's two channels and averages them, so a centred signal keeps its
// level whichever server mixes. Captures made by one PulseAudioCaptureService share one
// connection and one libpulse thread, each with its own record stream; buffers and errors arrive
// on that thread, when the outputs want them (StreamOutput::framesWanted) or else once per batch.
// The capture follows the default output when it changes, and rides out a server that goes away
// for less than `reconnectWindow`: it reconnects and fills the gap with silence of the gap's
// length. Pulse headers stay in the .cpp.
class PulseAudioCapture final : public CaptureStream {
public:
    struct Options {
        // The server as libpulse writes it ("unix:/run/user/0/pulse/native"); empty means the
        // usual lookup (PULSE_SERVER, then XDG_RUNTIME_DIR).
        std::string server;
        // "@DEFAULT_MONITOR@" follows whatever sink is the default when the stream connects.
        std::string device = "@DEFAULT_MONITOR@";
        // Asked-for read size, and the most one push of the server carries. The server's default
        // is 2 s bursts; ~20 ms keeps latency low.
        std::chrono::milliseconds fragment{20};
        // How much audio is handed on at once to outputs that do not say what they want.
        std::chrono::milliseconds batch{100};
        // How long a lost server or record stream may take to come back before the capture fails.
        std::chrono::milliseconds reconnectWindow{10000};
        std::string applicationName = "Orvel";
    };

    struct Connection;

    // A capture with a connection of its own.
    PulseAudioCapture(Options options, StreamConfiguration configuration, std::shared_ptr<StreamDelegate> delegate);
    PulseAudioCapture(std::shared_ptr<Connection> connection, StreamConfiguration configuration,
                      std::shared_ptr<StreamDelegate> delegate);
    // Stops the capture. The connection ends with its last owner, and never blocks an executor's
    // thread: on one (a pool worker, or a serial executor's job), or inside a callback of the
    // connection, it leaves the join of the libpulse thread and the freeing to a short-lived thread.
    ~PulseAudioCapture() override;

    // Blocks until every connection handed to a short-lived thread has been freed and its libpulse
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
    // Never blocks: it flags the capture and wakes the libpulse thread, which ends the record stream.
    void stopCapture() override;

    struct Core;

private:
    std::shared_ptr<Connection> connection_;
    std::shared_ptr<Core> core_;
};

// Makes PulseAudioCapture streams with the given options, all on one connection.
class PulseAudioCaptureService final : public CaptureService {
public:
    PulseAudioCaptureService() : PulseAudioCaptureService(PulseAudioCapture::Options{}) {}
    explicit PulseAudioCaptureService(PulseAudioCapture::Options options);

    std::unique_ptr<CaptureStream> makeStream(const StreamConfiguration& configuration,
                                              std::shared_ptr<StreamDelegate> delegate) override;

private:
    std::shared_ptr<PulseAudioCapture::Connection> connection_;
};

}  // namespace orvel::platform
