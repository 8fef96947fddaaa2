#pragma once
#include "async/Task.h"
#include "http/HTTPHandler.h"

#include <functional>
#include <utility>

namespace orvel::http {

// Turns a function into a handler, so routes can be registered with plain (coroutine) functions.
// The function is kept for the handler's life; a capturing coroutine lambda is safe here because
// the handler outlives every call.
class ClosureHTTPHandler final : public HTTPHandler {
public:
    using Closure = std::function<async::Task<HTTPResponse>(HTTPRequest)>;

    explicit ClosureHTTPHandler(Closure closure) : closure(std::move(closure)) {}

    async::Task<HTTPResponse> handleRequest(HTTPRequest request) override { return closure(std::move(request)); }

    Closure closure;
};

}  // namespace orvel::http
