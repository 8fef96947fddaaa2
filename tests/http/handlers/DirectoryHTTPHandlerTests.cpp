#include "http/handlers/DirectoryHTTPHandler.h"

#include "FileTree.h"

#include <gtest/gtest.h>

namespace orvel::http {
namespace {

TEST(DirectoryHTTPHandler, MapsRequestPathsBelowTheRootAndNothingElse) {
    FileTree tree;
    const std::string notFound = "404 - ";
    // The server path, a target (decoded as the server decodes one) and the answer.
    const std::tuple<std::string, std::string, std::string> cases[] = {
        {"/static", "/static/css/site.css", "200 Content-Type=text/css body{}"},
        {"/static", "/other/x", notFound},
        {"static", "/staticfiles/a", "200 Content-Type=application/octet-stream file a"},  // a prefix of characters
        {"//static/", "/static//index.HTML", "200 Content-Type=text/html <p>hi</p>"},
        {"/", "/data", "200 Content-Type=application/octet-stream raw"},
        {"", "/empty.json", "200 Content-Type=application/json "},
        {"", "/big.bin", "200 Content-Type=application/octet-stream " + tree.big},
        {"/static", "/static", notFound},  // the root itself is no file
        {"", "/css", notFound},
        {"", "/missing", notFound},
        {"", "/pipe", notFound},  // and answered at once: a FIFO without a writer is never opened for reading
        {"", "/link-in", "200 Content-Type=application/octet-stream body{}"},
        {"", "/link-out", notFound},  // a link leading out of the root is not followed
        {"", "/..%2F..%2Fsecret", notFound},
        {"", "/%2e%2e/%2e%2e/secret", notFound},
        {"", "/..%2F..%2Fetc%2Fpasswd", notFound},
    };
    for (const auto& [serverPath, target, expected] : cases) {
        DirectoryHTTPHandler handler(tree.root, serverPath);
        EXPECT_EQ(answer(handler, request("GET", target)), expected) << serverPath << " " << target;
    }

    // Paths no decoder hands on, in case a handler is called by other code: still never above the root.
    DirectoryHTTPHandler any(tree.root, "");
    for (const std::string& path : std::vector<std::string>{"/../../secret", "../../secret", (tree.folder / "secret").string()}) {
        HTTPRequest r = request("GET", "/");
        r.path = path;
        EXPECT_EQ(answer(any, r), notFound) << path;
    }
    DirectoryHTTPHandler missingRoot(tree.folder / "missing", "");
    DirectoryHTTPHandler noRoot(std::nullopt, "");
    DirectoryHTTPHandler resources = DirectoryHTTPHandler::resource(tree.folder / "www", "root", "/static");
    DirectoryHTTPHandler noResources = DirectoryHTTPHandler::resource(std::nullopt, "root", "");
    EXPECT_EQ(answer(missingRoot, request("GET", "/data")), notFound);
    EXPECT_EQ(answer(noRoot, request("GET", "/data")), notFound);
    EXPECT_EQ(answer(resources, request("GET", "/static/data")), "200 Content-Type=application/octet-stream raw");
    EXPECT_EQ(answer(noResources, request("GET", "/data")), notFound);
}

}  // namespace
}  // namespace orvel::http
