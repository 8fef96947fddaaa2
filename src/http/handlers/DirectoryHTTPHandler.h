#pragma once
#include "http/HTTPHandler.h"

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace orvel::http {

// Serves the files below `root` for request paths that begin with `serverPath`: the rest of the
// path names the file. Both paths are compared with empty pieces dropped, as plain text (with the
// server path "static", "/staticfiles/a" is root/files/a). 200 with the content type of the file's
// extension, or 404 with no headers when there is no readable regular file. A symbolic link is
// followed only while it stays below `root`: a link to a file elsewhere finds no file, so whoever
// can write in the folder cannot publish what lies outside it. Immutable; serves requests at once.
class DirectoryHTTPHandler final : public HTTPHandler {
public:
    DirectoryHTTPHandler(std::optional<std::filesystem::path> root, std::string serverPath);
    // The sub-directory `name` of a resource bundle's folder (absent when the bundle has none).
    static DirectoryHTTPHandler resource(const std::optional<std::filesystem::path>& resourceDirectory,
                                         std::string_view name, std::string serverPath);

    const std::optional<std::filesystem::path>& root() const noexcept { return root_; }
    const std::string& serverPath() const noexcept { return serverPath_; }

    async::Task<HTTPResponse> handleRequest(HTTPRequest request) override;

private:
    std::optional<std::filesystem::path> root_;
    std::string serverPath_;
    std::string normalisedServerPath_;
};

}  // namespace orvel::http
