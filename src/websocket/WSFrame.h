#pragma once
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string_view>
#include <vector>

namespace orvel::http {

// One WebSocket frame (RFC 6455 section 5.2) as a plain value: the payload is always held
// unmasked, the mask only says how it goes on the wire. WSFrameEncoder turns it into bytes and
// back; fragmentation and control-frame rules live in WSFrameValidator.
struct WSFrame {
    // Every byte is a valid opcode (decoding passes unknown ones on); only the low 4 bits
    // reach the wire.
    enum class Opcode : std::uint8_t {
        continuation = 0x0,
        text = 0x1,
        binary = 0x2,
        close = 0x8,
        ping = 0x9,
        pong = 0xA,
    };

    // Masking key, in wire order.
    struct Mask {
        std::uint8_t m1 = 0;
        std::uint8_t m2 = 0;
        std::uint8_t m3 = 0;
        std::uint8_t m4 = 0;
        friend bool operator==(const Mask&, const Mask&) = default;
    };

    bool fin = true;
    bool rsv1 = false;
    bool rsv2 = false;
    bool rsv3 = false;
    Opcode opcode = Opcode::continuation;
    std::optional<Mask> mask = std::nullopt;
    std::vector<std::uint8_t> payload = {};

    // A close frame: status 1000 without a reason, status 1002 followed by the reason's bytes
    // with one (the system's reasons, "Protocol Error" and "Goodbye", both go out as 1002).
    static WSFrame close(std::optional<std::string_view> reason = std::nullopt,
                         std::optional<Mask> mask = std::nullopt);
    // A close frame with the given status code and reason.
    static WSFrame close(std::uint16_t code, std::string_view reason, std::optional<Mask> mask = std::nullopt);

    friend bool operator==(const WSFrame&, const WSFrame&) = default;
};

constexpr std::uint8_t rawValue(WSFrame::Opcode opcode) noexcept { return static_cast<std::uint8_t>(opcode); }

}  // namespace orvel::http

template <>
struct std::hash<orvel::http::WSFrame::Mask> {
    std::size_t operator()(const orvel::http::WSFrame::Mask& mask) const noexcept {
        return std::hash<std::uint32_t>{}(std::uint32_t{mask.m1} << 24 | std::uint32_t{mask.m2} << 16 |
                                          std::uint32_t{mask.m3} << 8 | mask.m4);
    }
};

template <>
struct std::hash<orvel::http::WSFrame> {
    std::size_t operator()(const orvel::http::WSFrame& frame) const noexcept;
};
