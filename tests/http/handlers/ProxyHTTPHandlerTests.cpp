#include "http/handlers/ProxyHTTPHandler.h"

#include "../HTTPTestSupport.h"
#include "async/Sleep.h"
#include "async/Spawn.h"
#include "e2e/Process.h"
#include "http/BadURLError.h"
#include "http/HTTPServer.h"
#include "net/FdLeakCheck.h"
#include "net/PoolTesting.h"
#include "net/SocketPool.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <poll.h>

#include <fstream>

namespace orvel::http {
namespace {

using ::testing::HasSubstr;

constexpr std::size_t bigBodySize = 16 << 20;

std::string joined(const std::vector<HTTPRequest::QueryItem>& query) {
    std::string text;
    for (const auto& item : query) text += item.name + "=" + item.value + "|";
    return text;
}

// An upstream that tells what reached it: method, path and query items, two request headers,
// and the body echoed back.
async::Task<HTTPResponse> echo(HTTPRequest request) {
    if (request.path == "/api/big") co_return HTTPResponse(HTTPStatusCode::ok, {}, std::string(bigBodySize, 'b'));
    auto body = co_await request.bodyData();
    co_return HTTPResponse(HTTPStatusCode::created,
                           {{"X-Seen", request.method.rawValue + " " + request.path + "?" + joined(request.query)},
                            {"X-Host", request.headers.value("Host").value_or("-")},
                            {"X-Custom", request.headers.value("X-Custom").value_or("-")},
                            {"Content-Encoding", "identity"}},
                           std::string(body.begin(), body.end()));
}

// A listener that accepts and never answers: a transfer to it ends only by a limit or a cancel.
struct SilentUpstream {
    test::Owned listener = test::listeningOnLoopback(8);
    const std::uint16_t port = listener.port();

    bool hasConnection(std::chrono::milliseconds wait) {
        pollfd entry{listener.socket.file.rawValue, POLLIN, 0};
        return ::poll(&entry, 1, static_cast<int>(wait.count())) == 1;
    }
    // Accepts the proxy's connection and reads until the proxy closes it (false at the hang guard).
    bool seesConnectionClose() {
        if (!hasConnection(hangGuard)) return false;
        test::Fd peer(::accept4(listener.socket.file.rawValue, nullptr, nullptr, SOCK_CLOEXEC));
        char buffer[4096];
        for (pollfd entry{peer.get(), POLLIN, 0}; ::poll(&entry, 1, 1000 * hangGuard.count()) == 1;)
            if (::recv(peer.get(), buffer, sizeof buffer, 0) <= 0) return true;
        return false;
    }
};

// Asks the proxy only once its own task has been cancelled.
async::Task<HTTPResponse> askOnceCancelled(ProxyHTTPHandler* proxy) {
    try {
        co_await async::sleep(hangGuard);
    } catch (const async::CancellationError&) {
    }
    co_return co_await proxy->handleRequest(request("GET", "/x"));
}

class ProxyHTTPHandlerTest : public test::FdLeakCheck {
protected:
    void SetUp() override {
        test::FdLeakCheck::SetUp();
        session = HTTPClientSession::make();
    }
    // A server of ours on an ephemeral port: the upstream, or the server in front of the proxy.
    std::uint16_t start(std::shared_ptr<HTTPServer> server) {
        servers.push_back(server);
        running.push_back(async::spawn(server->run()));
        async::syncWait(server->waitUntilListening(60));
        return server->listeningAddress()->port;
    }
    std::shared_ptr<HTTPServer> makeServer(double timeout) {
        return std::make_shared<HTTPServer>(
            HTTPServer::Configuration{net::AnySocketAddress(net::inet("127.0.0.1", 0)), timeout, 1 << 20, pool, logger});
    }
    void TearDown() override {
        for (auto& server : servers) async::syncWait(server->stop(30));
        for (auto& task : running) task.wait();
        servers.clear();
        session.reset();  // its thread and the connections it kept
        test::FdLeakCheck::TearDown();
    }

