#pragma once
#include "async/Spawn.h"
#include "async/Task.h"
#include "http/HTTPConnection.h"
#include "http/HTTPDecoder.h"
#include "http/HTTPHandler.h"
#include "http/RoutedHTTPHandler.h"
#include "net/AsyncSocket.h"
#include "net/AsyncSocketPool.h"
#include "net/IdentifiableContinuation.h"
#include "net/Logging.h"
#include "net/SocketAddress.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <unordered_map>
#include <unordered_set>
#include <utility>

namespace orvel::http {

// The top of the HTTP stack: listens, serves one task per connection (requests in sequence,
// each handed to the routed handler under a time limit, responses written back), and stops
// within a bounded time. Its state is guarded by one lock that is never held across a
// suspension; connections and requests never wait for one another on it.
class HTTPServer {
public:
    struct Configuration {
        net::AnySocketAddress address;
        double timeout;  // seconds allowed for one handler call
        std::int64_t sharedRequestReplaySize = HTTPDecoder::defaultSharedRequestReplaySize;
        std::shared_ptr<net::AsyncSocketPool> pool;
        net::Logger logger;
        // Beyond this many open connections a new one is closed at once. (A TCP listener takes a
        // connection once its first bytes are in, or a second after it opened if none came.)
        std::size_t maxConnections = 4096;
        // Seconds a peer gets: for a complete request head (from connecting, or from the first
        // byte of a kept-alive connection's next request), for the first byte of that next
        // request, and between two bytes of a body. A peer past a limit is closed like a
        // malformed request.
        double requestHeadTimeout = 30;
        double keepAliveTimeout = 120;
        double bodyTimeout = 30;
    };

    static constexpr int listenBacklog = 128;

    // With a handler, it is appended under the route "*".
    HTTPServer(net::AnySocketAddress address, double timeout, std::shared_ptr<net::AsyncSocketPool> pool,
               net::Logger logger, std::shared_ptr<HTTPHandler> handler = nullptr);
    explicit HTTPServer(Configuration config, std::shared_ptr<HTTPHandler> handler = nullptr);
    ~HTTPServer();
    HTTPServer(const HTTPServer&) = delete;
    HTTPServer& operator=(const HTTPServer&) = delete;

    // The pool servers use unless given another: epoll, 20 events per wait.
    static std::shared_ptr<net::AsyncSocketPool> defaultPool(net::Logger logger);

    const Configuration& config() const noexcept { return config_; }

    // Routes are tried in the order appended; a running server takes them from its next connection.
    template <class H>
    void appendRoute(HTTPRoute route, H&& handler) {
        std::lock_guard lock(mutex_);
        handlers_.appendRoute(std::move(route), std::forward<H>(handler));
    }

    // Listens and serves until stopped or until serving fails (with that error). A second run
    // while listening fails with SocketError::unsupportedAddress and leaves the first alone.
    async::Task<void> run();
    // Closes the listening socket, ends idle connections, lets busy ones finish their response,
    // and waits at most `timeout` seconds before cancelling what is left. Never fails.
    async::Task<void> stop(double timeout);
    // Returns once the server listens; TimeoutError after `timeout` seconds.
    async::Task<void> waitUntilListening(double timeout);
    async::Task<void> doWaitUntilListening();

    bool isListening() const;
    // The listening socket's own address while listening (the port chosen for port 0).
    std::optional<net::Socket::Address> listeningAddress() const;
    std::size_t waitingCount() const;
    std::size_t connectionCount() const;

private:
    struct State {
        net::AsyncSocket listener;
        async::TaskHandle<void> task;
    };

    net::Socket makeListeningSocket();
    async::Task<void> serve(net::AsyncSocket listener);
    async::Task<void> runPool(std::shared_ptr<net::AsyncSocketPool> pool);
    async::Task<void> acceptConnections(net::AsyncSocket listener);
    async::Task<void> handleConnection(net::AsyncSocket socket, std::optional<net::Socket::Address> remote,
                                       std::optional<net::Socket::Address> local);
    async::Task<void> watchPeer(std::shared_ptr<HTTPConnection> connection);
    async::Task<void> pauseAccepting();
    async::Task<HTTPResponse> handleRequest(HTTPRequest request, RoutedHTTPHandler& handlers,
                                            std::optional<detail::CancellableScope>& scope);
    void resumeWaiters();

    Configuration config_;
    mutable std::mutex mutex_;
    RoutedHTTPHandler handlers_;
    std::unordered_map<net::ContinuationID, net::IdentifiableContinuation<void>> waiting_;
    std::optional<State> state_;
    bool starting_ = false;
    bool stopRequested_ = false;  // by stop() since the last run()
    std::unordered_set<std::shared_ptr<HTTPConnection>> connections_;
    std::atomic<std::size_t> openConnections_{0};  // accepted and not yet closed
    detail::CancellableScope* acceptPause_ = nullptr;  // ended early by a connection that closes
};

}  // namespace orvel::http
