// The signature block appended to a signed file: the code directory, a
// detached CMS signature over it, and a fixed trailer that locates both.
// Encoding and bounded, defensive decoding only; the cryptography is in
// SignatureVerifier and CodeSigner. docs/code-signing.md has the byte layout.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace korvo::platform::codesign {

inline constexpr std::array<std::uint8_t, 8> kTrailerMagic = {'K', 'O', 'R', 'V', 'O', 'S', 'I', 'G'};
inline constexpr std::size_t kTrailerSize = 16;
inline constexpr std::array<std::uint8_t, 4> kCodeDirectoryMagic = {'K', 'V', 'C', 'D'};
inline constexpr std::uint32_t kCodeDirectoryVersion = 1;
inline constexpr std::uint8_t kHashTypeSha256 = 1;
inline constexpr std::size_t kSha256Size = 32;
inline constexpr std::size_t kCodeDirectoryHeaderSize = 24;
inline constexpr std::size_t kMaxIdentifierLength = 1024;
inline constexpr std::size_t kMaxCodeDirectorySize = 4096;
inline constexpr std::size_t kMaxSignatureSize = 1024 * 1024;

using Sha256Digest = std::array<std::uint8_t, kSha256Size>;

struct CodeDirectory {
    std::string identifier;
    std::uint64_t codeLength = 0;  // bytes before the block, all covered by the digest
    Sha256Digest codeDigest{};
};

// An identifier is 1 to kMaxIdentifierLength bytes of printable ASCII or
// UTF-8 (no control characters).
bool isValidIdentifier(std::string_view identifier);

std::vector<std::uint8_t> encodeCodeDirectory(const CodeDirectory& directory);

enum class BlockStatus {
    Found,        // block present and well formed
    Unsigned,     // no trailer magic at the end of the file
    Damaged,      // trailer present, but lengths or code directory are not sound
    Unsupported,  // a code directory of another format version or hash type
    Unreadable,   // the file cannot be read
};

struct DecodedCodeDirectory {
    BlockStatus status = BlockStatus::Damaged;
    CodeDirectory directory;
    std::string detail;  // why, when status is not Found
};
// Checks magic, version, hash type, lengths and identifier.
DecodedCodeDirectory decodeCodeDirectory(std::span<const std::uint8_t> bytes);

std::array<std::uint8_t, kTrailerSize> encodeTrailer(std::uint32_t codeDirectoryLength, std::uint32_t signatureLength);

// The code directory, signature and trailer to append to codeLength bytes of code.
std::vector<std::uint8_t> encodeSignatureBlock(std::span<const std::uint8_t> codeDirectory,
                                               std::span<const std::uint8_t> signature);

// A block read from an open file. The code bytes are not read: a verifier
// streams them through the digest afterwards.
struct SignatureBlock {
    std::uint64_t codeLength = 0;  // offset of the block in the file
    std::vector<std::uint8_t> codeDirectoryBytes;
    std::vector<std::uint8_t> signatureBytes;
    CodeDirectory directory;
};

struct BlockReadResult {
    BlockStatus status = BlockStatus::Unreadable;
    std::string detail;
    std::optional<SignatureBlock> block;  // set when status is Found
};

// Reads the block at the end of the regular file open as fd, whatever bytes
// the file holds: lengths are checked against the file size and fixed limits
// before anything is allocated.
BlockReadResult readSignatureBlock(int fd);

// Where the code ends in the file: its size when it is unsigned, the start of
// the block when the trailer is sound; nullopt when the trailer is present
// but damaged (or the file cannot be read).
std::optional<std::uint64_t> codeLengthOfFile(int fd);

}  // namespace korvo::platform::codesign