    std::shared_ptr<RecordingLogger> logger = std::make_shared<RecordingLogger>();
    std::shared_ptr<net::SocketPool> pool = net::SocketPool::make(net::SocketPool::defaultMaxEvents, logger);
    std::shared_ptr<HTTPClientSession> session;
    std::vector<std::shared_ptr<HTTPServer>> servers;
    std::vector<async::TaskHandle<void>> running;
};

TEST_F(ProxyHTTPHandlerTest, ForwardsTheRequestToTheTargetAndRelaysTheAnswer) {
    auto upstream = makeServer(30);
    upstream->appendRoute("*", echo);
    const std::string origin = "http://127.0.0.1:" + std::to_string(start(upstream));
    struct Case {
        std::string base, method, target;
        HTTPHeaders headers;
        std::string body, seen;
    } cases[] = {
        {"/api", "GET", "/users?id=5", {{"X-Custom", "1"}, {"Host", "elsewhere"}}, "", "GET /api/users?id=5|"},
        {"/api/", "POST", "/items", {}, "hello", "POST /api/items?"},
        // Decoded characters that mean something in a URL go out escaped again.
        {"/api?keep=1", "DELETE", "/a%20b/c%3Fd%25", {}, "", "DELETE /api/a b/c?d%?keep=1|"},
        {"/api?keep=1", "PUT", "/x?q=a%26b%3Dc+d&e", {}, "put body", "PUT /api/x?q=a&b=c+d|e=|"},
        {"", "PATCH", "/", {}, "", "PATCH /?"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.method + " " + c.base + " " + c.target);
        ProxyHTTPHandler proxy(origin + c.base, session);
        HTTPResponse response = async::syncWait(proxy.handleRequest(request(c.method, c.target, c.headers, c.body)));
        EXPECT_EQ(response.statusCode, HTTPStatusCode(201, ""));
        EXPECT_EQ(response.headers.value("X-Seen"), c.seen);
        EXPECT_EQ(response.headers.value("X-Host"), "127.0.0.1:" + origin.substr(origin.rfind(':') + 1));
        EXPECT_EQ(response.headers.value("X-Custom"), c.headers.value("X-Custom").value_or("-"));
        EXPECT_FALSE(response.headers.contains("Content-Encoding"));  // the upstream's "identity"
        auto body = async::syncWait(response.bodyData());
        EXPECT_EQ(std::string(body.begin(), body.end()), c.body);
    }
    ProxyHTTPHandler proxy(origin + "/api", session, 5);
    auto big = async::syncWait(async::syncWait(proxy.handleRequest(request("GET", "/big"))).bodyData());
    EXPECT_TRUE(big == HTTPBodySequence::Bytes(bigBodySize, 'b')) << big.size() << " bytes";
}

TEST_F(ProxyHTTPHandlerTest, RefusesABaseThatIsNotAnHTTPURL) {
    for (std::string base : {"", "not a url", "/relative", "http:///path", "ftp://127.0.0.1/x", "file:///etc"}) {
        ProxyHTTPHandler proxy(base, session);
        EXPECT_THROW(async::syncWait(proxy.handleRequest(request("GET", "/x"))), BadURLError) << base;
    }
}

// nginx compresses what it is asked to: the answer arrives decoded and without the headers
// of its own transfer.
TEST_F(ProxyHTTPHandlerTest, RelaysACompressedUpstreamDecoded) {
    const std::string nginx = "/usr/sbin/nginx";
    if (!test::isExecutable(nginx)) GTEST_SKIP() << "nginx is not installed (scripts/setup --dev)";
    test::TemporaryFolder folder;
    const std::string prefix = folder.path().string();
    std::filesystem::create_directory(folder.path() / "www");
    std::string page;
    for (int i = 0; i < 4000; ++i) page += "line " + std::to_string(i) + " compresses well\n";
    std::ofstream(folder.path() / "www" / "page.txt") << page;
    const std::uint16_t port = SilentUpstream().port;  // free a moment ago
    std::ofstream(folder.path() / "nginx.conf")
        << "daemon off; master_process off; pid nginx.pid; events {} http { access_log off; types { text/plain txt; }"
        << " server { listen 127.0.0.1:" << port << "; root www; gzip on; gzip_min_length 1; gzip_types text/plain;"
        << " add_header X-Accept-Encoding $http_accept_encoding; } }\n";
    test::ChildProcess server({nginx, "-p", prefix + "/", "-e", "error.log", "-c", "nginx.conf"}, {});
    ASSERT_TRUE(test::waitUntil([&] {
        test::Fd probe(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_in address = net::inet("127.0.0.1", port);
        return ::connect(probe.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    }, hangGuard)) << server.output();

    ProxyHTTPHandler proxy("http://127.0.0.1:" + std::to_string(port), session);
    HTTPResponse response = async::syncWait(proxy.handleRequest(request("GET", "/page.txt", {{"Accept-Encoding", "br"}})));
    EXPECT_EQ(response.statusCode, HTTPStatusCode(200, ""));
    EXPECT_THAT(std::string(response.headers.value("X-Accept-Encoding").value_or("")), HasSubstr("gzip"));
    EXPECT_EQ(response.headers.value("Content-Type"), "text/plain");
    for (const char* name : {"Content-Encoding", "Content-Length", "Transfer-Encoding", "Connection"})
        EXPECT_FALSE(response.headers.contains(name)) << name;
    auto body = async::syncWait(response.bodyData());
    EXPECT_TRUE(std::string(body.begin(), body.end()) == page) << "body of " << body.size() << " bytes";
}

TEST_F(ProxyHTTPHandlerTest, NeverStartsATransferForACancelledTask) {
    SilentUpstream silent;
    ProxyHTTPHandler proxy("http://127.0.0.1:" + std::to_string(silent.port), session, 1);
    auto task = async::spawn(askOnceCancelled(&proxy));
    task.cancel();
    EXPECT_THROW(task.wait(), async::CancellationError);
    EXPECT_FALSE(silent.hasConnection(std::chrono::milliseconds(0)));
}

// Through a server of ours: a failed transfer is a handler error (500), and a transfer whose
// task ends is aborted, so the upstream sees its connection close.
TEST_F(ProxyHTTPHandlerTest, AnswersAFailedTransferWith500) {
    SilentUpstream silent;
    const std::uint16_t unreachable = SilentUpstream().port;  // closed again at once
    struct Case {
        std::string name;
        std::uint16_t upstream;
        double serverLimit;
        std::optional<double> proxyTimeout;
        std::string logged;
    } cases[] = {
        {"unreachable", unreachable, 30, std::nullopt, "handler error: Couldn't connect to server"},
        {"silent past the proxy's timeout", silent.port, 30, 1, "handler error: Timeout was reached"},
        {"cancelled by the server's limit", silent.port, 1, std::nullopt, "handler error: Task timed out"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto front = makeServer(c.serverLimit);
        front->appendRoute("*", std::make_shared<ProxyHTTPHandler>("http://127.0.0.1:" + std::to_string(c.upstream),
                                                                   session, c.proxyTimeout));
        LoopbackClient client(start(front));
        client.send("GET /x HTTP/1.1\r\n\r\n");
        if (c.upstream == silent.port) {
            EXPECT_TRUE(silent.seesConnectionClose());
        }
        EXPECT_THAT(client.response(), ::testing::StartsWith("HTTP/1.1 500 Internal Server Error\r\n"));
        EXPECT_THAT(logger->waitFor("handler error: "), HasSubstr(c.logged));
        async::syncWait(front->stop(30));
        logger = std::make_shared<RecordingLogger>();
    }
}

}  // namespace
}  // namespace orvel::http
