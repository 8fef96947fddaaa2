#pragma once
#include "http/HTTPHandler.h"

#include <string>

namespace orvel::http {

// Answers every request with 301 "Moved Permanently" to `location`. A location that is not a
// URL (reference) fails each request with BadURLError. Immutable.
class RedirectHTTPHandler final : public HTTPHandler {
public:
    explicit RedirectHTTPHandler(std::string location);

    const std::string& location() const noexcept { return location_; }

    async::Task<HTTPResponse> handleRequest(HTTPRequest request) override;

private:
    std::string location_;
    bool isURL_;
};

}  // namespace orvel::http
