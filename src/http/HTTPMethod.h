#pragma once
#include "http/detail/Ascii.h"

#include <array>
#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace orvel::http {

// A request method. Stored upper-cased, so "get" and "GET" are one method; methods outside the
// nine standard ones are kept as their upper-cased text. A plain value.
class HTTPMethod {
public:
    explicit HTTPMethod(std::string_view text) : rawValue(detail::upperCased(text)) {}

    std::string rawValue;

    static const HTTPMethod GET, POST, PUT, DELETE, PATCH, HEAD, OPTIONS, CONNECT, TRACE;
    // The nine standard methods in their standard order (the default method set of a route).
    static const std::array<HTTPMethod, 9> allMethods;

    friend bool operator==(const HTTPMethod& a, const HTTPMethod& b) noexcept {
        return detail::equalsIgnoringCase(a.rawValue, b.rawValue);
    }
};

inline const HTTPMethod HTTPMethod::GET{"GET"};
inline const HTTPMethod HTTPMethod::POST{"POST"};
inline const HTTPMethod HTTPMethod::PUT{"PUT"};
inline const HTTPMethod HTTPMethod::DELETE{"DELETE"};
inline const HTTPMethod HTTPMethod::PATCH{"PATCH"};
inline const HTTPMethod HTTPMethod::HEAD{"HEAD"};
inline const HTTPMethod HTTPMethod::OPTIONS{"OPTIONS"};
inline const HTTPMethod HTTPMethod::CONNECT{"CONNECT"};
inline const HTTPMethod HTTPMethod::TRACE{"TRACE"};
inline const std::array<HTTPMethod, 9> HTTPMethod::allMethods{
    HTTPMethod{"GET"},  HTTPMethod{"POST"},    HTTPMethod{"PUT"},     HTTPMethod{"DELETE"}, HTTPMethod{"PATCH"},
    HTTPMethod{"HEAD"}, HTTPMethod{"OPTIONS"}, HTTPMethod{"CONNECT"}, HTTPMethod{"TRACE"}};

}  // namespace orvel::http

template <>
struct std::hash<orvel::http::HTTPMethod> {
    std::size_t operator()(const orvel::http::HTTPMethod& m) const noexcept {
        return orvel::http::detail::hashIgnoringCase(m.rawValue);
    }
};
