#include "app/WebSocketRoute.h"

#include "app/AudioCaptureTestSupport.h"
#include "app/OrvelMessageHandler.h"
#include "app/StreamCount.h"
#include "async/Async.h"
#include "e2e/Process.h"
#include "http/ClosureHTTPHandler.h"
#include "http/HTTPServer.h"
#include "websocket/WSTestSupport.h"
#include "net/Socket.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <fstream>
#include <optional>

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

// A loopback connection as the server sees it, its far end opened by the user `uid`: this
// process, or a child that drops to that user before connecting (the socket belongs to whoever
// creates it) and holds on until the end.
class LoopbackConnection {
public:
    LoopbackConnection(uid_t uid, net::AnySocketAddress address) {
        const int family = address.storage.ss_family;
        test::Fd listener(::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0));
        timeval guard{30, 0};  // accept waits no longer should the child fail to connect
        ::setsockopt(listener.get(), SOL_SOCKET, SO_RCVTIMEO, &guard, sizeof guard);
        EXPECT_EQ(::bind(listener.get(), net::addressPointer(address), net::size(address)), 0);
        EXPECT_EQ(::listen(listener.get(), 1), 0);
        socklen_t length = net::size(address);
        ::getsockname(listener.get(), reinterpret_cast<sockaddr*>(&address.storage), &length);  // now with its port
        if (uid == ::geteuid()) {
            client_ = test::Fd(::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0));
            EXPECT_EQ(::connect(client_.get(), net::addressPointer(address), length), 0);
        } else {
            const auto bound = net::Socket(net::Socket::FileDescriptor{listener.get()}).sockname();
            child_.emplace(std::vector<std::string>{test::findProgram("setpriv"), "--reuid=" + std::to_string(uid),
                                                    "--regid=" + std::to_string(uid), "--clear-groups", "/usr/bin/python3",
                                                    "-c", "import socket, sys, time\n"
                                                    "held = socket.create_connection((sys.argv[1], int(sys.argv[2])))\n"
                                                    "time.sleep(600)\n",
                                                    bound.text, std::to_string(bound.port)},
                           test::ChildProcess::Options{});
        }
        server_ = test::Fd(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
        EXPECT_TRUE(server_) << (child_ ? child_->output() : std::strerror(errno));
    }

    // A handshake request that arrived on the connection, with an allowed origin unless another is given.
    http::HTTPRequest request(std::string origin = "http://localhost") const {
        http::HTTPHeaders headers{{"Host", "127.0.0.1:8505"}, {"Upgrade", "websocket"}, {"Connection", "Upgrade"},
                                  {"Sec-WebSocket-Key", "dGhlIHNhbXBsZSBub25jZQ=="}, {"Sec-WebSocket-Version", "13"}};
        if (!origin.empty()) headers.set("Origin", origin);
        http::HTTPRequest request(http::HTTPMethod::GET, http::HTTPVersion::http11, "/", {}, std::move(headers), std::string());
        net::Socket socket(net::Socket::FileDescriptor{server_.get()});
        auto peer = socket.remotePeer(), local = socket.sockname();
        auto make = peer.kind == net::Socket::Address::Kind::ip4 ? http::HTTPRequest::Address::ip4 : http::HTTPRequest::Address::ip6;
        request.remoteAddress = make(peer.text, peer.port);
        request.localAddress = make(local.text, local.port);
        return request;
    }

private:
    std::optional<test::ChildProcess> child_;  // last out: the server's end is closed before the child is ended
    test::Fd client_, server_;
};

// Refused before the handshake is looked at: a bare 403 and the reason in the log.
TEST(WebSocketRoute, AForeignUserOrAMissingOrForeignOriginIsABareForbidden) {
    const net::AnySocketAddress ip4(net::inet("127.0.0.1", 0)), ip6(net::loopback(0));
    LoopbackConnection own(::geteuid(), ip4), own6(::geteuid(), ip6);
    std::optional<LoopbackConnection> other, other6;
    if (::geteuid() == 0) {  // only root can make a connection of another user
        other.emplace(65534, ip4);  // nobody
        other6.emplace(65534, ip6);
    }
    http::HTTPRequest unknown = own.request();
    unknown.localAddress.reset();
    const std::string foreignUser = "error: Connection from user 65534 is not allowed, rejecting WebSocket connection.";
    // No line: this user's connection with an allowed origin goes on to the handshake.
    const std::pair<std::optional<http::HTTPRequest>, std::string> cases[] = {
        {own.request(), ""},
        {own6.request(), ""},
        {own.request(""), "error: Origin header is not present, rejecting WebSocket connection."},
        {own.request("http://localhost.evil.example"),
         "error: Origin http://localhost.evil.example is not allowed, rejecting WebSocket connection."},
        {unknown, "error: Could not tell the user of the connection (no connection addresses), rejecting WebSocket connection."},
        {other ? std::optional(other->request()) : std::nullopt, foreignUser},
        {other6 ? std::optional(other6->request()) : std::nullopt, foreignUser},
    };
    for (const auto& [request, line] : cases) {
        if (!request) continue;
        SCOPED_TRACE(line);
        auto logger = std::make_shared<test::RecordingLogger>();
        auto messages = std::make_shared<OrvelMessageHandler>(test::startingWith(std::make_shared<test::FakeCapture>()), logger);
        auto response = async::syncWait(handleWebSocketRoute(*request, messages, logger));
        if (line.empty()) {
            EXPECT_EQ(response.statusCode, http::HTTPStatusCode::switchingProtocols);
            EXPECT_THAT(logger->lines(), ::testing::IsEmpty());
            continue;
        }
        EXPECT_EQ(response.statusCode, http::HTTPStatusCode::forbidden);
        EXPECT_EQ(response.version, http::HTTPVersion::http11);
        EXPECT_TRUE(response.headers.empty());
        EXPECT_TRUE(async::syncWait(response.bodyData()).empty());
        EXPECT_THAT(logger->lines(), ::testing::ElementsAre(line));
    }
    if (!other) GTEST_SKIP() << "not root: no connection of another user to refuse";
}

