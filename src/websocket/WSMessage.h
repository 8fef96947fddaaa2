#pragma once
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace orvel::http {

// One complete WebSocket message as the application sees it: text (valid UTF-8) or data; or,
// outgoing only, the close that ends the connection with a status code the page can read.
// A plain value; MessageFrameWSHandler converts between messages and frames.
class WSMessage {
public:
    enum class Kind : std::uint8_t { text, data, close };

    struct Close {
        std::uint16_t code = 1000;
        std::string reason;
        friend bool operator==(const Close&, const Close&) = default;
    };

    static WSMessage text(std::string value) { return WSMessage(std::move(value)); }
    static WSMessage data(std::vector<std::uint8_t> value) { return WSMessage(std::move(value)); }
    // Sent as the connection's last frame; whatever the application yields after it is dropped.
    static WSMessage close(std::uint16_t code, std::string reason) {
        WSMessage message{std::string()};
        message.value_ = Close{code, std::move(reason)};
        return message;
    }

    Kind kind() const noexcept { return static_cast<Kind>(value_.index()); }
    bool isText() const noexcept { return kind() == Kind::text; }
    bool isClose() const noexcept { return kind() == Kind::close; }
    const Close& closeValue() const noexcept {
        assert(isClose());
        return *std::get_if<Close>(&value_);
    }

    const std::string& textValue() const noexcept {
        assert(isText());
        return *std::get_if<std::string>(&value_);
    }
    const std::vector<std::uint8_t>& dataValue() const noexcept {
        assert(kind() == Kind::data);
        return *std::get_if<std::vector<std::uint8_t>>(&value_);
    }

    // The payload: the UTF-8 bytes of a text, the bytes of data, a close's reason.
    std::span<const std::uint8_t> bytes() const noexcept {
        if (const auto* s = std::get_if<std::string>(&value_)) {
            return {reinterpret_cast<const std::uint8_t*>(s->data()), s->size()};
        }
        if (const auto* c = std::get_if<Close>(&value_)) {
            return {reinterpret_cast<const std::uint8_t*>(c->reason.data()), c->reason.size()};
        }
        const auto& d = *std::get_if<std::vector<std::uint8_t>>(&value_);
        return {d.data(), d.size()};
    }

    // The payload bytes, moved out when the message holds data (text has to be copied).
    std::vector<std::uint8_t> takeBytes() && {
        if (auto* d = std::get_if<std::vector<std::uint8_t>>(&value_)) return std::move(*d);
        auto b = bytes();
        return {b.begin(), b.end()};
    }

    friend bool operator==(const WSMessage&, const WSMessage&) = default;

private:
    explicit WSMessage(std::string value) : value_(std::move(value)) {}
    explicit WSMessage(std::vector<std::uint8_t> value) : value_(std::move(value)) {}

    std::variant<std::string, std::vector<std::uint8_t>, Close> value_;  // in Kind's order
};

}  // namespace orvel::http

template <>
struct std::hash<orvel::http::WSMessage> {
    std::size_t operator()(const orvel::http::WSMessage& message) const noexcept {
        auto bytes = message.bytes();
        std::size_t h = std::hash<std::string_view>{}(
            std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
        return message.kind() == orvel::http::WSMessage::Kind::data ? ~h : h + static_cast<std::size_t>(message.kind());
    }
};
