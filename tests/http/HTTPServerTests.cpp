#include "http/HTTPServer.h"

#include "HTTPTestSupport.h"
#include "async/Sleep.h"
#include "async/Spawn.h"
#include "e2e/Process.h"
#include "http/JSONPredicatePattern.h"
#include "net/FdLeakCheck.h"
#include "net/PoolTesting.h"
#include "net/SocketPool.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <sstream>
#include <tuple>
#include <string>
#include <thread>

namespace orvel::http {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;
using namespace std::chrono_literals;
using test::outcome;
using Reply = async::Task<HTTPResponse>;

constexpr char okResponse[] = "HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Length: 3\r\n\r\n412";

class HTTPServerTest : public test::FdLeakCheck {
protected:
    void SetUp() override {
        test::FdLeakCheck::SetUp();
        makeServer();
    }
    // A server of `config` with the test routes; tests change config first.
    void makeServer() {
        server = std::make_unique<HTTPServer>(config);
        server->appendRoute("GET /version", [](HTTPRequest) -> Reply { co_return HTTPResponse(HTTPStatusCode::ok, {}, "412"); });
        server->appendRoute("GET /slow", [](HTTPRequest) -> Reply {
            co_await async::sleep(60s);  // cancelled by the time limit
            co_return HTTPResponse(HTTPStatusCode::ok);
        });
        server->appendRoute("POST /ignore", [](HTTPRequest) -> Reply { co_return HTTPResponse(HTTPStatusCode::accepted); });
        server->appendRoute("POST /echo", [](HTTPRequest request) -> Reply {
            auto bytes = co_await request.bodyData();
            co_return HTTPResponse(HTTPStatusCode::ok, {}, std::string(bytes.begin(), bytes.end()));
        });
    }
    void TearDown() override {
        if (running.isValid()) {
            async::syncWait(server->stop(30));
            EXPECT_EQ(outcome(running), "");
        }
        server.reset();
        test::FdLeakCheck::TearDown();
    }
    void start() {
        running = async::spawn(server->run());
        async::syncWait(server->waitUntilListening(60));
        port = server->listeningAddress()->port;
    }

    std::shared_ptr<RecordingLogger> logger = std::make_shared<RecordingLogger>();
    std::shared_ptr<net::SocketPool> pool = net::SocketPool::make(net::SocketPool::defaultMaxEvents, logger);
    HTTPServer::Configuration config{net::AnySocketAddress(net::inet("127.0.0.1", 0)), 0.5, 1024, pool, logger};
    std::unique_ptr<HTTPServer> server;
    async::TaskHandle<void> running;
    std::uint16_t port = 0;
};

// Each would add a header line of the peer's choosing, or cut the header block short.
const HTTPHeaders::Field unwritableHeaders[] = {{"X", "a\r\nSet-Cookie: b"}, {"X\nY", "a"}, {"X", std::string_view("a\0b", 3)}};

async::Task<HTTPResponse> respondWithUnwritableHeader(HTTPRequest request) {
    const HTTPHeaders::Field& field = unwritableHeaders[request.path.back() - '0'];
    co_return HTTPResponse(HTTPStatusCode::ok, HTTPHeaders{{field.name, field.value}}, "412");
}

// Every response after which the server closes says "Connection: close"; a kept one does not.
TEST_F(HTTPServerTest, AnswersEachRequestAndKeepsTheConnectionOnlyWhenAskedTo) {
    server->appendRoute("GET /inject/:n", respondWithUnwritableHeader);
    start();
    logger->waitFor("info: starting server 127.0.0.1:" + std::to_string(port));
    const std::string unwritten = "HTTP/1.1 500 Internal Server Error\r\nConnection: close\r\nContent-Length: 0\r\n\r\n";
    const std::tuple<std::string, std::string, bool> cases[] = {
        {"GET /version HTTP/1.1\r\nConnection: Keep-Alive\r\n\r\n",
         "HTTP/1.1 200 OK\r\nConnection: Keep-Alive\r\nContent-Length: 3\r\n\r\n412", true},
        {"GET /version HTTP/1.1\r\n\r\n", okResponse, false},
        {"GET /version HTTP/1.1\r\nConnection: close\r\n\r\n", okResponse, false},
        {"GET /version HTTP/1.0\r\n\r\n", okResponse, false},
        {"GET /nothing HTTP/1.1\r\n\r\n", "HTTP/1.1 404 Not Found\r\nConnection: close\r\nContent-Length: 0\r\n\r\n", false},
        // A handler over the time limit: the connection serves on.
        {"GET /slow HTTP/1.1\r\nConnection: keep-alive\r\n\r\n",
         "HTTP/1.1 500 Internal Server Error\r\nConnection: keep-alive\r\nContent-Length: 0\r\n\r\n", true},
        // A response header with a line break or NUL: none of it is written.
        {"GET /inject/0 HTTP/1.1\r\n\r\n", unwritten, false},
        {"GET /inject/1 HTTP/1.1\r\n\r\n", unwritten, false},
        {"GET /inject/2 HTTP/1.1\r\n\r\n", unwritten, false},
    };
    for (const auto& [request, response, kept] : cases) {
        SCOPED_TRACE(request);
        LoopbackClient client(port);
        EXPECT_EQ(client.ask(request), response);
        if (kept) { EXPECT_EQ(client.ask("GET /version HTTP/1.1\r\n\r\n"), okResponse); }
        EXPECT_TRUE(client.closedWithNothingMore());
    }
    logger->waitFor("info: <127.0.0.1> close connection");
    logger->waitFor("error: unhandled request");
    EXPECT_EQ(logger->waitFor("handler error: Task"), "error: handler error: Task timed out before completion. Timeout: 0.5 seconds.");
    EXPECT_EQ(logger->waitFor("handler error: Invalid"), "error: handler error: Invalid Header Field");
    auto lines = logger->lines();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "info: <127.0.0.1> request: GET /version"), 6);
    EXPECT_LT(logger->indexOf("info: <127.0.0.1> open connection"), logger->indexOf("info: <127.0.0.1> close connection"));
}

