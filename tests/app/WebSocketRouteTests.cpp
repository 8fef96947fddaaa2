#include "app/WebSocketRoute.h"

#include "app/AudioCaptureTestSupport.h"
#include "app/OrvelMessageHandler.h"
#include "app/StreamCount.h"
#include "async/Async.h"
#include "e2e/Process.h"
#include "http/HTTPServer.h"
#include "websocket/WSTestSupport.h"
#include "net/Socket.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
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

class NoMessages final : public http::WSMessageHandler {
public:
    async::Task<async::AsyncStream<http::WSMessage>> makeMessages(async::AsyncStream<http::WSMessage>) override {
        auto [stream, continuation] = async::AsyncStream<http::WSMessage>::make();
        continuation.finish();
        co_return std::move(stream);
    }
};

// A loopback connection as the server sees it, its far end opened by the user `uid`: this
// process, or a child that drops to that user before connecting and holds on until the end.
class LoopbackConnection {
public:
    LoopbackConnection(uid_t uid, int family) {
        listener_ = ::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
        timeval guard{30, 0};  // accept waits no longer should the child fail to connect
        ::setsockopt(listener_, SOL_SOCKET, SO_RCVTIMEO, &guard, sizeof guard);
        sockaddr_storage address{};
        socklen_t length = family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
        address.ss_family = static_cast<sa_family_t>(family);
        if (family == AF_INET) reinterpret_cast<sockaddr_in&>(address).sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (family == AF_INET6) reinterpret_cast<sockaddr_in6&>(address).sin6_addr = in6addr_loopback;
        EXPECT_EQ(::bind(listener_, reinterpret_cast<sockaddr*>(&address), length), 0);
        EXPECT_EQ(::listen(listener_, 1), 0);
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
        if (uid == ::geteuid()) {
            client_ = ::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
            EXPECT_EQ(::connect(client_, reinterpret_cast<sockaddr*>(&address), length), 0);
        } else {
            int hold[2];
            EXPECT_EQ(::pipe2(hold, O_CLOEXEC), 0);
            child_ = ::fork();
            if (child_ == 0) {  // only system calls from here on
                char byte;
                // The socket belongs to whoever creates it: drop to the user first.
                bool ok = ::setuid(uid) == 0;
                int fd = ok ? ::socket(family, SOCK_STREAM, 0) : -1;
                ok = ok && ::connect(fd, reinterpret_cast<sockaddr*>(&address), length) == 0;
                ::close(hold[1]);
                if (ok) ::read(hold[0], &byte, 1);  // until the parent closes its end
                ::_exit(ok ? 0 : 1);
            }
            ::close(hold[0]);
            hold_ = hold[1];
        }
        server_ = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        EXPECT_GE(server_, 0);
    }
    ~LoopbackConnection() {
        for (int fd : {server_, client_, listener_, hold_}) {
            if (fd >= 0) ::close(fd);
        }
        if (child_ > 0) ::waitpid(child_, nullptr, 0);
    }

    // A handshake request that arrived on the connection, with an allowed origin unless another is given.
    http::HTTPRequest request(std::string origin = "http://localhost") const {
        http::HTTPHeaders headers{{"Host", "127.0.0.1:8505"}, {"Upgrade", "websocket"}, {"Connection", "Upgrade"},
                                  {"Sec-WebSocket-Key", "dGhlIHNhbXBsZSBub25jZQ=="}, {"Sec-WebSocket-Version", "13"}};
        if (!origin.empty()) headers.set("Origin", origin);
        http::HTTPRequest request(http::HTTPMethod::GET, http::HTTPVersion::http11, "/", {}, std::move(headers), std::string());
        net::Socket socket(net::Socket::FileDescriptor{server_});
        auto peer = socket.remotePeer(), local = socket.sockname();
        auto make = peer.kind == net::Socket::Address::Kind::ip4 ? http::HTTPRequest::Address::ip4 : http::HTTPRequest::Address::ip6;
        request.remoteAddress = make(peer.text, peer.port);
        request.localAddress = make(local.text, local.port);
        return request;
    }

private:
    int listener_ = -1, client_ = -1, server_ = -1, hold_ = -1;
    pid_t child_ = -1;
};

// Refused before the handshake is looked at: a bare 403 and the reason in the log.
TEST(WebSocketRoute, AForeignUserOrAMissingOrForeignOriginIsABareForbidden) {
    LoopbackConnection own(::geteuid(), AF_INET), own6(::geteuid(), AF_INET6);
    std::optional<LoopbackConnection> other, other6;
    if (::geteuid() == 0) {  // only root can make a connection of another user
        other.emplace(65534, AF_INET);  // nobody
        other6.emplace(65534, AF_INET6);
    }
    http::HTTPRequest unknown = own.request();
    unknown.localAddress.reset();
    const std::string foreignUser = "error: Connection from user 65534 is not allowed, rejecting WebSocket connection.";
    const std::pair<std::optional<http::HTTPRequest>, std::string> cases[] = {
        {own.request(""), "error: Origin header is not present, rejecting WebSocket connection."},
        {own.request("http://localhost.evil.example"),
         "error: Origin http://localhost.evil.example is not allowed, rejecting WebSocket connection."},
        {unknown, "error: Could not tell the user of the connection (no connection addresses), rejecting WebSocket connection."},
        {other ? std::optional(other->request()) : std::nullopt, foreignUser},
        {other6 ? std::optional(other6->request()) : std::nullopt, foreignUser},
    };
    for (const auto& [request, line] : cases) {
        if (!request) continue;
        auto logger = std::make_shared<test::RecordingLogger>();
        auto response = async::syncWait(handleWebSocketRoute(*request, std::make_shared<NoMessages>(), logger));
        EXPECT_EQ(response.statusCode, http::HTTPStatusCode::forbidden) << line;
        EXPECT_EQ(response.version, http::HTTPVersion::http11);
        EXPECT_TRUE(response.headers.empty());
        EXPECT_TRUE(async::syncWait(response.bodyData()).empty());
        EXPECT_THAT(logger->lines(), ::testing::ElementsAre(line));
    }
    // This user's connection with an allowed origin goes on to the handshake.
    for (const LoopbackConnection* connection : {&own, &own6}) {
        auto logger = std::make_shared<test::RecordingLogger>();
        auto response = async::syncWait(handleWebSocketRoute(connection->request(), std::make_shared<NoMessages>(), logger));
        EXPECT_EQ(response.statusCode, http::HTTPStatusCode::switchingProtocols);
        EXPECT_TRUE(logger->lines().empty());
    }
    if (!other) GTEST_SKIP() << "not root: no connection of another user to refuse";
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

    http::WSLoopbackClient page(server.listeningAddress()->port, 4096);
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