std::size_t residentBytes() {
    std::ifstream statm("/proc/self/statm");
    std::size_t pages = 0, resident = 0;
    statm >> pages >> resident;
    return resident * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
}

TEST(WebSocketRoute, APageThatStopsReadingIsDroppedOnceTenSecondsOfItsAudioAreUnsent) {
    constexpr std::size_t rate = 384000, budget = rate * 2 * 10;
    auto fake = std::make_shared<test::FakeCapture>([](const AudioCaptureDelegate::Bytes& b) { return b.size(); });
    auto& feed = *fake->feed;
    auto logger = std::make_shared<http::RecordingLogger>();
    auto messages = std::make_shared<OrvelMessageHandler>(test::startingWith(fake), logger);
    http::HTTPServer server(net::AnySocketAddress(net::inet("127.0.0.1", 0)), 15, http::HTTPServer::defaultPool(logger),
                            logger, std::make_shared<http::ClosureHTTPHandler>([messages, logger](http::HTTPRequest request) {
                                return handleWebSocketRoute(std::move(request), messages, logger);  // the app's catch-all route
                            }));
    auto running = async::spawn(server.run());
    async::syncWait(server.waitUntilListening(30));

    http::WSLoopbackClient page(server.listeningAddress()->port, 4096);
    page.send("GET / HTTP/1.1\r\nHost: 127.0.0.1\r\nOrigin: http://localhost\r\nUpgrade: websocket\r\n"
              "Connection: Upgrade\r\nSec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n");
    ASSERT_THAT(page.response(), ::testing::StartsWith("HTTP/1.1 101 "));
    page.sendFrame(http::frame(http::WSFrame::Opcode::text, true, http::bytesOf(R"({"type":"loopback","sample_rate":384000})")));
    ASSERT_TRUE(test::waitUntil([&] { return currentStreamCount().value() == 1; }));

    // 100 ms of audio at a time, each taken by the stream before the next, while the page reads
    // nothing; at most 80 s of it (61 MB), eight times the budget.
    const std::size_t before = residentBytes();
    std::size_t peak = before;
    for (int piece = 0; piece < 800 && !fake->terminated->load(); ++piece) {
        feed.yield(AudioCaptureDelegate::Bytes(rate / 10 * 2, 0x5A));
        async::syncWait(feed.waitUntilBufferedAtMost(0));
        peak = std::max(peak, residentBytes());
    }
    EXPECT_EQ(logger->waitFor("too slow"), "warning: <127.0.0.1> WebSocket client too slow: more than " +
                                               std::to_string(budget) + " bytes not sent, closing the connection");
#ifndef __SANITIZE_ADDRESS__  // its quarantine keeps freed memory resident
    // The budget's worth queued, the pieces on their way, and what two threads' allocators keep
    // (on a loaded machine up to 14 MB in all were seen); without the budget it is all 61 MB.
    EXPECT_LT(peak - before, 3 * budget) << "resident growth while the page did not read";
#endif
    auto frames = page.readUntilClosed();
    ASSERT_FALSE(frames.empty());
    EXPECT_EQ(frames.back(), http::WSFrame::close(1008, "Client too slow"));
    for (std::size_t i = 0; i + 1 < frames.size(); ++i) EXPECT_NE(frames[i].opcode, http::WSFrame::Opcode::close);
    EXPECT_TRUE(test::waitUntil([&] { return fake->terminated->load() && currentStreamCount().value() == 0; }));
    async::syncWait(server.stop(5));
    running.wait();
}

}  // namespace
}  // namespace orvel
