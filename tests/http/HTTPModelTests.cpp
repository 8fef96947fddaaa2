#include "http/HTTPRequest.h"

#include "HTTPTestSupport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace orvel::http {
namespace {

using ::testing::ElementsAre;

HTTPRequest requestWith(HTTPHeaders headers) { return request("GET", "/", std::move(headers)); }

TEST(HTTPHeaderNames, SurviveSettingAValueTakenFromTheSameHeaders) {
    HTTPHeaders headers{{"A", "short"}, {"B", "a much longer value than the other"}};
    headers.set("A", *headers.value("B"));
    headers.set("C", *headers.value("A"));
    // Names compare without case.
    EXPECT_EQ(headers, (HTTPHeaders{{"c", "a much longer value than the other"},
                                    {"b", "a much longer value than the other"},
                                    {"a", "a much longer value than the other"}}));
}

TEST(HTTPHeaderValueLists, SplitTrimAndJoin) {
    HTTPHeaders headers{{"Transfer-Encoding", " gzip ,, \tbr"}};
    EXPECT_THAT(headers.values(HTTPHeader::transferEncoding), ElementsAre("gzip", "br"));
    headers.addValue("chunked", HTTPHeader::transferEncoding);
    EXPECT_EQ(headers.value(HTTPHeader::transferEncoding), "gzip, br, chunked");
    headers.addValue("chunked", "Content-Encoding");
    EXPECT_EQ(headers.value(HTTPHeader::contentEncoding), "chunked");
    EXPECT_TRUE(headers.values("absent").empty());
    EXPECT_TRUE(headers.erase("CONTENT-encoding"));
    EXPECT_FALSE(headers.value(HTTPHeader::contentEncoding));
}

TEST(HTTPRequestHeaders, KeepAliveNeedsTheWholeValueAndTheRemoteIPPrefersTheFirstForwardedPiece) {
    EXPECT_TRUE(requestWith({{"Connection", "Keep-Alive"}}).shouldKeepAlive());
    EXPECT_FALSE(requestWith({{"Connection", "keep-alive, Upgrade"}}).shouldKeepAlive());
    EXPECT_FALSE(requestWith({}).shouldKeepAlive());

    EXPECT_EQ(requestWith({{"X-Forwarded-For", "10.0.0.1, 10.0.0.2"}}).remoteIPAddress(), "10.0.0.1");
    EXPECT_EQ(requestWith({{"X-Forwarded-For", ", 10.0.0.2"}}).remoteIPAddress(), " 10.0.0.2");
    auto viaPeer = requestWith({{"X-Forwarded-For", ",,"}});
    viaPeer.remoteAddress = HTTPRequest::Address::ip6("::1", 80);
    EXPECT_EQ(viaPeer.remoteIPAddress(), "::1");
    viaPeer.remoteAddress = HTTPRequest::Address::unix("/tmp/s");
    EXPECT_FALSE(viaPeer.remoteIPAddress());
}

}  // namespace
}  // namespace orvel::http
