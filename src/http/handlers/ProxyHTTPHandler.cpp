#include "http/handlers/ProxyHTTPHandler.h"

#include "http/BadURLError.h"
#include "http/detail/Ascii.h"
#include "http/detail/URLComponents.h"

#include <uriparser/Uri.h>

#include <array>
#include <chrono>
#include <cmath>
#include <string_view>

namespace orvel::http {

namespace {

// Characters kept as they are: unreserved and sub-delimiters, plus `extra`.
constexpr std::array<bool, 256> allowedWith(std::string_view extra) {
    std::array<bool, 256> table{};
    for (int c = 'a'; c <= 'z'; ++c) table[c] = true;
    for (int c = 'A'; c <= 'Z'; ++c) table[c] = true;
    for (int c = '0'; c <= '9'; ++c) table[c] = true;
    for (unsigned char c : std::string_view("-._~!$'()*,;")) table[c] = true;
    for (unsigned char c : extra) table[c] = true;
    return table;
}
// The path arrives decoded: "%", "?" and "#" in it are data and must be escaped again.
constexpr std::array<bool, 256> pathAllowed = allowedWith("&+=:@/");
// "&", "=" and "+" inside a query item would split or change it at the upstream.
constexpr std::array<bool, 256> queryItemAllowed = allowedWith(":@/?");

// True for an absolute http or https URL with a host, as RFC 3986 reads it.
bool isHTTPURL(std::string_view text) {
    UriUriA uri;
    const char* errorAt = nullptr;
    if (uriParseSingleUriExA(&uri, text.data(), text.data() + text.size(), &errorAt) != URI_SUCCESS) return false;
    std::string_view scheme(uri.scheme.first ? uri.scheme.first : "",
                            uri.scheme.first ? static_cast<std::size_t>(uri.scheme.afterLast - uri.scheme.first) : 0);
    const bool hasHost = uri.hostText.first != nullptr && uri.hostText.afterLast != uri.hostText.first;
    uriFreeUriMembersA(&uri);
    return hasHost && (detail::equalsIgnoringCase(scheme, "http") || detail::equalsIgnoringCase(scheme, "https"));
}

}  // namespace

ProxyHTTPHandler::ProxyHTTPHandler(std::string base, std::shared_ptr<HTTPClientSession> session,
                                   std::optional<double> timeout)
    : base(std::move(base)), session(std::move(session)), timeout(timeout) {}

std::string ProxyHTTPHandler::targetURL(const HTTPRequest& request) const {
    if (!isHTTPURL(base)) throw BadURLError();
    std::string_view text = base;
    text = text.substr(0, text.find('#'));  // a fragment is never sent
    const std::size_t questionMark = text.find('?');
    std::string_view baseQuery = questionMark == std::string_view::npos ? std::string_view() : text.substr(questionMark + 1);
    std::string_view prefix = text.substr(0, questionMark);

    std::string target(prefix);
    // The path joins the base's as one more component: exactly one "/" between them.
    const std::size_t authorityStart = target.find("//") + 2;
    const bool basePathEmpty = target.find('/', authorityStart) == std::string::npos;
    std::string_view path = request.path;
    if (!path.empty() && path.front() == '/') path.remove_prefix(1);
    if (basePathEmpty || target.back() != '/') target += '/';
    detail::appendPercentEncoded(target, path, pathAllowed);

    if (!request.query.empty()) {
        char separator = '?';
        for (const auto& item : request.query) {
            target += separator;
            separator = '&';
            detail::appendPercentEncoded(target, item.name, queryItemAllowed);
            if (!item.value.empty()) {
                target += '=';
                detail::appendPercentEncoded(target, item.value, queryItemAllowed);
            }
        }
    } else if (questionMark != std::string_view::npos) {
        target += '?';
        target += baseQuery;
    }
    if (!isHTTPURL(target)) throw BadURLError();
    return target;
}

async::Task<HTTPResponse> ProxyHTTPHandler::handleRequest(HTTPRequest request) {
    HTTPClientSession::Request outgoing;
    outgoing.url = targetURL(request);
    outgoing.method = request.method;
    outgoing.headers = request.headers;
    outgoing.timeout = std::chrono::milliseconds(std::llround(timeout.value_or(defaultTimeout) * 1000));
    outgoing.body = co_await request.bodyData();
    HTTPClientSession::Response answer = co_await session->send(std::move(outgoing));

    HTTPHeaders headers;
    for (auto field : answer.headers) {
        if (!(HTTPHeader(field.name) == HTTPHeader::contentEncoding)) headers.set(field.name, field.value);
    }
    co_return HTTPResponse(HTTPStatusCode(answer.statusCode, ""), std::move(headers), std::move(answer.body));
}

}  // namespace orvel::http
