#include "websocket/WSFrame.h"

#include <string_view>

namespace orvel::http {

WSFrame WSFrame::close(std::optional<std::string_view> reason, std::optional<Mask> mask) {
    if (!reason) return close(1000, {}, mask);  // normal closure
    return close(1002, *reason, mask);            // protocol error
}

WSFrame WSFrame::close(std::uint16_t code, std::string_view reason, std::optional<Mask> mask) {
    WSFrame frame{.fin = true, .opcode = Opcode::close, .mask = mask};
    frame.payload.reserve(2 + reason.size());
    frame.payload.push_back(static_cast<std::uint8_t>(code >> 8));
    frame.payload.push_back(static_cast<std::uint8_t>(code & 0xFF));
    frame.payload.insert(frame.payload.end(), reason.begin(), reason.end());
    return frame;
}

}  // namespace orvel::http

std::size_t std::hash<orvel::http::WSFrame>::operator()(const orvel::http::WSFrame& frame) const noexcept {
    const auto& payload = frame.payload;
    std::size_t h = std::hash<std::string_view>{}(
        std::string_view(reinterpret_cast<const char*>(payload.data()), payload.size()));
    std::size_t header = std::size_t{frame.fin} | std::size_t{frame.rsv1} << 1 | std::size_t{frame.rsv2} << 2 |
                         std::size_t{frame.rsv3} << 3 | std::size_t{orvel::http::rawValue(frame.opcode)} << 4;
    if (frame.mask) header ^= (std::hash<orvel::http::WSFrame::Mask>{}(*frame.mask) << 12) | 0x800;
    return h ^ (header + 0x9e3779b97f4a7c15ull + (h << 6) + (h >> 2));
}
