#pragma once
#include "http/HTTPHeader.h"
#include "http/HTTPMethod.h"
#include "http/HTTPRequest.h"
#include "http/HTTPRouteParameterValue.h"

#include <cstddef>
#include <initializer_list>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

namespace orvel::http {

// A predicate over a whole request body. Must not block.
class HTTPBodyPattern {
public:
    virtual ~HTTPBodyPattern() = default;
    virtual bool evaluate(std::string_view body) const = 0;
};

// The pattern that decides whether a request is meant for a handler: methods, path components
// (literals, :parameters, * wildcards), required query items and header values, and an optional
// body predicate. Written as short strings such as "GET /version" or "*". Immutable once built
// and shared by every connection.
class HTTPRoute {
public:
    class Component {
    public:
        enum class Kind { caseInsensitive, parameter, wildcard };

        // "*" is the wildcard, ":name" a parameter, anything else literal text.
        static Component make(std::string_view text);
        static Component caseInsensitive(std::string text) { return {Kind::caseInsensitive, std::move(text)}; }
        static Component parameter(std::string name) { return {Kind::parameter, std::move(name)}; }
        static Component wildcard() { return {Kind::wildcard, {}}; }

        Kind kind() const noexcept { return kind_; }
        // The literal text, or the parameter's name.
        const std::string& text() const noexcept { return text_; }
        bool matches(std::string_view value) const noexcept;
        std::string description() const;

        friend bool operator==(const Component&, const Component&) = default;

    private:
        Component(Kind kind, std::string text) : kind_(kind), text_(std::move(text)) {}
        Kind kind_;
        std::string text_;
    };

    struct QueryItem {
        std::string name;  // compared exactly
        Component value;
        std::string description() const { return name + "=" + value.description(); }
        friend bool operator==(const QueryItem&, const QueryItem&) = default;
    };

    // Where a declared parameter takes its value from: a path position or a query item's name.
    struct Parameter {
        enum class Kind { path, query };
        Kind kind;
        std::string name;
        std::size_t position = 0;  // path
        std::string item;          // query

        static Parameter path(std::string name, std::size_t position) { return {Kind::path, std::move(name), position, {}}; }
        static Parameter query(std::string name, std::string item) { return {Kind::query, std::move(name), 0, std::move(item)}; }
        friend bool operator==(const Parameter&, const Parameter&) = default;
    };

    using Headers = std::vector<std::pair<HTTPHeader, std::string>>;

    HTTPRoute(const char* text) : HTTPRoute(std::string_view(text)) {}  // NOLINT: routes are written as literals
    explicit HTTPRoute(std::string_view text, const Headers& headers = {},
                       std::shared_ptr<const HTTPBodyPattern> body = nullptr);
    HTTPRoute(const HTTPMethod& method, std::string_view path, const Headers& headers = {},
              std::shared_ptr<const HTTPBodyPattern> body = nullptr);
    HTTPRoute(std::span<const HTTPMethod> methods, std::string_view path, const Headers& headers = {},
              std::shared_ptr<const HTTPBodyPattern> body = nullptr);
    HTTPRoute(std::initializer_list<HTTPMethod> methods, std::string_view path, const Headers& headers = {},
              std::shared_ptr<const HTTPBodyPattern> body = nullptr)
        : HTTPRoute(std::span<const HTTPMethod>(methods.begin(), methods.size()), path, headers, std::move(body)) {}

    // Distinct methods, in the order first given.
    const std::vector<HTTPMethod>& methods() const noexcept { return methods_; }
    const std::vector<Component>& path() const noexcept { return path_; }
    const std::vector<QueryItem>& query() const noexcept { return query_; }
    const std::vector<std::pair<HTTPHeader, Component>>& headers() const noexcept { return headers_; }
    const std::shared_ptr<const HTTPBodyPattern>& body() const noexcept { return body_; }

    // The checks that come before the body, and those that come after it.
    bool matchesQueryAndHeaders(const HTTPRequest& request) const noexcept;
    bool matchesMethodAndPath(const HTTPRequest& request) const noexcept;

    std::vector<Parameter> parameters() const;
    // Resolved parameters in declaration order; those that resolve to nothing are left out.
    std::vector<HTTPRequest::RouteParameter> extractParameters(const HTTPRequest& request) const;

    // The k-th resolved parameter converted to the k-th type; throws HTTPRouteParameterInvalid
    // when there are fewer values than types or a conversion fails.
    template <typename... Ts>
    std::tuple<Ts...> extractParameterValues(const HTTPRequest& request) const {
        auto values = extractParameters(request);
        if (values.size() < sizeof...(Ts)) throw HTTPRouteParameterInvalid();
        return convert<Ts...>(values, std::index_sequence_for<Ts...>{});
    }

    // "GET /version", "/*", "GET,POST /a/:id?x=*".
    std::string description() const;

    friend bool operator==(const HTTPRoute&, const HTTPRoute&) = default;

private:
    void parsePathText(std::string_view text, const Headers& headers);

    template <typename... Ts, std::size_t... Is>
    static std::tuple<Ts...> convert(const std::vector<HTTPRequest::RouteParameter>& values, std::index_sequence<Is...>) {
        // Braced initialisation converts left to right, so the first failure ends it.
        return std::tuple<Ts...>{HTTPRouteParameterValue<Ts>::make(values[Is].value)...};
    }

    std::vector<HTTPMethod> methods_;
    std::vector<Component> path_;
    std::vector<QueryItem> query_;
    std::vector<std::pair<HTTPHeader, Component>> headers_;
    std::shared_ptr<const HTTPBodyPattern> body_;
};

}  // namespace orvel::http
