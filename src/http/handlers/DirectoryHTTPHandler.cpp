#include "http/handlers/DirectoryHTTPHandler.h"

#include "http/detail/FileBody.h"

namespace orvel::http {
namespace {

// The pieces between slashes, empty ones dropped, joined with "/": "//a/b/" is "a/b".
std::string normalise(std::string_view path) {
    std::string joined;
    joined.reserve(path.size());
    while (!path.empty()) {
        std::size_t slash = path.find('/');
        std::string_view piece = path.substr(0, slash);
        if (!piece.empty()) {
            if (!joined.empty()) joined += '/';
            joined.append(piece);
        }
        if (slash == std::string_view::npos) break;
        path.remove_prefix(slash + 1);
    }
    return joined;
}

}  // namespace

DirectoryHTTPHandler::DirectoryHTTPHandler(std::optional<std::filesystem::path> root, std::string serverPath)
    : root_(std::move(root)), serverPath_(std::move(serverPath)), normalisedServerPath_(normalise(serverPath_)) {}

DirectoryHTTPHandler DirectoryHTTPHandler::resource(const std::optional<std::filesystem::path>& resourceDirectory,
                                                    std::string_view name, std::string serverPath) {
    std::optional<std::filesystem::path> root;
    if (resourceDirectory) root = *resourceDirectory / name;
    return DirectoryHTTPHandler(std::move(root), std::move(serverPath));
}

async::Task<HTTPResponse> DirectoryHTTPHandler::handleRequest(HTTPRequest request) {
    std::string path = normalise(request.path);
    std::optional<HTTPBodySequence> body;
    if (root_ && path.starts_with(normalisedServerPath_)) {
        // What is left names the file below the root; a leading "/" is only the joint.
        std::string_view rest = std::string_view(path).substr(normalisedServerPath_.size());
        if (rest.starts_with('/')) rest.remove_prefix(1);
        body = detail::openFileBodyBeneath(*root_, rest);
        if (body) {
            co_return HTTPResponse(HTTPStatusCode::ok, {{HTTPHeader::contentType, detail::contentTypeForPath(rest)}},
                                   *std::move(body));
        }
    }
    co_return HTTPResponse(HTTPStatusCode::notFound);
}

}  // namespace orvel::http
