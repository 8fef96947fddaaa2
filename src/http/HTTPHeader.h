#pragma once
#include "http/detail/Ascii.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace orvel::http {

// A header name, kept exactly as received or written (that spelling goes out on the wire) and
// compared without regard to letter case.
class HTTPHeader {
public:
    HTTPHeader(std::string_view name) : rawValue(name) {}  // NOLINT: names are written as literals
    HTTPHeader(const char* name) : rawValue(name) {}       // NOLINT
    HTTPHeader(std::string name) : rawValue(std::move(name)) {}  // NOLINT

    operator std::string_view() const noexcept { return rawValue; }  // NOLINT: lookups take views

    std::string rawValue;

    static const HTTPHeader authorization, connection, contentLength, contentType, contentEncoding, host,
        location, webSocketAccept, webSocketKey, webSocketVersion, transferEncoding, upgrade, xForwardedFor;

    friend bool operator==(const HTTPHeader& a, const HTTPHeader& b) noexcept {
        return detail::equalsIgnoringCase(a.rawValue, b.rawValue);
    }
};

inline const HTTPHeader HTTPHeader::authorization{"Authorization"};
inline const HTTPHeader HTTPHeader::connection{"Connection"};
inline const HTTPHeader HTTPHeader::contentLength{"Content-Length"};
inline const HTTPHeader HTTPHeader::contentType{"Content-Type"};
inline const HTTPHeader HTTPHeader::contentEncoding{"Content-Encoding"};
inline const HTTPHeader HTTPHeader::host{"Host"};
inline const HTTPHeader HTTPHeader::location{"Location"};
inline const HTTPHeader HTTPHeader::webSocketAccept{"Sec-WebSocket-Accept"};
inline const HTTPHeader HTTPHeader::webSocketKey{"Sec-WebSocket-Key"};
inline const HTTPHeader HTTPHeader::webSocketVersion{"Sec-WebSocket-Version"};
inline const HTTPHeader HTTPHeader::transferEncoding{"Transfer-Encoding"};
inline const HTTPHeader HTTPHeader::upgrade{"Upgrade"};
inline const HTTPHeader HTTPHeader::xForwardedFor{"X-Forwarded-For"};

// The headers of one message: one value per name, names compared without regard to case, the
// first spelling of a name kept. Names and values live in one string so that a decoded request
// costs two allocations whatever its header count; views returned by lookups stay valid until
// the next change. Iteration follows insertion order (the wire order is not defined).
class HTTPHeaders {
public:
    struct Field {
        std::string_view name;
        std::string_view value;
    };

    HTTPHeaders() = default;
    HTTPHeaders(std::initializer_list<std::pair<std::string_view, std::string_view>> fields);

    std::size_t size() const noexcept { return slots_.size(); }
    bool empty() const noexcept { return slots_.empty(); }
    void reserve(std::size_t fields, std::size_t bytes);

    std::optional<std::string_view> value(std::string_view name) const noexcept;
    bool contains(std::string_view name) const noexcept { return find(name) != npos; }

    // Stores the value; an existing field keeps its name's spelling and only its value changes.
    void set(std::string_view name, std::string_view value);
    bool erase(std::string_view name) noexcept;
    void clear() noexcept;

    // The value split at every "," (empty pieces dropped), each piece trimmed of blanks and tabs.
    std::vector<std::string_view> values(std::string_view name) const;
    // Stores the pieces joined with ", ".
    void setValues(std::span<const std::string_view> values, std::string_view name);
    // values(name) plus the new value at the end, stored joined with ", ".
    void addValue(std::string_view value, std::string_view name);

    class Iterator {
    public:
        using value_type = Field;
        using difference_type = std::ptrdiff_t;
        Iterator() = default;
        Field operator*() const noexcept { return owner_->field(index_); }
        Iterator& operator++() noexcept { ++index_; return *this; }
        Iterator operator++(int) noexcept { auto copy = *this; ++index_; return copy; }
        friend bool operator==(const Iterator& a, const Iterator& b) noexcept { return a.index_ == b.index_; }

    private:
        friend class HTTPHeaders;
        Iterator(const HTTPHeaders* owner, std::size_t index) : owner_(owner), index_(index) {}
        const HTTPHeaders* owner_ = nullptr;
        std::size_t index_ = 0;
    };
    Iterator begin() const noexcept { return {this, 0}; }
    Iterator end() const noexcept { return {this, slots_.size()}; }
    Field field(std::size_t index) const noexcept;

    // Same names (ignoring case) with the same values, in any order.
    friend bool operator==(const HTTPHeaders& a, const HTTPHeaders& b) noexcept;

private:
    static constexpr std::size_t npos = static_cast<std::size_t>(-1);
    struct Slot {
        std::uint32_t nameAt, nameLength, valueAt, valueLength;
    };
    std::size_t find(std::string_view name) const noexcept;
    std::uint32_t append(std::string_view bytes);

    std::string text_;
    std::vector<Slot> slots_;
};

}  // namespace orvel::http

template <>
struct std::hash<orvel::http::HTTPHeader> {
    std::size_t operator()(const orvel::http::HTTPHeader& h) const noexcept {
        return orvel::http::detail::hashIgnoringCase(h.rawValue);
    }
};
