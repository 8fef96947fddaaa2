#include "websocket/WebSocketHTTPHandler.h"

#include "WSTestSupport.h"
#include "async/Spawn.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace orvel::http {
namespace {

class SilentHandler final : public WSMessageHandler {
public:
    async::Task<WSOutgoingMessages> makeMessages(WSIncomingMessages) override {
        co_return WSOutgoingMessages::make().stream;
    }
};

const HTTPHeaders validHeaders{{"Host", "127.0.0.1:8505"}, {"Upgrade", "websocket"}, {"Connection", "Upgrade"},
                               {"Sec-WebSocket-Key", "dGhlIHNhbXBsZSBub25jZQ=="}, {"Sec-WebSocket-Version", "13"}};

WebSocketHTTPHandler messageHandler() { return WebSocketHTTPHandler(std::make_shared<SilentHandler>(), 16384); }

// "101", or the body of a bare 400 answer.
std::string answer(const WebSocketHTTPHandler& handler, HTTPHeaders headers, const HTTPMethod& method = HTTPMethod::GET) {
    auto response = handler.respond(request(method.rawValue, "/", std::move(headers)));
    if (response.statusCode == HTTPStatusCode::switchingProtocols) return "101";
    EXPECT_EQ(response.statusCode, HTTPStatusCode::badRequest);
    EXPECT_TRUE(response.headers.empty());
    auto bytes = response.payload.body() ? response.payload.body()->bytesInMemory() : std::nullopt;
    return bytes ? std::string(*bytes) : "<no body in memory>";
}

HTTPHeaders with(std::string_view name, std::optional<std::string_view> value, HTTPHeaders headers = validHeaders) {
    if (value) headers.set(name, *value);
    else headers.erase(name);
    return headers;
}

TEST(WebSocketHandshake, AcceptsAValidHandshakeWith101AndTheAcceptValue) {
    auto handler = messageHandler();
    auto response = async::syncWait(handler.handleRequest(request("GET", "/", validHeaders)));
    EXPECT_EQ(response.statusCode, HTTPStatusCode::switchingProtocols);
    EXPECT_EQ(response.headers, (HTTPHeaders{{"Connection", "upgrade"}, {"Upgrade", "websocket"},
                                             {"Sec-WebSocket-Accept", "s3pPLMBiTxaQ9kYGzzhZRbK+xOo="}}));
    ASSERT_EQ(response.payload.kind(), HTTPResponse::Payload::Kind::webSocket);
    EXPECT_EQ(*response.payload.webSocketHandler(), handler.handler);
    // Header values as browsers send them.
    EXPECT_EQ(answer(handler, with("Upgrade", "WebSocket", with("Connection", "keep-alive ,\tUPGRADE "))), "101");
    EXPECT_EQ(answer(handler, with("Sec-WebSocket-Key", "AAAAAAAAAAAAAAAAAAAA+w==")), "101");
    // Only the methods given.
    WebSocketHTTPHandler postOnly(handler.handler, {HTTPMethod::POST});
    EXPECT_EQ(answer(postOnly, validHeaders, HTTPMethod::POST), "101");
    EXPECT_EQ(answer(postOnly, validHeaders), "HTTP Request method cannot be upgraded to websocket");
}

TEST(WebSocketHandshake, RefusesEachBrokenRuleWithItsOwnText) {
    const std::string badKey = "Sec-WebSocket-Key header must be 16 bytes encoded as base64";
    const std::string badVersion = "Sec-WebSocket-Version header must be '13'";
    const std::pair<HTTPHeaders, std::string> cases[] = {
        {with("Host", std::nullopt), "Host header must be present"},
        {with("Upgrade", std::nullopt), "Upgrade header must be 'websocket'"},
        {with("Upgrade", "websocket, h2c"), "Upgrade header must be 'websocket'"},
        {with("Connection", std::nullopt), "Connection header must must be present"},
        {with("Connection", "keep-alive"), "Connection header must include 'Upgrade'"},
        {with("Sec-WebSocket-Key", std::nullopt), "Sec-WebSocket-Key header must be present"},
        {with("Sec-WebSocket-Key", "AAAAAAAAAAAAAAAAAAAA"), badKey},      // 15 bytes
        {with("Sec-WebSocket-Key", "AAAAAAAAAAAAAAAAAAAAAAA="), badKey},  // 17 bytes
        {with("Sec-WebSocket-Key", "dGhlIHNhbXBsZSBub25jZQ"), badKey},    // fill missing
        {with("Sec-WebSocket-Key", "dGhlIHNhbXBsZSBub25jZ-_"), badKey},   // URL alphabet
        {with("Sec-WebSocket-Key", "dGhlIHNhbXBsZSBub25j=Q="), badKey},   // fill inside
        {with("Sec-WebSocket-Key", " dGhlIHNhbXBsZSBub25jZQ=="), badKey},
        {with("Sec-WebSocket-Key", "dGhlIHNhbXBs ZSBub25jZQ=="), badKey},
        {with("Sec-WebSocket-Version", std::nullopt), badVersion},
        {with("Sec-WebSocket-Version", "8"), badVersion},
        {with("Sec-WebSocket-Version", " 13"), badVersion},
        // The first broken rule decides.
        {HTTPHeaders{{"Upgrade", "h2c"}, {"Sec-WebSocket-Key", "x"}}, "Host header must be present"},
        {HTTPHeaders{{"Host", "h"}, {"Upgrade", "h2c"}, {"Sec-WebSocket-Key", "x"}}, "Upgrade header must be 'websocket'"},
    };
    auto handler = messageHandler();
    for (const auto& [headers, text] : cases) EXPECT_EQ(answer(handler, headers), text);
    EXPECT_EQ(answer(handler, HTTPHeaders{}, HTTPMethod::POST), "HTTP Request method cannot be upgraded to websocket");
}

}  // namespace
}  // namespace orvel::http
