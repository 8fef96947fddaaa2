#pragma once
#include "http/HTTPClientSession.h"
#include "http/HTTPHandler.h"

#include <memory>
#include <optional>
#include <string>

namespace orvel::http {

// Forwards each request to another HTTP server under `base` (the request path appended, its
// query items replacing the base's) and relays the answer: status with an empty reason phrase,
// headers but "Content-Encoding" (the body arrives decoded), body. Immutable; one session serves
// every request at once.
class ProxyHTTPHandler final : public HTTPHandler {
public:
    static constexpr double defaultTimeout = 60;

    // `timeout`: seconds the upstream may stay silent, 60 unless given.
    ProxyHTTPHandler(std::string base, std::shared_ptr<HTTPClientSession> session,
                     std::optional<double> timeout = std::nullopt);

    // Throws BadURLError for a base or target that is not an http(s) URL, the session's
    // TransferError when the upstream cannot be reached or stays silent past the timeout, and
    // CancellationError when the request's task is cancelled (the transfer is then aborted).
    async::Task<HTTPResponse> handleRequest(HTTPRequest request) override;

    // The URL a request is forwarded to. Throws BadURLError.
    std::string targetURL(const HTTPRequest& request) const;

    const std::string base;
    const std::shared_ptr<HTTPClientSession> session;
    const std::optional<double> timeout;
};

}  // namespace orvel::http
