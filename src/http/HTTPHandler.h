#pragma once
#include "async/Error.h"
#include "async/Task.h"
#include "http/HTTPRequest.h"
#include "http/HTTPResponse.h"

namespace orvel::http {

// Raised by a handler for a request that is not for it: the routed handler then tries the next
// matching route, and the server answers 404 when none is left.
class HTTPUnhandledError final : public async::Error {
public:
    HTTPUnhandledError() : Error("HTTPHandler can not handle the request.") {}
};

// Application code behind the server: one request in, one response out. Called concurrently
// from many connection tasks, so implementations must not assume serial use.
class HTTPHandler {
public:
    virtual ~HTTPHandler() = default;
    virtual async::Task<HTTPResponse> handleRequest(HTTPRequest request) = 0;
};

}  // namespace orvel::http
