#pragma once
#include "async/Error.h"
#include "async/Task.h"
#include "http/HTTPHeader.h"
#include "http/HTTPMethod.h"
#include "net/AsyncBufferedSequence.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace orvel::http {

// An HTTP client over libcurl for the toolkit's proxy. One multi handle on one thread of its own
// carries every transfer of the session (and keeps their connections for reuse); a finished
// transfer resumes its task on that task's executor, so no pool thread ever waits for a peer.
// Shared by any number of tasks; each send() keeps the session alive until it returns.
class HTTPClientSession : public std::enable_shared_from_this<HTTPClientSession> {
public:
    struct Request {
        std::string url;
        HTTPMethod method = HTTPMethod::GET;
        // Headers the client sets itself (isReserved) are left out.
        HTTPHeaders headers;
        net::Bytes body;
        // The longest the peer may stay silent: while connecting, and between bytes after that.
        std::chrono::milliseconds timeout{60'000};
    };

    struct Response {
        std::int64_t statusCode = 0;
        // The answer's headers but the ones the client keeps to itself; "Content-Encoding" stays
        // although the body has been decoded.
        HTTPHeaders headers;
        std::string body;
    };

    // A transfer that failed: the text is libcurl's.
    class TransferError final : public async::Error {
    public:
        explicit TransferError(std::string text) : Error(std::move(text)) {}
    };

    static std::shared_ptr<HTTPClientSession> make();
    ~HTTPClientSession();
    HTTPClientSession(const HTTPClientSession&) = delete;
    HTTPClientSession& operator=(const HTTPClientSession&) = delete;

    // Sends the request and waits for the whole answer, decoded (gzip and deflate are asked
    // for). When the calling task is cancelled the transfer is aborted, or never started, and
    // CancellationError is raised; failures raise TransferError.
    async::Task<Response> send(Request request);

    // The headers the client writes or consumes itself, never taken from a request nor handed
    // back: framing and connection headers, Host, Accept-Encoding (the client decodes), Expect,
    // and every Proxy-* header.
    static bool isReserved(std::string_view headerName) noexcept;

private:
    class Engine;
    HTTPClientSession();
    std::unique_ptr<Engine> engine_;
};

}  // namespace orvel::http
