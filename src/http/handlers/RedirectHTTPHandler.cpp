#include "http/handlers/RedirectHTTPHandler.h"

#include "http/BadURLError.h"

#include <uriparser/Uri.h>

namespace orvel::http {
namespace {

// An RFC 3986 URI reference, absolute or relative. Empty text is none: it names no place.
bool isURL(const std::string& text) {
    if (text.empty()) return false;
    UriUriA uri;
    const char* errorPos = nullptr;
    if (uriParseSingleUriExA(&uri, text.data(), text.data() + text.size(), &errorPos) != URI_SUCCESS) return false;
    uriFreeUriMembersA(&uri);
    return true;
}

}  // namespace

RedirectHTTPHandler::RedirectHTTPHandler(std::string location) : location_(std::move(location)), isURL_(isURL(location_)) {}

async::Task<HTTPResponse> RedirectHTTPHandler::handleRequest(HTTPRequest) {
    if (!isURL_) throw BadURLError();
    // The text parsed as a URL is its own absolute text: a relative location stays relative.
    co_return HTTPResponse(HTTPStatusCode::movedPermanently, {{HTTPHeader::location, location_}});
}

}  // namespace orvel::http
