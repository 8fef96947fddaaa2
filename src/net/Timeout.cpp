#include "net/Timeout.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>

namespace orvel::net {

TimeoutError::TimeoutError(double seconds)
    : async::Error("Task timed out before completion. Timeout: " + shortestDecimal(seconds) + " seconds.") {}

std::string shortestDecimal(double value) {
    if (std::isnan(value)) return "nan";
    if (std::isinf(value)) return value < 0 ? "-inf" : "inf";
    if (value == 0) return std::signbit(value) ? "-0.0" : "0.0";

    // Shortest round-trip digits, then laid out the usual way: plain decimals for exponents from
    // -4 to 15 (always with a fractional part), scientific notation outside them.
    char buffer[64];
    auto [end, error] = std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::scientific);
    std::string scientific(buffer, end);
    std::size_t e = scientific.find('e');
    int exponent = std::atoi(scientific.c_str() + e + 1);
    if (exponent < -4 || exponent >= 16) return scientific;

    std::string sign = value < 0 ? "-" : "";
    std::string digits;
    for (std::size_t i = sign.size(); i < e; ++i) {
        if (scientific[i] != '.') digits += scientific[i];
    }
    std::string text;
    if (exponent < 0) {
        text = "0." + std::string(static_cast<std::size_t>(-exponent - 1), '0') + digits;
    } else if (static_cast<std::size_t>(exponent) + 1 >= digits.size()) {
        text = digits + std::string(static_cast<std::size_t>(exponent) + 1 - digits.size(), '0') + ".0";
    } else {
        text = digits.substr(0, exponent + 1) + "." + digits.substr(exponent + 1);
    }
    return sign + text;
}

std::uint64_t timeoutNanoseconds(double seconds) {
    double nanoseconds = seconds * 1'000'000'000.0;
    if (!std::isfinite(seconds) || seconds < 0 || nanoseconds >= 18446744073709551616.0) {
        std::fprintf(stderr, "orvel: a time-out of %s seconds cannot be slept\n", shortestDecimal(seconds).c_str());
        std::abort();
    }
    return static_cast<std::uint64_t>(nanoseconds);
}

}  // namespace orvel::net
