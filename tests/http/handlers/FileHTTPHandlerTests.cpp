#include "http/handlers/FileHTTPHandler.h"

#include "FileTree.h"

#include <gtest/gtest.h>

namespace orvel::http {
namespace {

TEST(FileHTTPHandler, ServesItsFileOrAnswersNotFound) {
    FileTree tree;
    const std::string notFound = "404 - ";
    std::pair<FileHTTPHandler, std::string> cases[] = {
        {{tree.root / "data", "text/plain"}, "200 Content-Type=text/plain raw"},
        {{tree.root / "empty.json", "x/y"}, "200 Content-Type=x/y "},
        {{tree.root / "big.bin", "x/y"}, "200 Content-Type=x/y " + tree.big},
        {{tree.root / "missing", "x/y"}, notFound},
        {{tree.root / "css", "x/y"}, notFound},
        {{tree.root / "pipe", "x/y"}, notFound},  // answered at once, no thread waits for a writer
        {{std::nullopt, "x/y"}, notFound},
        // From a resource folder the type comes from the name, whatever its case; the last
        // extension of the file's own name counts.
        {FileHTTPHandler::resource("index.HTML", tree.root), "200 Content-Type=text/html <p>hi</p>"},
        {FileHTTPHandler::resource("data", tree.root), "200 Content-Type=application/octet-stream raw"},
        {FileHTTPHandler::resource("css/site.css", tree.root), "200 Content-Type=text/css body{}"},
        {FileHTTPHandler::resource("data", std::nullopt), notFound},
    };
    for (auto& [handler, expected] : cases)
        EXPECT_EQ(answer(handler, request("GET", "/anything")), expected) << handler.path().value_or("(none)");
    EXPECT_EQ(FileHTTPHandler::resource("a.tar.GZ", tree.root).contentType(), "application/octet-stream");

    // The length is announced before the body streams: a file that grows meanwhile still sends
    // exactly that many bytes, one cut short fails the body (never a short answer).
    FileHTTPHandler big(tree.root / "big.bin", "x/y");
    HTTPResponse grown = async::syncWait(big.handleRequest(request("GET", "/")));
    HTTPResponse shrunk = async::syncWait(big.handleRequest(request("GET", "/")));
    std::ofstream(tree.root / "big.bin", std::ios::app) << "more";
    EXPECT_EQ(async::syncWait(grown.bodyData()).size(), tree.big.size());
    std::filesystem::resize_file(tree.root / "big.bin", 10);
    EXPECT_THROW(async::syncWait(shrunk.bodyData()), async::Error);
}

}  // namespace
}  // namespace orvel::http
