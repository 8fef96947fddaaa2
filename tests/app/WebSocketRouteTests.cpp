#include "app/WebSocketRoute.h"

#include "app/AudioCaptureTestSupport.h"
#include "app/OrvelMessageHandler.h"
#include "app/StreamCount.h"
#include "async/Async.h"
#include "e2e/Process.h"
#include "http/HTTPServer.h"
#include "http/HTTPTestSupport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <fstream>

namespace orvel {
namespace {

TEST(OriginTest, AdmitsLocalPagesWithAnyShortPortAndOurOwnSitesOnly) {
    for (const char* origin : {"http://localhost", "http://localhost:3000", "http://localhost:1", "http://localhost:65535",
                               "http://localhost:99999", "https://app.tamrix.com", "http://www.tamrix.com",
                               "null.tamrix.com"})
        EXPECT_TRUE(isAllowedOrigin(origin)) << origin;
    for (const char* origin : {"http://localhost.evil.example", "http://localhostevil.example", "http://localhost:",
                               "http://localhost:123456", "http://localhost:80/", "http://localhost:80a",
                               "http://localhost:8080.evil.example", "https://localhost", "HTTP://LOCALHOST",
                               "http://127.0.0.1:3000", "null", "", "https://tamrix.com", "https://app.tamrix.com.evil",
                               "https://app.TAMRIX.com", "http://evil.example/.tamrix.co"})
        EXPECT_FALSE(isAllowedOrigin(origin)) << origin;
}

class NoMessages final : public http::WSMessageHandler {
public:
    async::Task<async::AsyncStream<http::WSMessage>> makeMessages(async::AsyncStream<http::WSMessage>) override {
        auto [stream, continuation] = async::AsyncStream<http::WSMessage>::make();
        continuation.finish();
        co_return std::move(stream);
    }
};

// Refused before the handshake is looked at: a bare 403 and the reason in the log.
TEST(WebSocketRoute, AMissingOrForeignOriginIsABareForbidden) {
    const std::pair<std::string, std::string> cases[] = {
        {"", "error: Origin header is not present, rejecting WebSocket connection."},
        {"http://localhost.evil.example", "error: Origin http://localhost.evil.example is not allowed, rejecting WebSocket connection."},
    };
    for (const auto& [origin, line] : cases) {
        http::HTTPHeaders headers{{"Host", "127.0.0.1:8505"}, {"Upgrade", "websocket"}, {"Connection", "Upgrade"},
                                  {"Sec-WebSocket-Key", "dGhlIHNhbXBsZSBub25jZQ=="}, {"Sec-WebSocket-Version", "13"}};
        if (!origin.empty()) headers.set("Origin", origin);
        auto logger = std::make_shared<test::RecordingLogger>();
        http::HTTPRequest request(http::HTTPMethod::GET, http::HTTPVersion::http11, "/", {}, std::move(headers), std::string());
        auto response = async::syncWait(handleWebSocketRoute(std::move(request), std::make_shared<NoMessages>(), logger));
        EXPECT_EQ(response.statusCode, http::HTTPStatusCode::forbidden) << origin;
        EXPECT_EQ(response.version, http::HTTPVersion::http11);
        EXPECT_TRUE(response.headers.empty());
        EXPECT_TRUE(async::syncWait(response.bodyData()).empty());
        EXPECT_THAT(logger->lines(), ::testing::ElementsAre(line));
    }
}

// The app's catch-all route on a real server, its capture fed by the test.
class AppRoute final : public http::HTTPHandler {
public:
    AppRoute(std::shared_ptr<http::WSMessageHandler> messages, net::Logger logger)
        : messages_(std::move(messages)), logger_(std::move(logger)) {}
    async::Task<http::HTTPResponse> handleRequest(http::HTTPRequest request) override {
        co_return co_await handleWebSocketRoute(std::move(request), messages_, logger_);
    }

private:
    std::shared_ptr<http::WSMessageHandler> messages_;
    net::Logger logger_;
};

async::Task<AudioCaptureStream> handOver(std::shared_ptr<std::optional<AudioCaptureStream>> stream, std::int64_t) {
    co_return std::move(**stream);
}

std::size_t residentBytes() {
    std::ifstream statm("/proc/self/statm");
    std::size_t pages = 0, resident = 0;
    statm >> pages >> resident;
    return resident * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
}

TEST(WebSocketRoute, APageThatStopsReadingIsDroppedOnceTenSecondsOfItsAudioAreUnsent) {
    constexpr std::size_t rate = 384000, budget = rate * 2 * 10;
    auto [capture, feed] = AudioCaptureStream::make([](const AudioCaptureDelegate::Bytes& b) { return b.size(); });
    auto captureEnded = std::make_shared<std::atomic<bool>>(false);
    feed.onTermination([captureEnded](async::Termination) { *captureEnded = true; });
    auto stream = std::make_shared<std::optional<AudioCaptureStream>>(std::move(capture));
    auto logger = std::make_shared<http::RecordingLogger>();
    auto messages = std::make_shared<OrvelMessageHandler>([stream](std::int64_t r) { return handOver(stream, r); }, logger);
    http::HTTPServer server(net::AnySocketAddress(net::inet("127.0.0.1", 0)), 15, http::HTTPServer::defaultPool(logger),
                            logger, std::make_shared<AppRoute>(messages, logger));
    auto running = async::spawn(server.run());
    async::syncWait(server.waitUntilListening(30));

    http::LoopbackClient page(server.listeningAddress()->port, 4096);
    page.send("GET / HTTP/1.1\r\nHost: 127.0.0.1\r\nOrigin: http://localhost\r\nUpgrade: websocket\r\n"
              "Connection: Upgrade\r\nSec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n");
    ASSERT_THAT(page.response(), ::testing::StartsWith("HTTP/1.1 101 "));
    page.sendFrame(http::frame(http::WSFrame::Opcode::text, true, http::bytesOf(R"({"type":"loopback","sample_rate":384000})")));
    ASSERT_TRUE(test::waitUntil([&] { return currentStreamCount().value() == 1; }));

    // 100 ms of audio at a time, each taken by the stream before the next, while the page reads
    // nothing; at most 40 s of it.
    const std::size_t before = residentBytes();
    std::size_t peak = before;
    for (int piece = 0; piece < 400 && !captureEnded->load(); ++piece) {
        feed.yield(AudioCaptureDelegate::Bytes(rate / 10 * 2, 0x5A));
        async::syncWait(feed.waitUntilBufferedAtMost(0));
        peak = std::max(peak, residentBytes());
    }
    EXPECT_EQ(logger->waitFor("too slow"), "warning: <127.0.0.1> WebSocket client too slow: more than " +
                                               std::to_string(budget) + " bytes not sent, closing the connection");
#ifndef __SANITIZE_ADDRESS__  // its quarantine keeps freed memory resident
    EXPECT_LT(peak - before, budget + 6 * 1024 * 1024) << "resident growth while the page did not read";
#endif
    auto frames = page.readUntilClosed();
    ASSERT_FALSE(frames.empty());
    EXPECT_EQ(frames.back(), http::WSFrame::close(1008, "Client too slow"));
    for (std::size_t i = 0; i + 1 < frames.size(); ++i) EXPECT_NE(frames[i].opcode, http::WSFrame::Opcode::close);
    EXPECT_TRUE(test::waitUntil([&] { return captureEnded->load() && currentStreamCount().value() == 0; }));
    async::syncWait(server.stop(5));
    running.wait();
}

}  // namespace
}  // namespace orvel
