#pragma once
#include "async/Error.h"

#include <charconv>
#include <concepts>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

namespace orvel::http {

// Raised when a route parameter is missing or its text does not convert to the asked type.
class HTTPRouteParameterInvalid final : public async::Error {
public:
    HTTPRouteParameterInvalid() : Error("HTTPRouteParameterInvalid()") {}
};

// How a typed route parameter is made from its text: specialise with a static
// `T make(std::string_view)` that throws HTTPRouteParameterInvalid. Provided for std::string,
// bool, the integers, float and double, and types with a raw value (below).
template <typename T>
struct HTTPRouteParameterValue;

namespace detail {
double parseDouble(std::string_view text);  // throws HTTPRouteParameterInvalid
float parseFloat(std::string_view text);    // throws HTTPRouteParameterInvalid
}  // namespace detail

template <>
struct HTTPRouteParameterValue<std::string> {
    static std::string make(std::string_view text) { return std::string(text); }
};

template <>
struct HTTPRouteParameterValue<bool> {
    static bool make(std::string_view text) {
        if (text.size() == 4 || text.size() == 5) {
            char lower[5];
            for (std::size_t i = 0; i < text.size(); ++i) {
                char c = text[i];
                lower[i] = c >= 'A' && c <= 'Z' ? char(c + 32) : c;
            }
            std::string_view folded(lower, text.size());
            if (folded == "true") return true;
            if (folded == "false") return false;
        }
        throw HTTPRouteParameterInvalid();
    }
};

// Decimal digits with an optional sign, the whole text, within the type's range. An unsigned
// type takes a minus sign too, when what follows is zero ("-0" is 0).
template <typename T>
    requires(std::is_integral_v<T> && !std::is_same_v<T, bool>)
struct HTTPRouteParameterValue<T> {
    static T make(std::string_view text) {
        const bool negated = std::is_unsigned_v<T> && !text.empty() && text.front() == '-';
        if (!text.empty() && (text.front() == '+' || negated)) {
            text.remove_prefix(1);
            if (text.empty() || text.front() < '0' || text.front() > '9') throw HTTPRouteParameterInvalid();
        }
        T value{};
        auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, 10);
        if (error != std::errc() || end != text.data() + text.size() || (negated && value != 0))
            throw HTTPRouteParameterInvalid();
        return value;
    }
};

template <>
struct HTTPRouteParameterValue<double> {
    static double make(std::string_view text) { return detail::parseDouble(text); }
};

template <>
struct HTTPRouteParameterValue<float> {
    static float make(std::string_view text) { return detail::parseFloat(text); }
};

// A type with a raw value: `using RawValue = ...;` and `static std::optional<T> fromRawValue(RawValue)`.
template <typename T>
concept RawRepresentableParameter = requires(typename T::RawValue raw) {
    { T::fromRawValue(raw) } -> std::same_as<std::optional<T>>;
};

template <RawRepresentableParameter T>
struct HTTPRouteParameterValue<T> {
    static T make(std::string_view text) {
        auto value = T::fromRawValue(HTTPRouteParameterValue<typename T::RawValue>::make(text));
        if (!value) throw HTTPRouteParameterInvalid();
        return *std::move(value);
    }
};

}  // namespace orvel::http
