#include "app/OrvelMessageHandler.h"

#include "app/AppLogger.h"
#include "app/AudioCaptureConfig.h"
#include "app/AudioCaptureError.h"
#include "app/CaptureHub.h"
#include "app/StreamCount.h"
#include "async/Error.h"
#include "async/Sleep.h"
#include "async/Spawn.h"
#include "async/TaskGroup.h"

#include <exception>
#include <map>
#include <mutex>
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

// Seconds of audio a page that does not read may leave unsent before it is dropped.
constexpr std::int64_t sendBudgetSeconds = 10;

async::Task<std::optional<WSMessage>> nextMessage(http::WSIncomingMessages* incoming) {
    co_return co_await incoming->next();
}

async::Task<std::optional<WSMessage>> nothingAfter(std::chrono::nanoseconds limit) {
    co_await async::sleep(limit);
    co_return std::nullopt;
}

// The first message, or nothing when none comes within `limit`.
async::Task<std::optional<WSMessage>> firstMessage(http::WSIncomingMessages& incoming,
                                                   std::chrono::nanoseconds limit) {
    async::TaskGroup<std::optional<WSMessage>> race;
    race.add(nextMessage(&incoming));
    race.add(nothingAfter(limit));
    auto first = co_await race.nextResult();
    race.cancelAll();
    (void)co_await race.nextResult();
    if (!first || first->hasError()) co_return std::nullopt;
    co_return first->get();
}

// Later messages change nothing, but unread they would pile up for the connection's life.
async::Task<void> dropMessages(http::WSIncomingMessages incoming) {
    while (auto message = co_await incoming.next()) {
    }
}

}  // namespace

// The outgoing messages of the connections that are open, for goAway.
struct OrvelMessageHandler::Connections {
    using Outgoing = http::WSOutgoingMessages::Continuation;
    std::mutex mutex;
    bool goingAway = false;
    std::uint64_t nextId = 0;
    std::map<std::uint64_t, Outgoing> open;
};

// One capture service for all connections: one sound-server connection for the whole app.
OrvelMessageHandler::OrvelMessageHandler()
    : OrvelMessageHandler([hub = std::make_shared<CaptureHub>(AudioCaptureEnvironment::standard())](
                              std::int64_t rate) { return hub->start(rate); },
                          appLogger()) {}

OrvelMessageHandler::OrvelMessageHandler(CaptureStart startCapture, net::Logger logger,
                                         std::chrono::nanoseconds configurationTimeout)
    : connections_(std::make_shared<Connections>()),
      startCapture_(std::move(startCapture)),
      logger_(std::move(logger)),
      configurationTimeout_(configurationTimeout) {}

void OrvelMessageHandler::goAway() {
    std::map<std::uint64_t, Connections::Outgoing> open;
    {
        std::lock_guard lock(connections_->mutex);
        connections_->goingAway = true;
        open.swap(connections_->open);
    }
    // The close goes after whatever the stream has yielded; what it yields later is dropped.
    for (auto& [id, outgoing] : open) {
        outgoing.yield(WSMessage::close(1001, "Going away"));
        outgoing.finish();
    }
}

async::Task<http::WSOutgoingMessages> OrvelMessageHandler::makeMessages(http::WSIncomingMessages incoming) {
    return makeMessages(std::move(incoming), nullptr);
}

async::Task<http::WSOutgoingMessages> OrvelMessageHandler::makeMessages(http::WSIncomingMessages incoming,
                                                                             SetSendBudget setSendBudget) {
    auto [messages, continuation] = http::WSOutgoingMessages::make();
    std::uint64_t id = 0;
    bool goingAway = false;
    {
        std::lock_guard lock(connections_->mutex);
        goingAway = connections_->goingAway;
        id = connections_->nextId++;
        if (!goingAway) connections_->open.emplace(id, continuation);
    }
    if (goingAway) {
        continuation.yield(WSMessage::close(1001, "Going away"));
        continuation.finish();
        co_return std::move(messages);
    }
    auto task = async::spawn(streamAudio(std::move(incoming), continuation, startCapture_, logger_,
                                         configurationTimeout_, std::move(setSendBudget)));
    continuation.onTermination([task, id, connections = std::weak_ptr(connections_)](async::Termination) {
        task.cancel();
        if (auto list = connections.lock()) {
            std::lock_guard lock(list->mutex);
            list->open.erase(id);
        }
    });
    co_return std::move(messages);
}

async::Task<void> streamAudio(http::WSIncomingMessages incoming, http::WSOutgoingMessages::Continuation outgoing,
                              CaptureStart startCapture, net::Logger logger, std::chrono::nanoseconds configurationTimeout,
                              http::WSMessageHandler::SetSendBudget setSendBudget) {
    auto configuration = decodeConfiguration(co_await firstMessage(incoming, configurationTimeout));
    if (!configuration) {
        logger->logError("Could not parse configuration, closing WebSocket connection.");
        outgoing.yield(WSMessage::close(1007, "Invalid configuration"));
        outgoing.finish();
        co_return;
    }

    async::TaskGroup<void> draining;
    draining.add(dropMessages(std::move(incoming)));

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
        // The capture took the rate, so it is small enough to multiply.
        if (setSendBudget) setSendBudget(static_cast<std::size_t>(rate) * 2 * sendBudgetSeconds);
        while (auto bytes = co_await capture.next()) {
            if (buffer.empty() && bytes->size() == chunk) {  // the shared capture's chunks: no copy
                outgoing.yield(WSMessage::data(std::move(*bytes)));
                continue;
            }
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
        outgoing.yield(WSMessage::close(1011, "Audio capture failed"));
    }
    outgoing.finish();
    count.decrement();
    draining.cancelAll();
    (void)co_await draining.nextResult();
}

}  // namespace orvel
