#pragma once
#include <filesystem>
#include <string_view>

namespace orvel::update {

// Checks that the file's bytes carry an Ed25519 signature (base64 of 64 bytes) by the public key
// (base64 of the raw 32 bytes) that the Info dictionary holds. Throws UpdateError when the
// signature does not match or either text is not what it must be; reads the file in place.
void verifyEdSignature(const std::filesystem::path& file, std::string_view signatureBase64,
                       std::string_view publicKeyBase64);

}  // namespace orvel::update
