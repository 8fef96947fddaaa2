// WebSocket over real loopback connections, talked to by a plain blocking client and by the npm
// ws package as an independent peer.
#include "http/HTTPServer.h"

#include "WSTestSupport.h"
#include "async/Spawn.h"
#include "e2e/Process.h"
#include "websocket/MessageFrameWSHandler.h"
#include "websocket/WebSocketHTTPHandler.h"
#include "net/FdLeakCheck.h"
#include "net/PoolTesting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <tuple>
#include <vector>

namespace orvel::http {
namespace {

using Opcode = WSFrame::Opcode;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

async::Task<void> echo(WSIncomingMessages incoming, WSOutgoingMessages::Continuation out) {
    while (auto message = co_await incoming.next()) out.yield(std::move(*message));
    out.finish();
}

// Echoes every message, or says "bye" and is done, or cannot start.
class Application final : public WSMessageHandler {
public:
    enum class Kind { echo, bye, refuse };
    explicit Application(Kind kind) : kind_(kind) {}
    struct Refused final : async::Error {
        Refused() : async::Error("no messages today") {}
    };
    async::Task<WSOutgoingMessages> makeMessages(WSIncomingMessages incoming) override {
        if (kind_ == Kind::refuse) throw Refused();
        auto [out, producer] = WSOutgoingMessages::make();
        if (kind_ == Kind::echo) {
            (void)async::spawn(echo(std::move(incoming), producer));
        } else {
            producer.yield(WSMessage::text("bye"));
            producer.finish();
        }
        co_return std::move(out);
    }

private:
    Kind kind_;
};

// A server on 127.0.0.1 with a free port, answering every request with the handler.
class Server {
public:
    explicit Server(Application::Kind kind = Application::Kind::echo,
                    std::size_t maxSendBacklog = WSOutgoingFrames::defaultMaxBacklog)
        : server_(net::AnySocketAddress(net::inet("127.0.0.1", 0)), 15, HTTPServer::defaultPool(logger_), logger_,
                  std::make_shared<WebSocketHTTPHandler>(
                      std::make_shared<MessageFrameWSHandler>(std::make_shared<Application>(kind), 16384, maxSendBacklog),
                      std::unordered_set<HTTPMethod>{HTTPMethod::GET})) {
        running_ = async::spawn(server_.run());
        async::syncWait(server_.waitUntilListening(hangGuard.count()));
    }
    ~Server() {
        async::syncWait(server_.stop(5));
        (void)test::errorOf([&] { running_.wait(); });
    }

