#pragma once
#include "async/Error.h"
#include "websocket/WSFrame.h"

#include <cstddef>
#include <optional>
#include <string>

namespace orvel::http {

// Reassembles fragmented messages (RFC 6455 section 5.4) and refuses what RFC 6455 forbids a
// client to send: reserved bits (we never negotiate an extension), a data frame while a
// fragmented message is open, fragmented or oversized control frames (section 5.5), and close
// frames with a malformed payload (sections 5.5.1, 7.4). Control frames may arrive between
// fragments and pass straight on. One Validator per connection, used by its reader only.
class WSFrameValidator {
public:
    class Error final : public async::Error {
    public:
        explicit Error(std::string text) : async::Error(std::move(text)) {}
        const std::string& errorDescription() const noexcept { return description(); }

        static Error unexpectedIncomplete() { return Error("Unexpected Incomplete"); }
        static Error unsupportedControlContinuation() { return Error("Unsupport Control Continuation"); }
        static Error unexpectedContinuation() { return Error("Unexpected Continuation"); }
        static Error messageTooLarge() { return Error("Message Too Large"); }
        static Error reservedBitsSet() { return Error("Reserved Bits Set"); }
        static Error controlFrameTooLarge() { return Error("Control Frame Too Large"); }
        static Error invalidCloseFrame() { return Error("Invalid Close Frame"); }
        static Error unmaskedFrame() { return Error("Unmasked Frame"); }
    };

    // Bounds the memory one peer can make us hold: a message (or a single frame) above this
    // fails like any other broken rule.
    static constexpr std::size_t maxMessageSize = 16 * 1024 * 1024;
    // RFC 6455 section 5.5: a control frame's payload fits the 7-bit length.
    static constexpr std::size_t maxControlPayload = 125;

    // Opcodes with the top bit set are control frames (RFC 6455 section 5.5).
    static constexpr bool isControl(WSFrame::Opcode opcode) noexcept { return (rawValue(opcode) & 0x8) != 0; }

    class Validator {
    public:
        // The complete frame `frame` makes, if any. Throws Error when `frame` breaks a rule;
        // the message being assembled is then lost.
        std::optional<WSFrame> validate(WSFrame frame);

        // The data frame whose message is still being assembled.
        const std::optional<WSFrame>& last() const noexcept { return last_; }

    private:
        std::optional<WSFrame> last_;
    };
};

}  // namespace orvel::http
