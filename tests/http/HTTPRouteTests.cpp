#include "http/HTTPRoute.h"

#include "HTTPTestSupport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <tuple>

namespace orvel::http {
namespace {

using Kind = HTTPRoute::Component::Kind;
using ::testing::ElementsAre;
using Parameter = HTTPRequest::RouteParameter;

bool matches(const HTTPRoute& route, const HTTPRequest& r) {
    return route.matchesQueryAndHeaders(r) && route.matchesMethodAndPath(r);
}

TEST(HTTPRouteMatching, FollowsTheEdgeCaseTable) {
    const std::tuple<const char*, const char*, const char*, bool> cases[] = {
        {"GET /version", "GET", "/version", true},
        {"GET /version", "get", "/VERSION", true},
        {"GET /version", "GET", "//version/", false},  // as a target, "//version" is an authority
        {"GET /version", "POST", "/version", false},
        {"GET /version", "GET", "/version/x", false},
        {"*", "GET", "/", true},
        {"*", "DELETE", "/a/b/c", true},
        {"*", "TRACE", "/", true},
        {"/a/*", "GET", "/a/b", true},
        {"/a/*", "GET", "/a/b/c", true},
        {"/a/*", "GET", "/a", false},
        {"/a/:id", "GET", "/a/7", true},
        {"/a/:id", "GET", "/a", false},
        {"/a/:id", "GET", "/a/7/8", false},
        {"/", "GET", "/", true},
        {"/", "GET", "/x", false},
        {"/q?x=1", "GET", "/q?x=1", true},
        {"/q?x=1", "GET", "/q?y=2&x=1", true},
        {"/q?x=1", "GET", "/q?x=1&x=2", true},
        {"/q?x=1", "GET", "/q", false},
        {"/q?x=1", "GET", "/q?X=1", false},
        {"/q?x=*", "GET", "/q?x=", true},
        {"/q?x=:v", "GET", "/q?x", true},
        {"/*/b", "GET", "/", true},
        {"/a/../b", "GET", "/b", true},
        {"/hello world", "GET", "/hello%20world", true},
        {"BREW /pot", "brew", "/pot", true},
        {"BREW /pot", "GET", "/pot", false},
    };
    for (const auto& [route, method, target, match] : cases)
        EXPECT_EQ(matches(HTTPRoute(route), request(method, target)), match) << route << " against " << method << " " << target;
    // A path given directly (not read from a target) ignores leading, trailing and doubled "/".
    EXPECT_TRUE(matches("GET /version", HTTPRequest(HTTPMethod::GET, HTTPVersion::http11, "//version/", {}, {}, std::string())));
}

TEST(HTTPRouteMatching, HeaderValuesNeedAPresentNonEmptyValue) {
    HTTPRoute any("/ws", {{HTTPHeader::upgrade, "*"}});
    HTTPRoute exact("/ws", {{HTTPHeader::connection, "upgrade"}});
    EXPECT_TRUE(matches(any, request("GET", "/ws", {{"upgrade", "websocket"}})));
    EXPECT_FALSE(matches(any, request("GET", "/ws")));
    EXPECT_FALSE(matches(any, request("GET", "/ws", {{"Upgrade", ""}})));
    EXPECT_TRUE(matches(exact, request("GET", "/ws", {{"Connection", "keep-alive,  Upgrade "}})));
    EXPECT_FALSE(matches(exact, request("GET", "/ws", {{"Connection", "keep-alive"}})));
}

TEST(HTTPRouteReading, ReadsMethodsPathAndQueryFromItsText) {
    const std::pair<const char*, const char*> cases[] = {
        {"GET /version", "GET /version"},
        {"post,get,brew /a/:id?x=*&y=1", "GET,POST,BREW /a/:id?x=*&y=1"},
        {"*", "/*"},
        {"/hello world", "/hello world"},
        {"GET", "/GET"},  // one word is a path
        {"", "/"},
        {",, /x", "/x"},
        {"/bad%zz", "/"},  // not a URL reference: an empty path
    };
    for (const auto& [text, description] : cases) EXPECT_EQ(HTTPRoute(text).description(), description) << text;
    EXPECT_EQ(HTTPRoute(HTTPMethod::allMethods, "/").description(), "/");
    EXPECT_EQ(HTTPRoute::Component::make(":").kind(), Kind::parameter);
}

TEST(HTTPRouteParameters, ResolvePathAndQueryValuesInOrder) {
    HTTPRoute route("/users/:id?sort=:order");
    EXPECT_THAT(route.parameters(), ElementsAre(HTTPRoute::Parameter::path("id", 1), HTTPRoute::Parameter::query("order", "sort")));
    auto full = request("GET", "/users/42?sort=asc");
    EXPECT_TRUE(matches(route, full));
    EXPECT_THAT(route.extractParameters(full), ElementsAre(Parameter{"id", "42"}, Parameter{"order", "asc"}));
    auto partial = request("GET", "/users?sort=asc");
    EXPECT_FALSE(matches(route, partial));
    EXPECT_THAT(route.extractParameters(partial), ElementsAre(Parameter{"order", "asc"}));
    EXPECT_THROW((route.extractParameterValues<std::string, std::string, int>(full)), HTTPRouteParameterInvalid);
}

struct Colour {
    using RawValue = int;
    int value;
    static std::optional<Colour> fromRawValue(int raw) {
        if (raw < 0 || raw > 2) return std::nullopt;
        return Colour{raw};
    }
};

TEST(HTTPRouteParameters, ConvertOnlyTextTheTypeCanHold) {
    EXPECT_THROW(HTTPRouteParameterValue<unsigned>::make("-5"), HTTPRouteParameterInvalid);
    EXPECT_EQ(HTTPRouteParameterValue<unsigned>::make("-0"), 0u);
    EXPECT_EQ(HTTPRouteParameterValue<std::uint8_t>::make("-000"), 0u);
    EXPECT_THROW(HTTPRouteParameterValue<unsigned>::make("-"), HTTPRouteParameterInvalid);
    EXPECT_THROW(HTTPRouteParameterValue<unsigned>::make("--0"), HTTPRouteParameterInvalid);
    EXPECT_THROW(HTTPRouteParameterValue<std::int8_t>::make("300"), HTTPRouteParameterInvalid);
    EXPECT_EQ(HTTPRouteParameterValue<std::int8_t>::make("-128"), -128);
    EXPECT_EQ(HTTPRouteParameterValue<std::uint64_t>::make("+18446744073709551615"), UINT64_MAX);
    EXPECT_THROW(HTTPRouteParameterValue<std::uint64_t>::make("18446744073709551616"), HTTPRouteParameterInvalid);
    EXPECT_THROW(HTTPRouteParameterValue<int>::make(""), HTTPRouteParameterInvalid);
    EXPECT_THROW(HTTPRouteParameterValue<int>::make("+-1"), HTTPRouteParameterInvalid);
    EXPECT_THROW(HTTPRouteParameterValue<int>::make("1.5"), HTTPRouteParameterInvalid);
    EXPECT_THROW(HTTPRouteParameterValue<bool>::make("yes"), HTTPRouteParameterInvalid);
    EXPECT_FALSE(HTTPRouteParameterValue<bool>::make("False"));
    EXPECT_DOUBLE_EQ(HTTPRouteParameterValue<double>::make("1.5e3"), 1500.0);
    EXPECT_THROW(HTTPRouteParameterValue<double>::make("1.5x"), HTTPRouteParameterInvalid);
    EXPECT_THROW(HTTPRouteParameterValue<float>::make(""), HTTPRouteParameterInvalid);
    EXPECT_EQ(HTTPRouteParameterValue<Colour>::make("2").value, 2);
    EXPECT_THROW(HTTPRouteParameterValue<Colour>::make("3"), HTTPRouteParameterInvalid);
}

}  // namespace
}  // namespace orvel::http
