#include "http/handlers/RedirectHTTPHandler.h"

#include "FileTree.h"

#include <gtest/gtest.h>

namespace orvel::http {
namespace {

TEST(RedirectHTTPHandler, AnswersMovedPermanentlyToAURLOrFails) {
    const std::pair<std::string, std::string> cases[] = {
        {"/new", "301 Location=/new "},
        {"https://example.com:8443/a/b?c=d#e", "301 Location=https://example.com:8443/a/b?c=d#e "},
        {"../up", "301 Location=../up "},
        {"", "bad URL"},
        {"/a b", "bad URL"},
        {"/a\r\nSet-Cookie: x=1", "bad URL"},
        {"http://[::1/", "bad URL"},
        {"/%zz", "bad URL"},
    };
    for (const auto& [location, expected] : cases) {
        RedirectHTTPHandler handler(location);
        EXPECT_EQ(answer(handler, request("GET", "/old")), expected) << location;
    }
}

}  // namespace
}  // namespace orvel::http
