#pragma once
#include "async/Error.h"

#include <cstdint>
#include <string>

namespace orvel::net {

// The error of every socket operation. `failed` names the system call that failed (its label),
// the errno right after it and strerror of that errno; `blocked` means the call would block.
// The text is fixed per case: "SocketError. Read(104): Connection reset by peer".
class SocketError final : public async::Error {
public:
    enum class Kind { failed, blocked, disconnected, unsupportedAddress };

    static SocketError failed(std::string type, std::int32_t errnoValue, std::string message);
    // `message` is strerror(errnoValue).
    static SocketError failed(std::string type, std::int32_t errnoValue);
    static SocketError blocked();
    static SocketError disconnected();
    static SocketError unsupportedAddress();

    Kind kind() const noexcept { return kind_; }
    // Only meaningful for `failed`.
    const std::string& type() const noexcept { return type_; }
    std::int32_t errnoValue() const noexcept { return errnoValue_; }
    const std::string& message() const noexcept { return message_; }

    friend bool operator==(const SocketError& a, const SocketError& b) noexcept {
        return a.kind_ == b.kind_ && a.type_ == b.type_ && a.errnoValue_ == b.errnoValue_ && a.message_ == b.message_;
    }

    // strerror without its thread-unsafe static buffer.
    static std::string errorMessage(int errnoValue);

private:
    SocketError(Kind kind, std::string text, std::string type, std::int32_t errnoValue, std::string message);

    Kind kind_;
    std::string type_;
    std::int32_t errnoValue_;
    std::string message_;
};

}  // namespace orvel::net