TEST_F(HTTPServerTest, StopEndsAnIdleKeepAliveConnectionAtOnce) {
    start();
    LoopbackClient client(port);
    EXPECT_THAT(client.ask("GET /version HTTP/1.1\r\nConnection: keep-alive\r\n\r\n"), HasSubstr("412"));
    // The pool parks a task per waiting read or accept: the listener's accept and the
    // connection's next read, so the connection is idle.
    ASSERT_TRUE(test::eventually([&] { return pool->waitingCount() == 2; }));
    async::syncWait(server->stop(30));
    EXPECT_TRUE(client.closedWithNothingMore());
    EXPECT_EQ(outcome(running), "");
    long error = logger->indexOf("error: <127.0.0.1> error: CancellationError()");
    EXPECT_GE(error, 0);
    EXPECT_LT(error, logger->indexOf("info: <127.0.0.1> close connection"));
    EXPECT_FALSE(server->isListening());
}

// A second run fails without disturbing the first.
TEST_F(HTTPServerTest, WaitUntilListeningReturnsOnceListeningAndTimesOutWithoutATraceAndASecondRunFails) {
    EXPECT_EQ(test::errorOf([&] { async::syncWait(server->waitUntilListening(0.05)); }),
              "Task timed out before completion. Timeout: 0.05 seconds.");
    EXPECT_EQ(server->waitingCount(), 0u);

    auto early = async::spawn(server->waitUntilListening(60));
    start();
    EXPECT_EQ(outcome(early), "");
    async::syncWait(server->waitUntilListening(60));  // already listening
    EXPECT_EQ(server->waitingCount(), 0u);
    EXPECT_EQ(test::errorOf([&] { async::syncWait(server->run()); }), "SocketError. UnsupportedAddress");
    logger->waitFor("critical: server error: already started");
    EXPECT_TRUE(server->isListening());
    EXPECT_EQ(LoopbackClient(port).ask("GET /version HTTP/1.1\r\n\r\n"), okResponse);
}

TEST_F(HTTPServerTest, DecodesARequestDeliveredOneBytePerWriteAndEndsQuietlyWhenTheClientLeaves) {
    start();
    {
        LoopbackClient client(port);
        for (char c : std::string("GET /version HTTP/1.1\r\nConnection: keep-alive\r\n\r\n"))
            client.send(std::string_view(&c, 1));
        EXPECT_EQ(client.response(), "HTTP/1.1 200 OK\r\nConnection: keep-alive\r\nContent-Length: 3\r\n\r\n412");
    }
    logger->waitFor("info: <127.0.0.1> close connection");
    for (const std::string& line : logger->lines()) EXPECT_THAT(line, Not(StartsWith("error:")));
}

