#pragma once
#include "async/Error.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace orvel::http {

// Why an opening handshake was refused; the text becomes the body of the 400 response.
class WSInvalidHandshakeError final : public async::Error {
public:
    explicit WSInvalidHandshakeError(std::string text) : async::Error(std::move(text)) {}
    const std::string& errorDescription() const noexcept { return description(); }
};

// The computations of the opening handshake (RFC 6455 section 4.2) that need no HTTP types.
namespace WSHandshake {

inline constexpr std::string_view guid = "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";

// Sec-WebSocket-Accept for a client key: base64 of the SHA-1 of key + guid (28 characters).
std::string acceptValue(std::string_view key);

// Standard base64 with "=" fill, nothing else: whitespace, line breaks, missing fill and
// characters of other alphabets are refused (nullopt).
std::optional<std::vector<std::uint8_t>> decodeBase64Strict(std::string_view text);

// Standard base64 with "=" fill and no line breaks.
std::string encodeBase64(const std::uint8_t* bytes, std::size_t count);

// A key is valid when it decodes strictly to exactly 16 bytes.
bool isValidKey(std::string_view key);

}  // namespace WSHandshake
}  // namespace orvel::http
