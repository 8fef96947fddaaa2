#include "http/HTTPHeader.h"

#include <algorithm>
#include <cassert>
#include <cstring>

namespace orvel::http {

HTTPHeaders::HTTPHeaders(std::initializer_list<std::pair<std::string_view, std::string_view>> fields) {
    std::size_t bytes = 0;
    for (const auto& [name, value] : fields) bytes += name.size() + value.size();
    reserve(fields.size(), bytes);
    for (const auto& [name, value] : fields) set(name, value);
}

void HTTPHeaders::reserve(std::size_t fields, std::size_t bytes) {
    slots_.reserve(fields);
    text_.reserve(bytes);
}

HTTPHeaders::Field HTTPHeaders::field(std::size_t index) const noexcept {
    const Slot& s = slots_[index];
    std::string_view text = text_;
    return {text.substr(s.nameAt, s.nameLength), text.substr(s.valueAt, s.valueLength)};
}

std::size_t HTTPHeaders::find(std::string_view name) const noexcept {
    std::string_view text = text_;
    for (std::size_t i = 0; i < slots_.size(); ++i) {
        const Slot& s = slots_[i];
        if (s.nameLength == name.size() && detail::equalsIgnoringCase(text.substr(s.nameAt, s.nameLength), name)) {
            return i;
        }
    }
    return npos;
}

std::optional<std::string_view> HTTPHeaders::value(std::string_view name) const noexcept {
    std::size_t i = find(name);
    if (i == npos) return std::nullopt;
    return field(i).value;
}

std::uint32_t HTTPHeaders::append(std::string_view bytes) {
    assert(text_.size() + bytes.size() <= UINT32_MAX);
    auto at = static_cast<std::uint32_t>(text_.size());
    text_.append(bytes);
    return at;
}

void HTTPHeaders::set(std::string_view name, std::string_view value) {
    std::size_t i = find(name);
    if (i != npos) {
        Slot& s = slots_[i];
        if (value.size() <= s.valueLength) {
            // Fits where the old value was; memmove because value may view this very text.
            std::memmove(text_.data() + s.valueAt, value.data(), value.size());
            s.valueLength = static_cast<std::uint32_t>(value.size());
        } else {
            // value may view text_, which append can move: copy it out first.
            std::string copy(value);
            s.valueAt = append(copy);
            s.valueLength = static_cast<std::uint32_t>(copy.size());
        }
        return;
    }
    if (text_.data() <= name.data() && name.data() < text_.data() + text_.size()) {
        std::string copy(name);
        return set(copy, value);
    }
    Slot s{};
    std::string ownValue;
    if (text_.data() <= value.data() && value.data() < text_.data() + text_.size()) {
        ownValue.assign(value);
        value = ownValue;
    }
    s.nameAt = append(name);
    s.nameLength = static_cast<std::uint32_t>(name.size());
    s.valueAt = append(value);
    s.valueLength = static_cast<std::uint32_t>(value.size());
    slots_.push_back(s);
}

bool HTTPHeaders::erase(std::string_view name) noexcept {
    std::size_t i = find(name);
    if (i == npos) return false;
    slots_.erase(slots_.begin() + static_cast<std::ptrdiff_t>(i));
    if (slots_.empty()) text_.clear();
    return true;
}

void HTTPHeaders::clear() noexcept {
    slots_.clear();
    text_.clear();
}

std::vector<std::string_view> HTTPHeaders::values(std::string_view name) const {
    std::vector<std::string_view> out;
    if (auto v = value(name)) {
        detail::forEachNonEmptyPiece(*v, ',', [&](std::string_view piece) {
            out.push_back(detail::trimBlanks(piece));
        });
    }
    return out;
}

void HTTPHeaders::setValues(std::span<const std::string_view> values, std::string_view name) {
    std::string joined;
    for (std::size_t i = 0; i < values.size(); ++i) {
        if (i > 0) joined += ", ";
        joined += values[i];
    }
    set(name, joined);
}

void HTTPHeaders::addValue(std::string_view value, std::string_view name) {
    auto pieces = values(name);
    pieces.push_back(value);
    setValues(pieces, name);  // joins into a string of its own before it stores
}

bool operator==(const HTTPHeaders& a, const HTTPHeaders& b) noexcept {
    if (a.size() != b.size()) return false;
    for (HTTPHeaders::Field f : a) {
        auto other = b.value(f.name);
        if (!other || *other != f.value) return false;
    }
    return true;
}

}  // namespace orvel::http