// The decoder's own limits and malformed inputs are unit-tested; here that one closes the connection.
TEST_F(HTTPServerTest, AnswersPipelinedRequestsInOrderPastAnUnreadBodyAndClosesOnAMalformedOne) {
    start();
    LoopbackClient client(port);
    // 4096 bytes is over the replay size of 1024: streamed, left unread by the handler.
    client.send("GET /nothing HTTP/1.1\r\nConnection: keep-alive\r\n\r\n"
                "POST /ignore HTTP/1.1\r\nConnection: keep-alive\r\nContent-Length: 4096\r\n\r\n" +
                std::string(4096, 'G') + "GET /version HTTP/1.1\r\nConnection: keep-alive\r\n\r\nNONSENSE\r\n\r\n");
    EXPECT_THAT(client.response(), HasSubstr("404 Not Found"));
    EXPECT_THAT(client.response(), HasSubstr("202 Accepted"));
    EXPECT_THAT(client.response(), HasSubstr("412"));
    EXPECT_TRUE(client.closedWithNothingMore());
    EXPECT_EQ(logger->waitFor("No HTTP Method"), "error: <127.0.0.1> error: No HTTP Method");
}

TEST_F(HTTPServerTest, ClosesAPeerThatStallsOrTricklesPastItsLimit) {
    config.requestHeadTimeout = 0.4;
    config.keepAliveTimeout = 0.3;
    config.bodyTimeout = 0.6;
    makeServer();
    start();
    // What the peer sends, and how often it then sends one more byte (0: never).
    const std::string body = "POST /ignore HTTP/1.1\r\nContent-Length: 1000\r\n\r\n";  // drained after the handler, on its clock
    const std::tuple<std::string, std::string, std::chrono::milliseconds, std::string> stalls[] = {
        {"nothing", "", 0ms, "0.4"},
        {"a trickled head", "GET /version HTTP/1.1\r\nX: ", 20ms, "0.4"},
        {"a stalled body", body + "abc", 0ms, "0.6"},
        {"a silent kept-alive connection", "GET /version HTTP/1.1\r\nConnection: keep-alive\r\n\r\n", 0ms, "0.3"},
    };
    for (const auto& [name, sent, every, limit] : stalls) {
        LoopbackClient client(port);
        client.send(sent);
        if (sent.find("keep-alive") != std::string::npos) {
            EXPECT_THAT(client.response(), HasSubstr("412"));
        }
        // A trickle never stops by itself: the server's close ends the loop (the guard, a hang).
        auto guard = std::chrono::steady_clock::now() + hangGuard;
        while (every.count() > 0 && client.sendOne('v') && std::chrono::steady_clock::now() < guard) std::this_thread::sleep_for(every);
        EXPECT_TRUE(client.closedWithNothingMore()) << name;
        logger->waitFor("Timeout: " + limit + " seconds.");
    }
    EXPECT_THAT(logger->waitFor("Timeout: 0.4"), "error: <127.0.0.1> error: Task timed out before completion. Timeout: 0.4 seconds.");
}

