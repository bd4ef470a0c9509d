// Message digests through OpenSSL's EVP interface.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "util/Value.h"

namespace korvo {

enum class DigestAlgorithm { MD5, SHA1, SHA224, SHA256, SHA384, SHA512 };

// The digest of the bytes; empty only if OpenSSL cannot provide the algorithm.
Data digestOf(DigestAlgorithm algorithm, std::span<const std::uint8_t> bytes);
// Two lower-case hexadecimal digits per byte.
std::string hexString(std::span<const std::uint8_t> bytes);

}  // namespace korvo
