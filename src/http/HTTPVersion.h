#pragma once
#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace orvel::http {

// The protocol version of a message, kept as received: nothing rejects an unknown version.
class HTTPVersion {
public:
    explicit HTTPVersion(std::string_view text) : rawValue(text) {}

    std::string rawValue;

    static const HTTPVersion http11;

    friend bool operator==(const HTTPVersion&, const HTTPVersion&) = default;
};

inline const HTTPVersion HTTPVersion::http11{"HTTP/1.1"};

}  // namespace orvel::http

template <>
struct std::hash<orvel::http::HTTPVersion> {
    std::size_t operator()(const orvel::http::HTTPVersion& v) const noexcept {
        return std::hash<std::string>{}(v.rawValue);
    }
};
