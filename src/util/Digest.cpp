#include "util/Digest.h"

#include <openssl/evp.h>

#include <memory>

namespace korvo {

namespace {

struct MDDeleter {
    void operator()(EVP_MD* md) const { EVP_MD_free(md); }
};
using FetchedMD = std::unique_ptr<EVP_MD, MDDeleter>;

FetchedMD fetch(const char* name) { return FetchedMD(EVP_MD_fetch(nullptr, name, nullptr)); }

// Fetching an implementation is costly next to hashing a short string, so each
// one is fetched once and kept; the objects are immutable and thread-safe.
const EVP_MD* implementation(DigestAlgorithm algorithm) {
    switch (algorithm) {
        case DigestAlgorithm::MD5: {
            static const FetchedMD md = fetch("MD5");
            return md.get();
        }
        case DigestAlgorithm::SHA1: {
            static const FetchedMD md = fetch("SHA1");
            return md.get();
        }
        case DigestAlgorithm::SHA224: {
            static const FetchedMD md = fetch("SHA224");
            return md.get();
        }
        case DigestAlgorithm::SHA256: {
            static const FetchedMD md = fetch("SHA256");
            return md.get();
        }
        case DigestAlgorithm::SHA384: {
            static const FetchedMD md = fetch("SHA384");
            return md.get();
        }
        case DigestAlgorithm::SHA512: {
            static const FetchedMD md = fetch("SHA512");
            return md.get();
        }
    }
    return nullptr;
}

}  // namespace

Data digestOf(DigestAlgorithm algorithm, std::span<const std::uint8_t> bytes) {
    const EVP_MD* md = implementation(algorithm);
    if (md == nullptr) return {};
    Data digest(static_cast<std::size_t>(EVP_MD_get_size(md)));
    unsigned int length = 0;
    static const std::uint8_t kEmpty = 0;
    const void* input = bytes.empty() ? &kEmpty : bytes.data();
    if (EVP_Digest(input, bytes.size(), digest.data(), &length, md, nullptr) != 1) return {};
    digest.resize(length);
    return digest;
}

std::string hexString(std::span<const std::uint8_t> bytes) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    text.reserve(bytes.size() * 2);
    for (const std::uint8_t byte : bytes) {
        text.push_back(kDigits[byte >> 4]);
        text.push_back(kDigits[byte & 0x0F]);
    }
    return text;
}

}  // namespace korvo
