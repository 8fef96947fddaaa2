#include "app/WebSocketRoute.h"

#include "app/AudioCaptureTestSupport.h"
#include "async/Async.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

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

}  // namespace
}  // namespace orvel
