#include "websocket/WSFrameValidator.h"

#include "http/detail/UTF8.h"

#include <cstdint>
#include <string_view>
#include <utility>
#include <vector>

namespace orvel::http {

namespace {

// RFC 6455 section 7.4: codes a peer may put in a close frame. Below 1000 is unused; 1004 is
// reserved; 1005, 1006 and 1015 only ever stand for a missing code or a failed connection; the
// rest up to 2999 belongs to the protocol and future extensions.
bool isSendableCloseCode(unsigned code) noexcept {
    if (code < 1000 || code == 1004 || code == 1005 || code == 1006 || code == 1015) return false;
    return code < 1016 || code >= 3000;
}

// An empty payload or a code with an optional UTF-8 reason (RFC 6455 section 5.5.1).
bool isValidClosePayload(const std::vector<std::uint8_t>& payload) noexcept {
    if (payload.empty()) return true;
    if (payload.size() == 1) return false;
    if (!isSendableCloseCode(unsigned{payload[0]} << 8 | payload[1])) return false;
    return detail::isValidUTF8(
        std::string_view(reinterpret_cast<const char*>(payload.data()) + 2, payload.size() - 2));
}

}  // namespace

std::optional<WSFrame> WSFrameValidator::Validator::validate(WSFrame frame) {
    using Opcode = WSFrame::Opcode;
    if (frame.payload.size() > maxMessageSize) {
        last_.reset();
        throw Error::messageTooLarge();
    }
    if (frame.rsv1 || frame.rsv2 || frame.rsv3) {
        last_.reset();
        throw Error::reservedBitsSet();
    }
    if (isControl(frame.opcode)) {
        // Control frames may sit between the fragments of a message and leave it alone.
        if (!frame.fin) {
            last_.reset();
            throw Error::unsupportedControlContinuation();
        }
        if (frame.payload.size() > maxControlPayload) {
            last_.reset();
            throw Error::controlFrameTooLarge();
        }
        if (frame.opcode == Opcode::close && !isValidClosePayload(frame.payload)) {
            last_.reset();
            throw Error::invalidCloseFrame();
        }
        return frame;
    }
    if (frame.opcode != Opcode::continuation) {
        // A data frame starts a message: none may be open.
        if (last_) {
            last_.reset();
            throw Error::unexpectedIncomplete();
        }
        if (frame.fin) return frame;
        last_ = std::move(frame);
        return std::nullopt;
    }

    if (!last_) throw Error::unexpectedContinuation();
    auto& payload = last_->payload;
    if (frame.payload.size() > maxMessageSize - payload.size()) {
        last_.reset();
        throw Error::messageTooLarge();
    }
    payload.insert(payload.end(), frame.payload.begin(), frame.payload.end());
    last_->fin = frame.fin;
    if (!frame.fin) return std::nullopt;
    return std::exchange(last_, std::nullopt);
}

}  // namespace orvel::http
