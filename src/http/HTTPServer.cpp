#include "http/HTTPServer.h"

#include "async/Cancellation.h"
#include "async/Error.h"
#include "async/Sleep.h"
#include "async/TaskGroup.h"
#include "http/detail/AsyncSocketStream.h"
#include "http/detail/HandlerDeadline.h"
#include "net/SocketError.h"
#include "net/SocketPool.h"
#include "net/Timeout.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <string>

namespace orvel::http {
namespace {

using Clock = detail::ConnectionReader::Clock;

// EMFILE and its kind leave the connection queued and the listener readable: retrying at once
// would spin. A closing connection frees a descriptor, so it ends the pause early.
constexpr auto acceptPauseLimit = std::chrono::milliseconds(100);
constexpr auto acceptWarningInterval = std::chrono::seconds(1);

async::Task<void> sleepFor(Clock::duration duration) { co_await async::sleep(duration); }

Clock::duration seconds(double value) { return std::chrono::nanoseconds(net::timeoutNanoseconds(value)); }

// One warning a second at most while a condition lasts: a flood must not become a log flood.
class WarningLimiter {
public:
    template <class F>
    void warn(const net::Logger& logger, F&& message) {
        Clock::time_point now = Clock::now();
        if (last_ && now - *last_ < acceptWarningInterval) return;
        last_ = now;
        logger->logWarning(std::forward<F>(message));
    }

private:
    std::optional<Clock::time_point> last_;
};

bool isWildcard(const net::Socket::Address& address) {
    return address.kind != net::Socket::Address::Kind::unix && (address.text == "0.0.0.0" || address.text == "::");
}

std::string listeningLine(const net::Socket& socket) {
    try {
        net::Socket::Address address = socket.sockname();
        if (address.kind == net::Socket::Address::Kind::unix) return "starting server path: " + address.text;
        if (isWildcard(address)) return "starting server port: " + std::to_string(address.port);
        return "starting server " + address.text + ":" + std::to_string(address.port);
    } catch (const async::Error&) {
    }
    return "starting server";
}

// The local end of every connection the listener accepts, when that is the listener's own
// address; one bound to every interface answers on each, so there each connection is asked.
std::optional<net::Socket::Address> sharedLocalAddress(const net::Socket& listener) {
    try {
        auto address = listener.sockname();
        if (!isWildcard(address)) return address;
    } catch (const async::Error&) {
    }
    return std::nullopt;
}

}  // namespace

HTTPServer::HTTPServer(net::AnySocketAddress address, double timeout, std::shared_ptr<net::AsyncSocketPool> pool,
                       net::Logger logger, std::shared_ptr<HTTPHandler> handler)
    : HTTPServer(Configuration{address, timeout, HTTPDecoder::defaultSharedRequestReplaySize, std::move(pool), std::move(logger)},
                 std::move(handler)) {}

HTTPServer::HTTPServer(Configuration config, std::shared_ptr<HTTPHandler> handler) : config_(std::move(config)) {
    if (handler) handlers_.appendRoute("*", std::move(handler));
}

HTTPServer::~HTTPServer() = default;

std::shared_ptr<net::AsyncSocketPool> HTTPServer::defaultPool(net::Logger logger) {
    return net::SocketPool::make(net::SocketPool::defaultMaxEvents, std::move(logger));
}

bool HTTPServer::isListening() const {
    std::lock_guard lock(mutex_);
    return state_.has_value();
}

std::optional<net::Socket::Address> HTTPServer::listeningAddress() const {
    std::lock_guard lock(mutex_);
    if (!state_) return std::nullopt;
    try {
        return state_->listener.socket().sockname();
    } catch (const async::Error&) {
        return std::nullopt;
    }
}

std::size_t HTTPServer::waitingCount() const {
    std::lock_guard lock(mutex_);
    return waiting_.size();
}

std::size_t HTTPServer::connectionCount() const {
    std::lock_guard lock(mutex_);
    return connections_.size();
}

net::Socket HTTPServer::makeListeningSocket() {
    net::Socket socket = net::Socket::make(config_.address.family());
    try {
        socket.setValue(true, net::reuseAddress);
        socket.setValue(true, net::noSIGPIPE);
        socket.bind(config_.address);
        socket.listen(listenBacklog);  // closes the descriptor itself when it fails
        if (config_.address.family() != AF_UNIX) {
            // Clients speak first: a connection accepted with its request already in is served
            // without a wait on the pool. One that stays silent comes a second later.
            try {
                socket.setValue(1, net::deferAcceptSeconds);
            } catch (const net::SocketError&) {
                // a kernel without it serves the same, with one wait more per connection
            }
        }
    } catch (const net::SocketError& error) {
        if (error.type() != "Listen" && error.type() != "Close") {
            try {
                socket.close();
            } catch (const async::Error&) {
            }
        }
        throw;
    }
    config_.logger->logInfo([&] { return listeningLine(socket); });
    return socket;
}

async::Task<void> HTTPServer::run() {
    {
        std::lock_guard lock(mutex_);
        if (state_ || starting_) {
            config_.logger->logCritical("server error: already started");
            throw net::SocketError::unsupportedAddress();
        }
        starting_ = true;
        stopRequested_ = false;
    }
    std::exception_ptr failure;
    std::optional<net::AsyncSocket> listener;
    try {
        co_await config_.pool->prepare();
        listener.emplace(makeListeningSocket(), config_.pool);
    } catch (...) {
        failure = std::current_exception();
        config_.logger->logCritical([&] { return "server error: " + async::describe(failure); });
    }
    if (failure) {
        // The preparation's line and then run()'s own: the failure shows twice in the log.
        config_.logger->logCritical([&] { return "server error: " + async::describe(failure); });
        std::lock_guard lock(mutex_);
        starting_ = false;
        std::rethrow_exception(failure);
    }

    async::TaskHandle<void> task = async::spawn(serve(*listener));
    {
        std::lock_guard lock(mutex_);
        state_.emplace(State{*listener, task});
        starting_ = false;
    }
    resumeWaiters();

    try {
        co_await net::getValue(task, net::CancellationPolicy::whenParentIsCancelled());
    } catch (...) {
        failure = std::current_exception();
    }
    std::optional<State> ending;
    {
        std::lock_guard lock(mutex_);
        // stop() may have cleared the state, and a new run() may even have set its own.
        if (state_ && state_->task.isValid() && state_->listener == *listener) ending = std::exchange(state_, std::nullopt);
    }
    if (!failure) co_return;
    config_.logger->logCritical([&] { return "server error: " + async::describe(failure); });
    if (ending) ending->listener.close();
    std::rethrow_exception(failure);
}

void HTTPServer::resumeWaiters() {
    std::unordered_map<net::ContinuationID, net::IdentifiableContinuation<void>> waiting;
    {
        std::lock_guard lock(mutex_);
        waiting.swap(waiting_);
    }
    for (auto& [id, continuation] : waiting) continuation.resume();
}

async::Task<void> HTTPServer::runPool(std::shared_ptr<net::AsyncSocketPool> pool) { co_await pool->run(); }

async::Task<void> HTTPServer::serve(net::AsyncSocket listener) {
    // The pool's loop and the accept loop side by side; the first to end ends the other.
    async::TaskGroup<void> group;
    group.add(runPool(config_.pool));
    group.add(acceptConnections(listener));
    auto first = co_await group.nextResult();
    group.cancelAll();
    while (co_await group.nextResult()) {
    }
    if (first) first->get();
}

async::Task<void> HTTPServer::acceptConnections(net::AsyncSocket listener) {
    async::TaskGroup<void> connections(true);
    std::exception_ptr failure;
    WarningLimiter warnings;
    try {
        auto sockets = listener.sockets();
        const auto local = sharedLocalAddress(listener.socket());
        for (;;) {
            std::optional<net::AsyncSocket> socket;
            std::optional<net::Socket::Address> remote;
            bool pause = false;
            try {
                socket = co_await sockets.next(&remote);
            } catch (const net::SocketError& error) {
                if (!net::Socket::isTransientAcceptError(error)) throw;
                warnings.warn(config_.logger, [&] { return "server warning: " + error.description(); });
                pause = true;
            }
            if (pause) {
                co_await pauseAccepting();
                std::lock_guard lock(mutex_);
                if (stopRequested_) break;  // the listener is closed; its number may be reused
                continue;
            }
            if (!socket) break;
            if (openConnections_.load(std::memory_order_relaxed) >= config_.maxConnections) {
                warnings.warn(config_.logger, [&] {
                    return "server warning: connection limit (" + std::to_string(config_.maxConnections) + ") reached, closing a new connection";
                });
                try {
                    socket->close();
                } catch (const async::Error&) {
                }
                continue;
            }
            openConnections_.fetch_add(1, std::memory_order_relaxed);
            connections.add(handleConnection(std::move(*socket), std::move(remote), local));
        }
    } catch (...) {
        failure = std::current_exception();
        connections.cancelAll();
    }
    try {
        co_await connections.waitForAll();
    } catch (...) {
        // connection tasks report their own errors
    }
    if (failure) std::rethrow_exception(failure);
}

async::Task<void> HTTPServer::pauseAccepting() {
    detail::CancellableScope pause;
    {
        std::lock_guard lock(mutex_);
        acceptPause_ = &pause;
    }
    std::exception_ptr failure;
    try {
        auto nap = sleepFor(acceptPauseLimit);
        co_await pause.run(nap);
    } catch (const async::CancellationError&) {
        // a connection closed, or the server stops
    } catch (...) {
        failure = std::current_exception();
    }
    {
        // Whatever ended the pause: connections must not cancel a scope that is gone.
        std::lock_guard lock(mutex_);
        acceptPause_ = nullptr;
    }
    if (failure) std::rethrow_exception(failure);
    async::checkCancellation();
}

async::Task<void> HTTPServer::watchPeer(std::shared_ptr<HTTPConnection> connection) {
    // Sleeps never outlast the shortest limit: a phase that starts while we sleep is due no
    // earlier than that, so one timer per connection serves every phase.
    const Clock::duration shortest =
        std::min({seconds(config_.requestHeadTimeout), seconds(config_.keepAliveTimeout), seconds(config_.bodyTimeout)});
    detail::ConnectionReader& reader = connection->reader();
    for (;;) {
        Clock::time_point now = Clock::now();
        Clock::time_point deadline = reader.deadline();
        if (deadline <= now) {
            double limit = config_.requestHeadTimeout;
            if (reader.phase() == detail::ConnectionReader::Phase::idle) limit = config_.keepAliveTimeout;
            if (reader.phase() == detail::ConnectionReader::Phase::body) limit = config_.bodyTimeout;
            if (reader.deadline() == deadline && connection->requests().timeOut(limit)) co_return;
            deadline = Clock::time_point::max();  // not reading now: look again later
        }
        if (!co_await async::sleepUnlessCancelled(std::min(deadline - now, shortest))) co_return;
    }
}

async::Task<void> HTTPServer::handleConnection(net::AsyncSocket socket, std::optional<net::Socket::Address> remote,
                                               std::optional<net::Socket::Address> local) {
    auto connection = std::make_shared<HTTPConnection>(socket.socket(), std::make_shared<detail::AsyncSocketStream>(socket),
                                                       HTTPDecoder(config_.sharedRequestReplaySize), config_.logger,
                                                       std::move(remote), std::move(local));
    const net::Logger& logger = config_.logger;
    const std::string& host = connection->hostname();
    logger->logInfo([&] { return "<" + host + "> open connection"; });
    connection->reader().startClock({seconds(config_.requestHeadTimeout), seconds(config_.keepAliveTimeout),
                                     seconds(config_.bodyTimeout)});
    async::TaskHandle<void> watchdog = async::spawn(watchPeer(connection));
    RoutedHTTPHandler handlers;
    {
        std::lock_guard lock(mutex_);
        connections_.insert(connection);
        handlers = handlers_;
        // A stop that came before we were listed did not complete us.
        if (stopRequested_) connection->complete();
    }

    std::optional<detail::CancellableScope> handlerScope;
    for (;;) {
        std::optional<HTTPRequest> request;
        try {
            request = co_await connection->requests().next();
        } catch (...) {
            auto error = std::current_exception();
            logger->logError([&] { return "<" + host + "> error: " + async::describe(error); });
            break;
        }
        if (!request) break;
        logger->logInfo([&] { return "<" + host + "> request: " + request->method.rawValue + " " + request->path; });
        HTTPResponse response = co_await handleRequest(std::move(*request), handlers, handlerScope);
        // An HTTP/1.1 client takes a connection for kept unless told: the last response says so.
        if (connection->requests().isComplete() && !response.payload.webSocketHandler())
            response.headers.set(HTTPHeader::connection, "close");
        try {
            // What the handler left of the body goes before the response: the peer may not read
            // until it has sent it all, and the next request stands behind it.
            if (connection->requests().hasPendingBody()) co_await connection->requests().finishBody();
            co_await connection->send(std::move(response));
            connection->reader().expectIdle();
        } catch (...) {
            auto error = std::current_exception();
            logger->logError([&] { return "<" + host + "> error: " + async::describe(error); });
            break;
        }
    }

    watchdog.cancel();
    try {
        co_await watchdog.value();  // ends without a throw, cancelled or after a time-out
    } catch (...) {
    }
    connection->close();
    openConnections_.fetch_sub(1, std::memory_order_relaxed);
    {
        std::lock_guard lock(mutex_);
        connections_.erase(connection);
        if (acceptPause_) acceptPause_->cancel();  // a descriptor is free again
    }
    logger->logInfo([&] { return "<" + host + "> close connection"; });
}

async::Task<HTTPResponse> HTTPServer::handleRequest(HTTPRequest request, RoutedHTTPHandler& handlers,
                                                    std::optional<detail::CancellableScope>& scope) {
    // What the response needs from the request, taken before the handler owns it.
    std::optional<std::string> connectionValue;
    if (request.shouldKeepAlive()) connectionValue.emplace(*request.headers.value(HTTPHeader::connection));

    // The handler runs in a scope of its own that the deadline cancels; a scope stays with the
    // connection until a deadline has used it up.
    if (!scope || scope->isCancelled()) scope.emplace();
    std::exception_ptr failure;
    std::optional<HTTPResponse> response;
    {
        detail::HandlerDeadline deadline(*scope, std::chrono::nanoseconds(net::timeoutNanoseconds(config_.timeout)));
        try {
            auto call = handlers.handleRequest(std::move(request));
            response.emplace(co_await scope->run(call));
            response->checkHeaders();
        } catch (...) {
            failure = std::current_exception();
        }
        if (deadline.disarm()) {
            response.reset();
            failure = std::make_exception_ptr(net::TimeoutError(config_.timeout));
        }
    }
    if (failure) {
        try {
            std::rethrow_exception(failure);
        } catch (const HTTPUnhandledError&) {
            config_.logger->logError("unhandled request");
            response.emplace(HTTPStatusCode::notFound);
        } catch (...) {
            config_.logger->logError([&] { return "handler error: " + async::describe(failure); });
            response.emplace(HTTPStatusCode::internalServerError);
        }
    }
    if (connectionValue) response->headers.set(HTTPHeader::connection, *connectionValue);
    co_return std::move(*response);
}

async::Task<void> HTTPServer::stop(double timeout) {
    std::optional<State> state;
    std::vector<std::shared_ptr<HTTPConnection>> connections;
    {
        std::lock_guard lock(mutex_);
        if (!state_) co_return;
        state = std::exchange(state_, std::nullopt);
        stopRequested_ = true;
        if (acceptPause_) acceptPause_->cancel();
        connections.assign(connections_.begin(), connections_.end());
    }
    state->listener.close();  // ends the accept loop
    for (auto& connection : connections) connection->complete();
    try {
        co_await net::getValue(state->task, net::CancellationPolicy::afterTimeout(timeout));
    } catch (...) {
        // the outcome of serving is run()'s to report
    }
}

async::Task<void> HTTPServer::waitUntilListening(double timeout) {
    co_await net::withThrowingTimeout(timeout, doWaitUntilListening());
}

async::Task<void> HTTPServer::doWaitUntilListening() {
    if (isListening()) co_return;
    co_await net::withIdentifiableContinuation<void>(
        [this](net::IdentifiableContinuation<void> continuation) {
            bool listening;
            {
                std::lock_guard lock(mutex_);
                listening = state_.has_value();
                if (!listening) waiting_.emplace(continuation.id, continuation);
            }
            if (listening) continuation.resume();
        },
        [this](net::ContinuationID id) {
            std::optional<net::IdentifiableContinuation<void>> cancelled;
            {
                std::lock_guard lock(mutex_);
                if (auto found = waiting_.find(id); found != waiting_.end()) {
                    cancelled = found->second;
                    waiting_.erase(found);
                }
            }
            if (cancelled) cancelled->resumeThrowing(std::make_exception_ptr(async::CancellationError()));
        });
}

}  // namespace orvel::http
