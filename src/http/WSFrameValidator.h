#pragma once
#include "async/Error.h"
#include "http/WSFrame.h"

#include <cstddef>
#include <optional>
#include <string>

namespace orvel::http {

// Reassembles fragmented messages (RFC 6455 section 5.4) and refuses what breaks the
// fragmentation rules. Control frames may arrive between fragments and pass straight on.
// One Validator per connection, used by that connection's reader only.
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
    };

    // Bounds the memory one peer can make us hold: a message (or a single frame) above this
    // fails like any other broken rule.
    static constexpr std::size_t maxMessageSize = 16 * 1024 * 1024;

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
