#include "net/SocketError.h"

#include <cstring>
#include <utility>

namespace orvel::net {

SocketError::SocketError(Kind kind, std::string text, std::string type, std::int32_t errnoValue, std::string message)
    : Error(std::move(text)), kind_(kind), type_(std::move(type)), errnoValue_(errnoValue), message_(std::move(message)) {}

SocketError SocketError::failed(std::string type, std::int32_t errnoValue, std::string message) {
    auto text = "SocketError. " + type + "(" + std::to_string(errnoValue) + "): " + message;
    return SocketError(Kind::failed, std::move(text), std::move(type), errnoValue, std::move(message));
}

SocketError SocketError::failed(std::string type, std::int32_t errnoValue) {
    return failed(std::move(type), errnoValue, errorMessage(errnoValue));
}

SocketError SocketError::blocked() { return SocketError(Kind::blocked, "SocketError. Blocked", {}, 0, {}); }

SocketError SocketError::disconnected() {
    return SocketError(Kind::disconnected, "SocketError. Disconnected", {}, 0, {});
}

SocketError SocketError::unsupportedAddress() {
    return SocketError(Kind::unsupportedAddress, "SocketError. UnsupportedAddress", {}, 0, {});
}

std::string SocketError::errorMessage(int errnoValue) {
    char buffer[256];
    // GNU strerror_r: returns either our buffer or a static string.
    return ::strerror_r(errnoValue, buffer, sizeof buffer);
}

}  // namespace orvel::net
