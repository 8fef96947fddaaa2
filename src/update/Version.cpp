#include "update/Version.h"

#include <cstddef>

namespace orvel::update {

namespace {

// The numeric components of a version, compared as digit strings so that no length overflows;
// a missing component counts as 0.
struct Components {
    std::string_view text;

    bool done() const {
        for (char c : text)
            if (c >= '0' && c <= '9') return false;
        return true;
    }

    std::string_view next() {
        std::size_t start = 0;
        while (start < text.size() && !(text[start] >= '0' && text[start] <= '9')) ++start;
        std::size_t end = start;
        while (end < text.size() && text[end] >= '0' && text[end] <= '9') ++end;
        std::string_view digits = text.substr(start, end - start);
        text.remove_prefix(end);
        while (digits.size() > 1 && digits.front() == '0') digits.remove_prefix(1);
        return digits.empty() ? std::string_view("0") : digits;
    }
};

}  // namespace

int compareVersions(std::string_view a, std::string_view b) {
    Components left{a}, right{b};
    while (!left.done() || !right.done()) {
        const std::string_view x = left.next(), y = right.next();
        // Without leading zeros, a longer run of digits is the larger number.
        if (x.size() != y.size()) return x.size() < y.size() ? -1 : 1;
        if (const int order = x.compare(y); order != 0) return order < 0 ? -1 : 1;
    }
    return 0;
}

}  // namespace orvel::update
