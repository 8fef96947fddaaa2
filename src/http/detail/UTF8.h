#pragma once
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace orvel::http::detail {

// Strict UTF-8 check (no overlong forms, no surrogates, nothing above U+10FFFF). Eight ASCII
// bytes are skipped per step: request lines are almost always plain ASCII.
inline bool isValidUTF8(std::string_view text) noexcept {
    const auto* p = reinterpret_cast<const unsigned char*>(text.data());
    const auto* end = p + text.size();
    while (p < end) {
        if (end - p >= 8) {
            std::uint64_t word;
            std::memcpy(&word, p, 8);
            if ((word & 0x8080808080808080ull) == 0) {
                p += 8;
                continue;
            }
        }
        unsigned char c = *p;
        if (c < 0x80) {
            ++p;
            continue;
        }
        int extra;
        std::uint32_t min;
        std::uint32_t cp;
        if ((c & 0xE0) == 0xC0) { extra = 1; min = 0x80; cp = c & 0x1F; }
        else if ((c & 0xF0) == 0xE0) { extra = 2; min = 0x800; cp = c & 0x0F; }
        else if ((c & 0xF8) == 0xF0) { extra = 3; min = 0x10000; cp = c & 0x07; }
        else return false;
        if (end - p <= extra) return false;
        for (int i = 1; i <= extra; ++i) {
            if ((p[i] & 0xC0) != 0x80) return false;
            cp = (cp << 6) | (p[i] & 0x3F);
        }
        if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
        p += extra + 1;
    }
    return true;
}

}  // namespace orvel::http::detail
