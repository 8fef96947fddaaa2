#include "http/HTTPServer.h"

#include "async/Cancellation.h"
#include "async/Error.h"
#include "async/TaskGroup.h"
#include "http/detail/AsyncSocketStream.h"
#include "http/detail/HandlerDeadline.h"
#include "net/SocketError.h"
#include "net/SocketPool.h"
#include "net/Timeout.h"

#include <chrono>
#include <exception>
#include <string>

namespace orvel::http {
namespace {

std::string listeningLine(const net::Socket& socket) {
    try {
        net::Socket::Address address = socket.sockname();
        switch (address.kind) {
            case net::Socket::Address::Kind::unix: return "starting server path: " + address.text;
            case net::Socket::Address::Kind::ip4:
            case net::Socket::Address::Kind::ip6:
                if (address.text == "0.0.0.0" || address.text == "::") {
                    return "starting server port: " + std::to_string(address.port);
                }
                return "starting server " + address.text + ":" + std::to_string(address.port);
        }
    } catch (const async::Error&) {
    }
    return "starting server";
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
    try {
        auto sockets = listener.sockets();
        while (auto socket = co_await sockets.next()) connections.add(handleConnection(std::move(*socket)));
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

async::Task<void> HTTPServer::handleConnection(net::AsyncSocket socket) {
    auto connection = std::make_shared<HTTPConnection>(socket.socket(), std::make_shared<detail::AsyncSocketStream>(socket),
                                                       HTTPDecoder(config_.sharedRequestReplaySize), config_.logger);
    const net::Logger& logger = config_.logger;
    const std::string& host = connection->hostname();
    logger->logInfo([&] { return "<" + host + "> open connection"; });
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
        try {
            co_await connection->send(std::move(response));
            connection->reader().expectIdle();
        } catch (...) {
            auto error = std::current_exception();
            logger->logError([&] { return "<" + host + "> error: " + async::describe(error); });
            break;
        }
    }

    {
        std::lock_guard lock(mutex_);
        connections_.erase(connection);
    }
    connection->close();
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
