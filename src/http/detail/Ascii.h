#pragma once
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace orvel::http::detail {

// ASCII-only case folding: HTTP names are ASCII, and comparing bytes keeps the hot paths free
// of locale look-ups.
constexpr char asciiLower(char c) noexcept { return c >= 'A' && c <= 'Z' ? char(c + ('a' - 'A')) : c; }
constexpr char asciiUpper(char c) noexcept { return c >= 'a' && c <= 'z' ? char(c - ('a' - 'A')) : c; }

// The value of a hexadecimal digit, or -1.
constexpr int hexDigitValue(char c) noexcept {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

constexpr bool equalsIgnoringCase(std::string_view a, std::string_view b) noexcept {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (asciiLower(a[i]) != asciiLower(b[i])) return false;
    }
    return true;
}

inline std::string upperCased(std::string_view text) {
    std::string out(text);
    for (char& c : out) c = asciiUpper(c);
    return out;
}

inline std::string lowerCased(std::string_view text) {
    std::string out(text);
    for (char& c : out) c = asciiLower(c);
    return out;
}

// Blanks and tabs: the white space that header value lists are trimmed of.
constexpr std::string_view trimBlanks(std::string_view text) noexcept {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
    return text;
}

// White space and line breaks as Unicode counts them (space, \t to \r, U+0085, U+00A0, U+1680,
// U+2000 to U+200A, U+2028, U+2029, U+202F, U+205F, U+3000): what request and header lines,
// which are UTF-8, are trimmed of.
// The ASCII ones (space, \t to \r).
constexpr bool isSpaceOrNewline(char c) noexcept { return c == ' ' || (c >= '\t' && c <= '\r'); }

constexpr bool isUnicodeSpaceOrNewline(char32_t c) noexcept {
    return c == 0x20 || (c >= 0x09 && c <= 0x0D) || c == 0x85 || c == 0xA0 || c == 0x1680 ||
           (c >= 0x2000 && c <= 0x200A) || c == 0x2028 || c == 0x2029 || c == 0x202F || c == 0x205F || c == 0x3000;
}

// The code point of the UTF-8 sequence at the start of `text` and its length; 0 for a byte that
// starts no well-formed sequence of at most three bytes (nothing trimmed takes four).
struct LeadingCodePoint {
    char32_t value = 0;
    std::size_t length = 0;
};
constexpr LeadingCodePoint leadingCodePoint(std::string_view text) noexcept {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const auto continuation = [&](std::size_t i) { return i < text.size() && (byte(i) & 0xC0) == 0x80; };
    if (text.empty()) return {};
    if (byte(0) < 0x80) return {byte(0), 1};
    if ((byte(0) & 0xE0) == 0xC0 && continuation(1))
        return {static_cast<char32_t>((byte(0) & 0x1F) << 6 | (byte(1) & 0x3F)), 2};
    if ((byte(0) & 0xF0) == 0xE0 && continuation(1) && continuation(2))
        return {static_cast<char32_t>((byte(0) & 0x0F) << 12 | (byte(1) & 0x3F) << 6 | (byte(2) & 0x3F)), 3};
    return {};
}

constexpr std::string_view trimSpaceAndNewlines(std::string_view text) noexcept {
    for (;;) {
        const auto first = leadingCodePoint(text);
        if (first.length == 0 || !isUnicodeSpaceOrNewline(first.value)) break;
        text.remove_prefix(first.length);
    }
    for (;;) {
        std::size_t start = text.size();
        while (start > 0 && text.size() - start < 3 && (static_cast<unsigned char>(text[start - 1]) & 0xC0) == 0x80) --start;
        if (start == 0) break;
        --start;
        const auto last = leadingCodePoint(text.substr(start));
        if (last.length != text.size() - start || !isUnicodeSpaceOrNewline(last.value)) break;
        text.remove_suffix(last.length);
    }
    return text;
}

// Calls f(piece) for every piece of text between separators, skipping empty pieces.
template <typename F>
constexpr void forEachNonEmptyPiece(std::string_view text, char separator, F&& f) {
    std::size_t start = 0;
    while (start <= text.size()) {
        std::size_t end = text.find(separator, start);
        if (end == std::string_view::npos) end = text.size();
        if (end > start) f(text.substr(start, end - start));
        start = end + 1;
    }
}

// FNV-1a over the lower-cased bytes: the hash of case-insensitive keys.
constexpr std::size_t hashIgnoringCase(std::string_view text) noexcept {
    std::uint64_t h = 14695981039346656037ull;
    for (char c : text) {
        h ^= static_cast<unsigned char>(asciiLower(c));
        h *= 1099511628211ull;
    }
    return static_cast<std::size_t>(h);
}

}  // namespace orvel::http::detail

namespace orvel::http::detail {

// Splits at most maxSplits times at `separator`, dropping empty pieces (which do not count as
// splits); after the last split the rest of the text is one piece as it stands, separators and
// all. At most maxSplits + 1 pieces.
template <std::size_t maxSplits>
struct SplitPieces {
    std::string_view pieces[maxSplits + 1];
    std::size_t count = 0;
};

template <std::size_t maxSplits>
constexpr SplitPieces<maxSplits> splitOmittingEmpty(std::string_view text, char separator) noexcept {
    SplitPieces<maxSplits> out;
    std::size_t start = 0;
    std::size_t i = 0;
    while (i < text.size()) {
        if (text[i] == separator) {
            bool appended = i > start;
            if (appended) out.pieces[out.count++] = text.substr(start, i - start);
            start = ++i;
            if (appended && out.count == maxSplits) break;
            continue;
        }
        ++i;
    }
    if (start < text.size()) out.pieces[out.count++] = text.substr(start);
    return out;
}

}  // namespace orvel::http::detail
