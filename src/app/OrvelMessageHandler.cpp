#include "app/OrvelMessageHandler.h"

#include "app/AppLogger.h"
#include "app/AudioCaptureConfig.h"
#include "app/AudioCaptureError.h"
#include "app/StreamCount.h"
#include "async/Error.h"
#include "async/Spawn.h"

#include <exception>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace orvel {

namespace {

using http::WSMessage;

std::optional<AudioCaptureConfig> decodeConfiguration(const std::optional<WSMessage>& message) {
    if (!message || !message->isText()) return std::nullopt;
    try {
        return AudioCaptureConfig::decode(std::string_view(message->textValue()));
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

}  // namespace

OrvelMessageHandler::OrvelMessageHandler()
    : OrvelMessageHandler([](std::int64_t rate) { return startAudioCapture(rate); }, appLogger()) {}

OrvelMessageHandler::OrvelMessageHandler(CaptureStart startCapture, net::Logger logger)
    : startCapture_(std::move(startCapture)), logger_(std::move(logger)) {}

async::Task<async::AsyncStream<WSMessage>> OrvelMessageHandler::makeMessages(async::AsyncStream<WSMessage> incoming) {
    auto [messages, continuation] = async::AsyncStream<WSMessage>::make();
    auto task = async::spawn(streamAudio(std::move(incoming), continuation, startCapture_, logger_));
    continuation.onTermination([task](async::Termination) { task.cancel(); });
    co_return std::move(messages);
}

async::Task<void> streamAudio(async::AsyncStream<WSMessage> incoming, async::AsyncStream<WSMessage>::Continuation outgoing,
                              CaptureStart startCapture, net::Logger logger) {
    auto configuration = decodeConfiguration(co_await incoming.next());
    if (!configuration) {
        logger->logError("Could not parse configuration, closing WebSocket connection.");
        outgoing.finish();
        co_return;
    }

    auto& count = currentStreamCount();
    count.increment();

    // Rates of 2^63 and above wrap to negative values here; the capture refuses them like any
    // other rate out of its range.
    const auto rate = static_cast<std::int64_t>(configuration->sampleRate());
    const std::int64_t chunkBytes = (rate / 10) * 2;

    std::exception_ptr failure;
    try {
        // A chunk of 0 bytes would never leave the cutting loop below.
        if (chunkBytes <= 0) throw AudioCaptureError::cannotCreateSourceFormat();
        const auto chunk = static_cast<std::size_t>(chunkBytes);
        std::vector<std::uint8_t> buffer;
        buffer.reserve(2 * chunk);

        auto capture = co_await startCapture(rate);
        while (auto bytes = co_await capture.next()) {
            buffer.insert(buffer.end(), bytes->begin(), bytes->end());
            std::size_t sent = 0;
            while (buffer.size() - sent >= chunk) {
                outgoing.yield(WSMessage::data(std::vector<std::uint8_t>(buffer.begin() + static_cast<std::ptrdiff_t>(sent),
                                                                         buffer.begin() + static_cast<std::ptrdiff_t>(sent + chunk))));
                sent += chunk;
            }
            buffer.erase(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(sent));
        }
        if (!buffer.empty()) outgoing.yield(WSMessage::data(std::move(buffer)));
    } catch (...) {
        failure = std::current_exception();
    }

    if (failure) {
        if (isCapturePermissionRefused(failure)) {
            logger->logError("User didn't grant screen capture permission, closing WebSocket connection.");
        } else {
            logger->logError([&] {
                return "Audio capture failed prematurely (" + async::describe(failure) + "), closing WebSocket connection.";
            });
        }
    }
    outgoing.finish();
    count.decrement();
}

}  // namespace orvel
