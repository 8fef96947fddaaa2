#include "websocket/WSHandshake.h"

#include <openssl/evp.h>

#include <stdexcept>

namespace orvel::http::WSHandshake {

namespace {

bool isBase64Digit(char c) noexcept {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' || c == '/';
}

}  // namespace

std::string encodeBase64(const std::uint8_t* bytes, std::size_t count) {
    std::string out(4 * ((count + 2) / 3), '\0');
    if (count == 0) return out;
    // EVP_EncodeBlock writes no line breaks, unlike the EVP_Encode* streaming interface.
    const int written = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()), bytes, static_cast<int>(count));
    out.resize(static_cast<std::size_t>(written));
    return out;
}

std::optional<std::vector<std::uint8_t>> decodeBase64Strict(std::string_view text) {
    // EVP_DecodeBlock skips surrounding whitespace and does not report the fill, so the text
    // is checked here first: groups of four, digits only, fill only at the very end.
    if (text.size() % 4 != 0) return std::nullopt;
    std::size_t fill = 0;
    if (!text.empty() && text.back() == '=') fill = text.size() >= 2 && text[text.size() - 2] == '=' ? 2 : 1;
    for (std::size_t i = 0; i < text.size() - fill; ++i) {
        if (!isBase64Digit(text[i])) return std::nullopt;
    }
    if (text.empty()) return std::vector<std::uint8_t>{};
    std::vector<std::uint8_t> out(text.size() / 4 * 3);
    const int decoded = EVP_DecodeBlock(out.data(), reinterpret_cast<const unsigned char*>(text.data()),
                                        static_cast<int>(text.size()));
    if (decoded < 0 || static_cast<std::size_t>(decoded) != out.size()) return std::nullopt;
    out.resize(out.size() - fill);
    return out;
}

bool isValidKey(std::string_view key) {
    // 16 bytes are always 24 characters ending in "=="; anything longer need not be decoded.
    if (key.size() != 24) return false;
    auto bytes = decodeBase64Strict(key);
    return bytes && bytes->size() == 16;
}

std::string acceptValue(std::string_view key) {
    std::string input;
    input.reserve(key.size() + guid.size());
    input.append(key).append(guid);
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int digestSize = 0;
    if (EVP_Digest(input.data(), input.size(), digest, &digestSize, EVP_sha1(), nullptr) != 1) {
        // Only when libcrypto itself is broken (no SHA-1 provider): nothing sensible to answer.
        throw std::runtime_error("SHA-1 is not available");
    }
    return encodeBase64(digest, digestSize);
}

}  // namespace orvel::http::WSHandshake
