#pragma once
#include "http/HTTPBodySequence.h"
#include "http/HTTPHeader.h"
#include "http/HTTPMethod.h"
#include "http/HTTPVersion.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace orvel::http {

// One decoded (or constructed) request: a plain value. The path is already percent-decoded and
// free of dot segments; the body is shared between copies.
class HTTPRequest {
public:
    struct QueryItem {
        std::string name;
        std::string value;  // "" when the item had no value
        friend bool operator==(const QueryItem&, const QueryItem&) = default;
    };

    struct RouteParameter {
        std::string name;
        std::string value;
        friend bool operator==(const RouteParameter&, const RouteParameter&) = default;
    };

    // The peer of a connection in readable form.
    struct Address {
        enum class Kind { ip4, ip6, unix };
        Kind kind;
        std::string text;  // dotted address, IPv6 text, or the Unix-domain path
        std::uint16_t port = 0;

        static Address ip4(std::string text, std::uint16_t port) { return {Kind::ip4, std::move(text), port}; }
        static Address ip6(std::string text, std::uint16_t port) { return {Kind::ip6, std::move(text), port}; }
        static Address unix(std::string path) { return {Kind::unix, std::move(path), 0}; }
        friend bool operator==(const Address&, const Address&) = default;
    };

    HTTPRequest(HTTPMethod method, HTTPVersion version, std::string path, std::vector<QueryItem> query,
                HTTPHeaders headers, HTTPBodySequence bodySequence)
        : method(std::move(method)),
          version(std::move(version)),
          path(std::move(path)),
          query(std::move(query)),
          headers(std::move(headers)),
          bodySequence(std::move(bodySequence)) {}

    HTTPRequest(HTTPMethod method, HTTPVersion version, std::string path, std::vector<QueryItem> query,
                HTTPHeaders headers, std::string body)
        : HTTPRequest(std::move(method), std::move(version), std::move(path), std::move(query), std::move(headers),
                      HTTPBodySequence(std::move(body))) {}

    HTTPMethod method;
    HTTPVersion version;
    std::string path;
    std::vector<QueryItem> query;
    HTTPHeaders headers;
    HTTPBodySequence bodySequence;
    std::optional<Address> remoteAddress;
    // This side's end of the connection (with remoteAddress, the pair that names it).
    std::optional<Address> localAddress;

    // True exactly when the Connection header's whole value is "keep-alive", ignoring case.
    bool shouldKeepAlive() const noexcept;
    // The first non-empty X-Forwarded-For piece as it stands, else the peer's IP text.
    std::optional<std::string> remoteIPAddress() const;
    // The whole body in one buffer.
    async::Task<HTTPBodySequence::Bytes> bodyData() const { return bodySequence.collect(); }
    // The parameters of the route that matched this request, for code running inside the
    // matched handler; empty elsewhere.
    std::vector<RouteParameter> routeParameters() const;
};

}  // namespace orvel::http

template <>
struct std::hash<orvel::http::HTTPRequest::RouteParameter> {
    std::size_t operator()(const orvel::http::HTTPRequest::RouteParameter& p) const noexcept {
        return std::hash<std::string>{}(p.name) * 31 + std::hash<std::string>{}(p.value);
    }
};

template <>
struct std::hash<orvel::http::HTTPRequest::Address> {
    std::size_t operator()(const orvel::http::HTTPRequest::Address& a) const noexcept {
        return (std::hash<std::string>{}(a.text) * 31 + a.port) * 31 + static_cast<std::size_t>(a.kind);
    }
};
