#pragma once
#include "http/HTTPHandler.h"

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace orvel::http {

// Answers every request with one file: 200 with its content type and bytes, or 404 with no
// headers when there is no file or no readable regular file at its path. Immutable; serves any
// number of requests at once.
class FileHTTPHandler final : public HTTPHandler {
public:
    FileHTTPHandler(std::optional<std::filesystem::path> path, std::string contentType)
        : path_(std::move(path)), contentType_(std::move(contentType)) {}
    // The file `name` in a resource bundle's folder (absent when the bundle has none), typed by
    // the extension of `name`.
    static FileHTTPHandler resource(std::string_view name, const std::optional<std::filesystem::path>& resourceDirectory);

    const std::optional<std::filesystem::path>& path() const noexcept { return path_; }
    const std::string& contentType() const noexcept { return contentType_; }

    async::Task<HTTPResponse> handleRequest(HTTPRequest request) override;

private:
    std::optional<std::filesystem::path> path_;
    std::string contentType_;
};

}  // namespace orvel::http
