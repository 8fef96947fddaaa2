#pragma once
#include "app/AudioCapture.h"
#include "async/AsyncStream.h"
#include "async/Task.h"
#include "websocket/WSMessage.h"
#include "websocket/WSMessageHandler.h"
#include "net/Logging.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>

namespace orvel {

// How a stream gets its capture: startAudioCapture in the application; tests pass a fake.
using CaptureStart = std::function<async::Task<AudioCaptureStream>(std::int64_t sampleRate)>;

// A page that has not sent its configuration within this time is refused like one that sent
// an invalid one.
inline constexpr std::chrono::seconds defaultConfigurationTimeout{60};

// The WebSocket behind the catch-all route: the page's first message configures a capture,
// whose 16-bit samples go back as data messages of 100 ms each until the capture or the
// connection ends. Shared by every connection; each gets its own streaming task.
class OrvelMessageHandler final : public http::WSMessageHandler {
public:
    // The machine's capture, one per rate shared by all its connections, and the application's log.
    OrvelMessageHandler();
    OrvelMessageHandler(CaptureStart startCapture, net::Logger logger,
                        std::chrono::nanoseconds configurationTimeout = defaultConfigurationTimeout);

    // Returns the outgoing messages at once; a spawned streamAudio fills them. When the consumer
    // drops the outgoing sequence (the connection closed) the task is cancelled. With
    // setSendBudget, a connection may hold 10 s of its stream's audio for a page that does not
    // read.
    async::Task<http::WSOutgoingMessages> makeMessages(http::WSIncomingMessages incoming) override;
    async::Task<http::WSOutgoingMessages> makeMessages(http::WSIncomingMessages incoming,
                                                                  SetSendBudget setSendBudget) override;

    // The server is shutting down: every connection's messages end with close 1001 "Going away",
    // and so do those of connections made from now on. Any thread.
    void goAway();

    struct Connections;

private:
    std::shared_ptr<Connections> connections_;
    CaptureStart startCapture_;
    net::Logger logger_;
    std::chrono::nanoseconds configurationTimeout_;
};

// One connection's stream: reads the configuration (waiting at most configurationTimeout),
// counts itself in currentStreamCount while capturing, drops every later incoming message, cuts
// the capture's bytes into messages of (rate / 10) x 2 bytes, sends a shorter last one when the
// capture ends normally, and finishes `outgoing`. Never throws.
async::Task<void> streamAudio(http::WSIncomingMessages incoming, http::WSOutgoingMessages::Continuation outgoing, CaptureStart startCapture,
                              net::Logger logger,
                              std::chrono::nanoseconds configurationTimeout = defaultConfigurationTimeout,
                              http::WSMessageHandler::SetSendBudget setSendBudget = nullptr);

}  // namespace orvel
