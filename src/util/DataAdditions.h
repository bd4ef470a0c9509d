// Byte-buffer utilities: the helper's own base64 codec, MD5 and SHA-256
// digests (binary and lower-case hexadecimal, through OpenSSL) and random
// bytes from the kernel.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "util/Value.h"

namespace korvo {

using ByteSpan = std::span<const std::uint8_t>;

// Lenient base64 decoder. Every byte outside the alphabet ("=", blanks, line
// breaks, bytes from 0x80 up) is skipped, groups of four values need not line
// up with the input's layout, and a trailing group of one value yields nothing.
// Kept on purpose from the original codec: when the alphabet characters fill
// whole groups of four and more input follows ("QUJD\n", "QUJD=="), the final
// decoded byte is dropped. Input without any alphabet character decodes to
// empty data.
Data base64Decode(std::string_view input);

// Base64 encoder. With line breaks, every 48 input bytes make one line of 64
// characters and lines are separated by CR LF, with none after the last line;
// without, the output is one line. The last group is padded with "=".
std::string base64Encode(ByteSpan bytes, bool withLineBreaks);

// Decodes base64 text; text holding a byte outside ASCII decodes to empty data.
Data dataFromBase64String(std::string_view text);
std::string base64EncodedString(ByteSpan bytes);
std::string base64EncodedStringWithNewlines(ByteSpan bytes);

// Digests of all the bytes. The hexadecimal forms are lower case. The
// binary forms are empty, and the hexadecimal ones too, only if the crypto
// library cannot provide the algorithm (a FIPS-only configuration).
Data MD5Digest(ByteSpan bytes);
std::string MD5HexDigest(ByteSpan bytes);
Data SHA256Digest(ByteSpan bytes);
std::string SHA256HexDigest(ByteSpan bytes);

// `count` bytes from the kernel's random source (getrandom).
Data randomDataWithBytes(std::size_t count);

// Views a string's bytes as a byte span.
inline ByteSpan bytesOf(std::string_view text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

}  // namespace korvo
