#include "http/WSFrameValidator.h"

#include <utility>

namespace orvel::http {

std::optional<WSFrame> WSFrameValidator::Validator::validate(WSFrame frame) {
    using Opcode = WSFrame::Opcode;
    if (frame.payload.size() > maxMessageSize) {
        last_.reset();
        throw Error::messageTooLarge();
    }
    if (frame.opcode != Opcode::continuation) {
        // A complete frame passes even in the middle of a fragmented message, and leaves that
        // message alone: control frames are allowed there.
        if (frame.fin) return frame;
        if (last_) {
            last_.reset();
            throw Error::unexpectedIncomplete();
        }
        if (frame.opcode == Opcode::close || frame.opcode == Opcode::ping || frame.opcode == Opcode::pong) {
            throw Error::unsupportedControlContinuation();
        }
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
