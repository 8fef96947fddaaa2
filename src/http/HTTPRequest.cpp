#include "http/HTTPRequest.h"

namespace orvel::http {

bool HTTPRequest::shouldKeepAlive() const noexcept {
    auto value = headers.value(HTTPHeader::connection);
    return value && detail::equalsIgnoringCase(*value, "keep-alive");
}

std::optional<std::string> HTTPRequest::remoteIPAddress() const {
    if (auto forwarded = headers.value(HTTPHeader::xForwardedFor)) {
        std::optional<std::string> first;
        detail::forEachNonEmptyPiece(*forwarded, ',', [&](std::string_view piece) {
            if (!first) first.emplace(piece);
        });
        if (first) return first;
    }
    if (remoteAddress && remoteAddress->kind != Address::Kind::unix) return remoteAddress->text;
    return std::nullopt;
}

}  // namespace orvel::http