    std::uint16_t port() const { return server_.listeningAddress()->port; }
    const RecordingLogger& log() const { return *logger_; }

private:
    std::shared_ptr<RecordingLogger> logger_ = std::make_shared<RecordingLogger>();
    HTTPServer server_;
    async::TaskHandle<void> running_;
};

class WebSocketLoopback : public ::testing::Test {
protected:
    test::FdSnapshot descriptors_;  // first in, last out: checked after the server has stopped
};

// Whole messages of every size are echoed to the node peer below; here, what it does not show.
TEST_F(WebSocketLoopback, AFragmentedMessageRoundTripsAfterTheHandshakeWithAPingAnsweredBetween) {
    Server server;
    WSLoopbackClient client(server.port());
    std::string head = client.handshake();
    EXPECT_THAT(head, ::testing::StartsWith("HTTP/1.1 101 Switching Protocols\r\n"));
    EXPECT_THAT(head, Not(HasSubstr("Content-Length")));
    EXPECT_THAT(head, Not(HasSubstr("Transfer-Encoding")));
    EXPECT_EQ(server.log().waitFor("switching protocol"), "info: <127.0.0.1> switching protocol to websocket");

    // A fragmented message with a pong and a ping between its fragments.
    client.sendFrame(frame(Opcode::text, false, bytesOf("frag")));
    client.sendFrame(frame(Opcode::pong, true, {9}));  // ignored
    client.sendFrame(frame(Opcode::ping, true, {1, 2}));
    EXPECT_EQ(client.readFrame(), frame(Opcode::pong, true, {1, 2})) << "answered before the message is complete";
    client.sendFrame(frame(Opcode::continuation, false, bytesOf("ment")));
    client.sendFrame(frame(Opcode::continuation, true, bytesOf("ed")));
    EXPECT_EQ(client.readFrame(), frame(Opcode::text, true, bytesOf("fragmented")));
}

// The rules the connection itself checks, before any frame reaches the handler (whose rules are
// unit-tested on frames): each ends the connection with a protocol error.
TEST_F(WebSocketLoopback, AnUnmaskedOrOversizedFrameEndsTheConnectionWithAProtocolError) {
    const std::pair<const char*, Bytes> cases[] = {
        {"unmasked frame", WSFrameEncoder::encode(frame(Opcode::binary, true, {1}))},
        {"message over 16 MiB", {0x82, 0xFF, 0, 0, 0, 0, 0x01, 0, 0, 1, 1, 2, 3, 4}},
    };
    Server server;
    for (const auto& [rule, wire] : cases) {
        WSLoopbackClient client(server.port());
        client.handshake();
        client.send(wire);
        EXPECT_THAT(client.readUntilClosed(), ElementsAre(WSFrame::close("Protocol Error"))) << rule;
    }
}

// Pings answered with pongs, and messages echoed back: either way what the peer does not read
// counts against the budget, and once past it the peer is dropped even if it never reads again
// (with a budget larger than the socket buffers, a write is then stuck when the budget runs out).
TEST_F(WebSocketLoopback, APeerThatFloodsAndNeverReadsIsDroppedOnceItsRepliesPassTheBudget) {
    struct Flood {
        Opcode opcode;
        std::size_t size;
        std::size_t budget;
        int pauseMilliseconds;  // between bursts: lets the socket buffers fill before the budget runs out
    };
    for (const auto& [opcode, size, budget, pause] :
         {Flood{Opcode::ping, 125, 256 * 1024, 0}, Flood{Opcode::binary, 60000, 8 << 20, 1}}) {
        SCOPED_TRACE(size);
        Server server(Application::Kind::echo, budget);
        WSLoopbackClient client(server.port(), 4096);
        client.handshake();
        const Bytes frame = WSFrameEncoder::encode(
            WSFrame{.opcode = opcode, .mask = WSFrame::Mask{1, 2, 3, 4}, .payload = Bytes(size, 7)});
        std::string burst;
        do burst.append(reinterpret_cast<const char*>(frame.data()), frame.size());
        while (burst.size() < 8192);
        auto tooSlow = [&] {
            auto lines = server.log().lines();
            return std::any_of(lines.begin(), lines.end(), [](const std::string& l) { return l.find("too slow") != l.npos; });
        };
        // As fast as the server takes them, never reading, until it gives up on us (at most 64 MiB).
        std::string_view rest;
        for (std::size_t sent = 0; !tooSlow() && sent < (64u << 20);) {
            if (rest.empty()) {
                rest = burst;
                if (pause > 0) std::this_thread::sleep_for(std::chrono::milliseconds(pause));
            }
            ssize_t n = ::send(client.fd(), rest.data(), rest.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
            if (n > 0) {
                rest.remove_prefix(static_cast<std::size_t>(n));
                sent += static_cast<std::size_t>(n);
            } else {
                pollfd writable{client.fd(), POLLOUT, 0};
                ::poll(&writable, 1, 10);  // the server stopped reading: look at the log again
            }
        }
        EXPECT_EQ(server.log().waitFor("too slow"), "warning: <127.0.0.1> WebSocket client too slow: more than " +
                                                        std::to_string(budget) + " bytes not sent, closing the connection");
        EXPECT_NE(server.log().waitFor("close connection"), "") << "the peer never reads again, yet it must go";
    }
}

TEST_F(WebSocketLoopback, APeerVanishingMidFrameEndsTheConnectionQuietly) {
    Server server;
    {
        WSLoopbackClient client(server.port());
        client.handshake();
        client.send(Bytes{0x82, 0x85, 1, 2, 3, 4, 0xAA});  // five payload bytes announced, one sent
    }
    server.log().waitFor("close connection");
    for (const auto& line : server.log().lines()) EXPECT_THAT(line, Not(HasSubstr("error")));
}

// An application that says "bye" and ends, or one that cannot start (then not even the 101 goes).
TEST_F(WebSocketLoopback, AnApplicationEndingOrFailingToStartClosesTheConnection) {
    const std::tuple<Application::Kind, std::vector<WSFrame>, std::string> cases[] = {
        {Application::Kind::bye, {frame(Opcode::text, true, bytesOf("bye")), WSFrame::close()}, "info: <127.0.0.1> close connection"},
        {Application::Kind::refuse, {}, "error: <127.0.0.1> error: no messages today"},
    };
    for (const auto& [kind, frames, logged] : cases) {
        Server server(kind);
        WSLoopbackClient client(server.port());
        const bool upgraded = !client.handshake().empty();
        EXPECT_EQ(upgraded, kind == Application::Kind::bye);
        EXPECT_EQ(client.readUntilClosed(), frames);
        EXPECT_EQ(server.log().waitFor(logged), logged);
    }
}

TEST_F(WebSocketLoopback, TheNodeWsPeerTalksToUs) {
    const std::string node = test::findProgram("node");
    ASSERT_FALSE(node.empty()) << "node is missing (scripts/setup installs it)";
    Server server;
    auto [status, report] = test::runProgram(
        {node, std::string(ORVEL_SOURCE_DIR) + "/tests/node/echo-check.js", "ws://127.0.0.1:" + std::to_string(server.port()) + "/"},
        {}, hangGuard);
    EXPECT_EQ(status, 0) << report;
    EXPECT_THAT(report, HasSubstr("\"open\":true"));
    for (const char* check : {"text round trip", "binary round trip", "1 MiB round trip", "fragmented send",
                              "ping answered"}) {
        EXPECT_THAT(report, HasSubstr(std::string("{\"name\":\"") + check + "\",\"ok\":true}")) << report;
    }
    // The peer's close is answered like any other: status 1002, "Goodbye".
    EXPECT_THAT(report, HasSubstr("\"close\":{\"code\":1002,\"reason\":\"Goodbye\"}"));
}

}  // namespace
}  // namespace orvel::http