// Raw requests, what each answer holds, in order, and whether the client shuts down its side
// after sending. Every connection ends closed; a framing that could be read two ways gets no
// answer at all, so nothing hidden in its body is ever answered.
TEST_F(HTTPServerTest, FramesRequestBodiesWithoutAmbiguity) {
    config.timeout = 60;  // the handler waits for a client that answers "100 Continue"
    makeServer();
    server->appendRoute(HTTPRoute("POST /json", {}, std::make_shared<JSONPredicatePattern>("kind == 'a'")),
                        [](HTTPRequest) -> async::Task<HTTPResponse> { co_return HTTPResponse(HTTPStatusCode::ok, {}, "json"); });
    start();
    const std::string head = "POST /echo HTTP/1.1\r\nConnection: keep-alive\r\n";
    const std::string smuggled = "GET /version HTTP/1.1\r\nConnection: keep-alive\r\n\r\n";
    struct Step {
        std::string send;
        std::vector<std::string> answers;
    };
    const std::tuple<const char*, std::vector<Step>, bool> cases[] = {
        {"chunked, then a next request",
         {{head + "Transfer-Encoding: chunked\r\n\r\n5;name=v\r\nhello\r\n6\r\n world\r\n0\r\nX-Trailer: t\r\n\r\n"
                  "GET /version HTTP/1.1\r\n\r\n",
           {"\r\n\r\nhello world", "412"}}},
         false},
        {"chunked and unread", {{"POST /ignore HTTP/1.1\r\nConnection: keep-alive\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n0\r\n\r\n"
                                "GET /version HTTP/1.1\r\n\r\n", {"202", "412"}}}, false},
        {"chunked with a length", {{head + "Transfer-Encoding: chunked\r\nContent-Length: 4\r\n\r\n" + "2f\r\n" + smuggled + "\r\n0\r\n\r\n", {}}}, false},
        {"another coding", {{head + "Transfer-Encoding: gzip\r\n\r\n" + smuggled, {}}}, false},
        {"chunked after another coding", {{head + "Transfer-Encoding: gzip, chunked\r\n\r\n0\r\n\r\n" + smuggled, {}}}, false},
        {"two lengths", {{head + "Content-Length: 3\r\nContent-Length: 30\r\n\r\nabc" + smuggled, {}}}, false},
        {"one length twice", {{"POST /echo HTTP/1.1\r\nContent-Length: 3\r\nContent-Length: 3\r\n\r\nabc", {"\r\n\r\nabc"}}}, false},
        {"a chunk size past 63 bits", {{head + "Transfer-Encoding: chunked\r\n\r\n10000000000000000\r\n" + smuggled, {}}}, false},
        {"a chunk size that is no number", {{head + "Transfer-Encoding: chunked\r\n\r\nzz\r\n" + smuggled, {}}}, false},
        {"a chunk longer than its size", {{head + "Transfer-Encoding: chunked\r\n\r\n3\r\nabcd\r\n0\r\n\r\n" + smuggled, {}}}, false},
        {"a chunk-size line past the limit",
         {{head + "Transfer-Encoding: chunked\r\n\r\n1;" + std::string(HTTPDecoder::maxLineBytes, 'x') + "\r\na\r\n0\r\n\r\n" + smuggled, {}}},
         false},
        {"100-continue, read", {{"POST /echo HTTP/1.1\r\nExpect: 100-continue\r\nContent-Length: 3\r\n\r\n", {"HTTP/1.1 100 Continue\r\n\r\n"}}, {"abc", {"\r\n\r\nabc"}}}, false},
        {"100-continue, unread", {{"POST /ignore HTTP/1.1\r\nConnection: keep-alive\r\nExpect: 100-continue\r\nContent-Length: 3\r\n\r\n", {"HTTP/1.1 202"}}}, false},
        {"a body matched after its head came", {{"POST /json HTTP/1.1\r\nContent-Length: 12\r\n\r\n", {}}, {"{\"kind\":\"a\"}", {"json"}}}, false},
        {"a head ended by a shutdown", {{"GET /version HTTP/1.1\r\nConnection: keep-alive\r\n", {"412"}}}, true},
    };
    for (const auto& [name, steps, shutdown] : cases) {
        SCOPED_TRACE(name);
        LoopbackClient client(port);
        for (const Step& step : steps) {
            client.send(step.send);
            if (shutdown && &step == &steps.back()) ::shutdown(client.fd(), SHUT_WR);
            for (const std::string& answer : step.answers) EXPECT_THAT(client.response(), HasSubstr(answer));
        }
        EXPECT_TRUE(client.closedWithNothingMore());
    }
}

