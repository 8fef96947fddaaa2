#include "update/EdSignature.h"

#include "net/OwnedDescriptor.h"
#include "update/UpdateError.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace orvel::update {

namespace {

// Strict base64 of exactly `size` bytes: no whitespace, padding where it belongs.
std::optional<std::vector<unsigned char>> decode(std::string_view text, std::size_t size) {
    if (text.size() != 4 * ((size + 2) / 3)) return std::nullopt;
    std::vector<unsigned char> bytes(text.size() / 4 * 3);
    const int n = EVP_DecodeBlock(bytes.data(), reinterpret_cast<const unsigned char*>(text.data()),
                                  static_cast<int>(text.size()));
    // EVP_DecodeBlock counts padding as zero bytes; the padding must be exactly what size leaves.
    const std::size_t padding = bytes.size() - size;
    if (n != static_cast<int>(bytes.size()) || (padding && text.substr(text.size() - padding) != std::string(padding, '=')))
        return std::nullopt;
    for (char c : text.substr(0, text.size() - padding))
        if (c == '=') return std::nullopt;
    bytes.resize(size);
    return bytes;
}

struct Mapping {
    void* address = MAP_FAILED;
    std::size_t size = 0;
    ~Mapping() {
        if (address != MAP_FAILED) ::munmap(address, size);
    }
};

}  // namespace

void verifyEdSignature(const std::filesystem::path& file, std::string_view signatureBase64,
                       std::string_view publicKeyBase64) {
    const auto key = decode(publicKeyBase64, 32);
    if (!key) throw UpdateError("The update key in the Info dictionary is not an Ed25519 public key.");
    const auto signature = decode(signatureBase64, 64);
    if (!signature) throw UpdateError("The update's signature is not an Ed25519 signature.");

    net::OwnedDescriptor fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat status {};
    if (!fd || ::fstat(fd.get(), &status) != 0 || status.st_size == 0)
        throw UpdateError("Could not read the downloaded update.");
    Mapping mapping;
    mapping.size = static_cast<std::size_t>(status.st_size);
    mapping.address = ::mmap(nullptr, mapping.size, PROT_READ, MAP_PRIVATE, fd.get(), 0);
    if (mapping.address == MAP_FAILED) throw UpdateError("Could not read the downloaded update.");

    std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> publicKey(
        EVP_PKEY_new_raw_public_key(EVP_PKEY_ED25519, nullptr, key->data(), key->size()), &EVP_PKEY_free);
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(), &EVP_MD_CTX_free);
    // Ed25519 signs the whole message at once: there is no streaming form of it.
    const bool valid = publicKey && context &&
                       EVP_DigestVerifyInit(context.get(), nullptr, nullptr, nullptr, publicKey.get()) == 1 &&
                       EVP_DigestVerify(context.get(), signature->data(), signature->size(),
                                        static_cast<const unsigned char*>(mapping.address), mapping.size) == 1;
    if (!valid) throw UpdateError("The update's signature does not match its archive.");
}

}  // namespace orvel::update
