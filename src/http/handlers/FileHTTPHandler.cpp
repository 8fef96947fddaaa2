#include "http/handlers/FileHTTPHandler.h"

#include "http/detail/FileBody.h"

namespace orvel::http {

FileHTTPHandler FileHTTPHandler::resource(std::string_view name,
                                          const std::optional<std::filesystem::path>& resourceDirectory) {
    std::optional<std::filesystem::path> path;
    if (resourceDirectory) path = *resourceDirectory / name;
    return FileHTTPHandler(std::move(path), std::string(detail::contentTypeForPath(name)));
}

async::Task<HTTPResponse> FileHTTPHandler::handleRequest(HTTPRequest) {
    std::optional<HTTPBodySequence> body;
    if (path_) body = detail::openFileBody(*path_);
    if (!body) co_return HTTPResponse(HTTPStatusCode::notFound);
    co_return HTTPResponse(HTTPStatusCode::ok, {{HTTPHeader::contentType, contentType_}}, *std::move(body));
}

}  // namespace orvel::http
