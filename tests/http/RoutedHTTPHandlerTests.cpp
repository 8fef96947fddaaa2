#include "http/RoutedHTTPHandler.h"

#include "HTTPTestSupport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace orvel::http {
namespace {

using ::testing::ElementsAre;

auto replying(std::string text) {
    return [text](HTTPRequest) -> async::Task<HTTPResponse> { co_return HTTPResponse(HTTPStatusCode::ok, {}, text); };
}

auto failing(auto error) {
    return [error](HTTPRequest) -> async::Task<HTTPResponse> {
        throw error;
        co_return HTTPResponse(HTTPStatusCode::ok);
    };
}

// How many route parameters the handler sees.
async::Task<HTTPResponse> countParameters(HTTPRequest r) {
    co_return HTTPResponse(HTTPStatusCode::ok, {}, std::to_string(r.routeParameters().size()));
}

class TestError final : public async::Error {
public:
    TestError() : Error("test error") {}
};

constexpr char unhandled[] = "HTTPHandler can not handle the request.";

TEST(RoutedHTTPHandlerDispatch, GivesARequestToTheFirstMatchingRouteThatDoesNotDecline) {
    RoutedHTTPHandler handlers;
    handlers.appendRoute("GET /version", replying("version"));
    handlers.appendRoute("/a", failing(HTTPUnhandledError()));
    handlers.appendRoute("/a", replying("second"));
    handlers.appendRoute("/b", failing(TestError()));
    handlers.appendRoute("/b", replying("never"));
    handlers.appendRoute("/c", failing(HTTPUnhandledError()));
    RoutedHTTPHandler withFallback = handlers;
    withFallback.insertRoute("/c", 0, replying("inserted"));
    withFallback.appendRoute("*", replying("other"));
    EXPECT_EQ(answer(handlers, request("GET", "/version")), "200 - version");
    EXPECT_EQ(answer(handlers, request("POST", "/version")), unhandled);
    EXPECT_EQ(answer(handlers, request("GET", "/a")), "200 - second");
    EXPECT_EQ(answer(handlers, request("GET", "/b")), "test error");  // any other error stops the search
    EXPECT_EQ(answer(handlers, request("GET", "/c")), unhandled);
    EXPECT_EQ(answer(withFallback, request("POST", "/version")), "200 - other");
    EXPECT_EQ(answer(withFallback, request("GET", "/c")), "200 - inserted");
    RoutedHTTPHandler none;
    EXPECT_EQ(answer(none, request("GET", "/")), unhandled);
}

TEST(RoutedHTTPHandlerDispatch, ShowsTheMatchedRouteParametersOnlyInsideTheHandler) {
    RoutedHTTPHandler handlers;
    handlers.appendRoute("/users/:id", [](HTTPRequest r) -> async::Task<HTTPResponse> {
        auto parameters = r.routeParameters();
        EXPECT_THAT(parameters, ElementsAre(HTTPRequest::RouteParameter{"id", "42"}));
        co_return HTTPResponse(HTTPStatusCode::ok, {}, parameters.empty() ? "" : parameters[0].value);
    });
    handlers.appendRoute("/plain", countParameters);
    EXPECT_EQ(answer(handlers, request("GET", "/users/42")), "200 - 42");
    EXPECT_EQ(answer(handlers, request("GET", "/plain")), "200 - 0");
    EXPECT_TRUE(request("GET", "/users/42").routeParameters().empty());

    // An inner routed handler's parameterless route hides the outer route's parameters.
    auto inner = std::make_shared<RoutedHTTPHandler>();
    inner->appendRoute("*", countParameters);
    RoutedHTTPHandler outer;
    outer.appendRoute("/users/:id", inner);
    EXPECT_EQ(answer(outer, request("GET", "/users/42")), "200 - 0");
}

TEST(RoutedHTTPHandlerDispatch, CallsClosuresWithTypedParameters) {
    RoutedHTTPHandler handlers;
    handlers.appendRoute("/sum/:a/:b", [](HTTPRequest r, int a, int b) -> async::Task<HTTPResponse> {
        co_return HTTPResponse(HTTPStatusCode::ok, {}, r.path + "=" + std::to_string(a + b));
    });
    handlers.appendRoute("/neg/:a?flag=:f", [](int a, bool f) -> async::Task<HTTPResponse> {
        co_return HTTPResponse(HTTPStatusCode::ok, {}, std::to_string(f ? -a : a));
    });
    handlers.appendRoute("*", replying("fallback"));
    EXPECT_EQ(answer(handlers, request("GET", "/sum/2/40")), "200 - /sum/2/40=42");
    EXPECT_EQ(answer(handlers, request("GET", "/neg/5?flag=true")), "200 - -5");
    // A value that does not convert is an error, not a decline: no later route is tried.
    EXPECT_EQ(answer(handlers, request("GET", "/sum/2/x")), "HTTPRouteParameterInvalid()");
}

TEST(RoutedHTTPHandlerDispatch, ReadsOnlyAReplayableBodyForABodyPattern) {
    struct StartsWithBrace final : HTTPBodyPattern {
        bool evaluate(std::string_view body) const override { return !body.empty() && body.front() == '{'; }
    };
    RoutedHTTPHandler handlers;
    handlers.appendRoute(HTTPRoute("POST /json", {}, std::make_shared<StartsWithBrace>()), replying("json"));
    handlers.appendRoute("*", replying("other"));
    EXPECT_EQ(answer(handlers, request("POST", "/json", {}, "{}")), "200 - json");
    EXPECT_EQ(answer(handlers, request("POST", "/json", {}, "[]")), "200 - other");

    auto source = std::make_shared<SizedBuffers>(std::vector<std::size_t>{1});
    HTTPRequest streamed = request("POST", "/json");
    streamed.bodySequence = HTTPBodySequence(source, 2);
    EXPECT_EQ(answer(handlers, streamed), "200 - other");
    EXPECT_EQ(source->reads, 0);
}

}  // namespace
}  // namespace orvel::http
