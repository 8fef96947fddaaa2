#include "websocket/WSConnectionIncomingFrames.h"

#include "http/HTTPConnection.h"
#include "websocket/WSFrameEncoder.h"
#include "websocket/WSFrameValidator.h"
#include "async/Sleep.h"
#include "async/Spawn.h"
#include "net/SocketError.h"

#include <sys/socket.h>

#include <chrono>
#include <cstdint>
#include <exception>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace orvel::http {

namespace {

// Gathering stops once a write holds this much; the rest goes in the next one.
constexpr std::size_t maxWriteBytes = 256 * 1024;
// What a connection's write buffer may keep between writes: several of the usual messages.
constexpr std::size_t keptWriteCapacity = 64 * 1024;

// A peer that took too little to stay within its budget gets this long to take the rest and the
// close frame; then its socket is shut down, so a page that never reads again holds nothing.
constexpr auto overflowGrace = std::chrono::seconds(5);

// The connection's descriptor for a late shutdown, until serving ends (then the number may
// belong to someone else).
struct ShutdownGuard {
    std::mutex mutex;
    int file;
    bool serving = true;
    std::optional<async::TaskHandle<void>> timer;
};

async::Task<void> shutDownAfterGrace(std::shared_ptr<ShutdownGuard> guard) {
    try {
        co_await async::sleep(overflowGrace);
    } catch (const async::CancellationError&) {
        co_return;
    }
    std::lock_guard lock(guard->mutex);
    // Its waits then fail, and the connection ends as a failed write.
    if (guard->serving) ::shutdown(guard->file, SHUT_RDWR);
}

}  // namespace

async::Task<std::optional<WSFrame>> WSConnectionIncomingFrames::next() {
    {
        std::lock_guard lock(mutex_);
        if (stopped_) co_return std::nullopt;
        reading_ = true;
    }
    std::optional<WSFrame> frame;
    std::exception_ptr failure;
    try {
        // A frame over the message limit is refused before its payload is read: the limit
        // bounds what one connection can make us hold.
        frame = co_await WSFrameEncoder::decode(reader_, WSFrameValidator::maxMessageSize,
                                                WSFrameEncoder::Masking::required);
    } catch (const net::SocketError& error) {
        if (error.kind() != net::SocketError::Kind::disconnected) failure = std::current_exception();
    } catch (...) {
        failure = std::current_exception();
    }
    std::optional<async::Continuation<void>> waiter;
    {
        std::lock_guard lock(mutex_);
        reading_ = false;
        waiter = std::exchange(stopWaiter_, std::nullopt);
    }
    if (waiter) waiter->resume();
    if (failure) std::rethrow_exception(failure);
    co_return frame;
}

async::Task<void> WSConnectionIncomingFrames::stop() {
    co_await async::withCheckedContinuation<void>([this](async::Continuation<void> continuation) {
        std::lock_guard lock(mutex_);
        stopped_ = true;
        if (reading_) stopWaiter_ = continuation;
        else continuation.resume();
    });
}

async::Task<void> serveWebSocket(HTTPConnection& connection, WSHandler& handler, std::string header) {
    auto incoming = std::make_shared<WSConnectionIncomingFrames>(connection.reader());
    std::optional<WSOutgoingFrames> frames(co_await handler.makeFrames(incoming));
    auto guard = std::make_shared<ShutdownGuard>();
    guard->file = connection.socket().file.rawValue;
    frames->onOverflow([logger = connection.logger(), host = connection.hostname(), guard](std::size_t budget) {
        logger->logWarning([&] {
            return "<" + host + "> WebSocket client too slow: more than " + std::to_string(budget) +
                   " bytes not sent, closing the connection";
        });
        std::lock_guard lock(guard->mutex);
        if (guard->serving) guard->timer = async::spawn(shutDownAfterGrace(guard));
    });

    std::exception_ptr failure;
    try {
        co_await connection.write(header);
        connection.logger()->logInfo(
            [&] { return "<" + connection.hostname() + "> switching protocol to websocket"; });
        connection.complete();

        std::vector<std::uint8_t> bytes;  // reused: writing frames allocates nothing here
        for (;;) {
            // Waiting (a coroutine of its own) only when nothing is ready.
            std::optional<WSFrame> frame = frames->tryNext();
            if (!frame) frame = co_await frames->next();
            if (!frame) break;
            bytes.clear();
            WSFrameEncoder::encode(*frame, bytes);
            // Frames that are ready as well go out in the same write: one system call for a
            // burst instead of one per frame.
            while (bytes.size() < maxWriteBytes) {
                auto more = frames->tryNext();
                if (!more) break;
                WSFrameEncoder::encode(*more, bytes);
            }
            co_await connection.write({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
            frames->written(bytes.size());
            // A burst (a page that stalled for a while) must not leave every connection holding
            // its largest buffer for life: a thousand pages would keep a burst's worth each.
            if (bytes.capacity() > keptWriteCapacity) bytes = {};
        }
    } catch (...) {
        failure = std::current_exception();
    }
    // Dropping the frames stops whatever produces them. A read may still be waiting on the
    // socket; shutting the read side down ends it (it sees the end of the bytes), so that
    // nothing touches the connection once it is closed.
    frames.reset();
    std::optional<async::TaskHandle<void>> timer;
    {
        std::lock_guard lock(guard->mutex);
        guard->serving = false;
        timer = std::exchange(guard->timer, std::nullopt);
    }
    if (timer) timer->cancel();
    ::shutdown(connection.socket().file.rawValue, SHUT_RD);
    co_await incoming->stop();
    if (failure) std::rethrow_exception(failure);
}

// Here rather than in WSHandler.cpp: the hand-over is this file's work. The response that holds
// the handler lives until the connection's send() returns, so `*this` outlives the task.
async::Task<void> WSHandler::takeOver(HTTPConnection& connection, std::string header) {
    return serveWebSocket(connection, *this, std::move(header));
}

}  // namespace orvel::http