// A handler that reads 10 bytes of a large upload: it runs while the body is still coming, the
// rest is drained (never kept) before the answer, and the connection serves its next request.
TEST_F(HTTPServerTest, StreamsARequestBodyToAHandlerThatStartsBeforeTheUploadEnds) {
    config.timeout = 60;
    config.sharedRequestReplaySize = HTTPDecoder::defaultSharedRequestReplaySize;
    makeServer();
    auto started = std::make_shared<std::atomic<int>>(0);
    server->appendRoute("POST /ten", [started](HTTPRequest request) -> async::Task<HTTPResponse> {
        ++*started;
        auto iterator = request.bodySequence.makeIterator();
        auto first = co_await iterator.next();
        co_return HTTPResponse(HTTPStatusCode::ok, {}, std::string(first->begin(), first->begin() + 10));
    });
    start();
    auto residentBytes = [] {
        long pages = 0, resident = 0;
        std::ifstream("/proc/self/statm") >> pages >> resident;
        return resident * ::sysconf(_SC_PAGESIZE);
    };
    const std::string piece(1 << 20, 'b');
    for (std::size_t mebibytes : {64, 1}) {  // over and under the replay size
        LoopbackClient client(port);
        const long before = residentBytes();
        long most = before;
        client.send("POST /ten HTTP/1.1\r\nConnection: keep-alive\r\nContent-Length: " + std::to_string(mebibytes << 20) + "\r\n\r\n");
        client.send(std::string_view(piece).substr(0, 65536));
        ASSERT_TRUE(test::waitUntil([&] { return started->exchange(0) == 1; }, hangGuard)) << mebibytes;
        for (std::size_t sent = 65536; sent < mebibytes << 20; sent += piece.size()) {
            client.send(std::string_view(piece).substr(0, std::min(piece.size(), (mebibytes << 20) - sent)));
            most = std::max(most, residentBytes());
        }
        EXPECT_EQ(client.response(), "HTTP/1.1 200 OK\r\nConnection: keep-alive\r\nContent-Length: 10\r\n\r\nbbbbbbbbbb");
        EXPECT_EQ(client.ask("GET /version HTTP/1.1\r\n\r\n"), okResponse);
        // Half the large upload: room for the replay buffer and a sanitizer's quarantine, never the body.
        EXPECT_LT(most - before, 32 << 20) << mebibytes << " MiB upload";
    }
}

TEST_F(HTTPServerTest, ClosesAConnectionBeyondTheLimitAtOnceAndKeepsTheOthers) {
    config.maxConnections = 1;
    makeServer();
    start();
    LoopbackClient first(port);
    EXPECT_THAT(first.ask("GET /version HTTP/1.1\r\nConnection: keep-alive\r\n\r\n"), HasSubstr("412"));
    LoopbackClient second(port);
    EXPECT_TRUE(second.closedWithNothingMore());
    logger->waitFor("warning: server warning: connection limit (1) reached, closing a new connection");
    EXPECT_EQ(first.ask("GET /version HTTP/1.1\r\n\r\n"), okResponse);
}

// A server child allowed 64 descriptors, flooded by 100 idle clients: accepting fails with
// EMFILE, which must neither end the server nor spin, and the server serves again once they go.
TEST(HTTPServerExhaustion, LivesThroughAFullDescriptorTableAndServesOnceClientsLeave) {
#if defined(__SANITIZE_ADDRESS__)
    // UBSan's vptr check probes memory through a pipe, which a full descriptor table refuses:
    // the child would stop at its first exception with a false "invalid vptr" report.
    GTEST_SKIP() << "needs descriptors the sanitizer runtime takes for itself";
#endif
    const auto started = std::chrono::steady_clock::now();
    test::ChildProcess child({"/bin/sh", "-c", "ulimit -n 64 && exec \"$0\" --port 0", std::string(ORVEL_BINARY_DIR) + "/version_server"},
                             {.environment = test::environmentWith({{"VERSION_SERVER_LOG", "1"}})});
    auto listening = child.waitForLineContaining("starting server 127.0.0.1:", hangGuard);
    ASSERT_TRUE(listening) << child.output();
    auto port = static_cast<std::uint16_t>(std::stoul(listening->substr(listening->rfind(':') + 1)));
    {
        std::vector<std::unique_ptr<LoopbackClient>> clients;
        for (int i = 0; i < 100; ++i) clients.push_back(std::make_unique<LoopbackClient>(port));
        auto warning = child.waitForLineContaining("warning: ", hangGuard);
        EXPECT_THAT(warning.value_or(child.output()), HasSubstr("SocketError. Accept(24): Too many open files"));
        std::this_thread::sleep_for(1500ms);  // long enough for a warning per retry to show
    }
    EXPECT_THAT(LoopbackClient(port).ask("GET /version HTTP/1.1\r\n\r\n"), HasSubstr("412"));
    EXPECT_TRUE(child.waitForLineContaining("request: GET /version", hangGuard)) << child.output();
    EXPECT_FALSE(child.waitForExit(0s)) << "the server ended";
    // At most one warning a second (and one at the start).
    auto seconds = std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - started).count();
    std::istringstream output(child.output());
    long warnings = 0;
    for (std::string line; std::getline(output, line);) warnings += line.find("warning: ") != std::string::npos;
    EXPECT_LE(warnings, seconds + 1) << child.output();
}

}  // namespace
}  // namespace orvel::http
