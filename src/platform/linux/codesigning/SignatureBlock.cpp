#include "platform/linux/codesigning/SignatureBlock.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "util/Format.h"
#include "util/Utf8.h"

namespace korvo::platform::codesign {
namespace {

void putBE(std::vector<std::uint8_t>& out, std::uint64_t value, int bytes) {
    for (int i = bytes - 1; i >= 0; --i) {
        out.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
    }
}

std::uint64_t getBE(std::span<const std::uint8_t> in, std::size_t offset, int bytes) {
    std::uint64_t value = 0;
    for (int i = 0; i < bytes; ++i) {
        value = (value << 8) | in[offset + static_cast<std::size_t>(i)];
    }
    return value;
}

// Reads exactly size bytes at offset; false on a short read or an error.
bool readFully(int fd, std::uint8_t* out, std::size_t size, std::uint64_t offset) {
    while (size > 0) {
        const ssize_t n = ::pread(fd, out, size, static_cast<off_t>(offset));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        out += n;
        size -= static_cast<std::size_t>(n);
        offset += static_cast<std::uint64_t>(n);
    }
    return true;
}

struct TrailerRead {
    BlockStatus status = BlockStatus::Unreadable;
    std::string detail;
    std::uint64_t codeLength = 0;
    std::uint32_t codeDirectoryLength = 0;
    std::uint32_t signatureLength = 0;
};

TrailerRead readTrailer(int fd) {
    TrailerRead r;
    struct stat st {};
    if (::fstat(fd, &st) != 0) {
        r.detail = formatString("cannot examine the file: %s", std::strerror(errno));
        return r;
    }
    if (!S_ISREG(st.st_mode)) {
        r.detail = "not a regular file";
        return r;
    }
    const auto fileSize = static_cast<std::uint64_t>(st.st_size);
    if (fileSize < kTrailerSize) {
        r.status = BlockStatus::Unsigned;
        r.codeLength = fileSize;
        return r;
    }
    std::array<std::uint8_t, kTrailerSize> trailer{};
    errno = 0;
    if (!readFully(fd, trailer.data(), trailer.size(), fileSize - kTrailerSize)) {
        r.detail = formatString("cannot read the file: %s", errno ? std::strerror(errno) : "short read");
        return r;
    }
    if (!std::equal(kTrailerMagic.begin(), kTrailerMagic.end(), trailer.begin() + 8)) {
        r.status = BlockStatus::Unsigned;
        r.codeLength = fileSize;
        return r;
    }
    r.codeDirectoryLength = static_cast<std::uint32_t>(getBE(trailer, 0, 4));
    r.signatureLength = static_cast<std::uint32_t>(getBE(trailer, 4, 4));
    r.status = BlockStatus::Damaged;
    if (r.codeDirectoryLength < 8 || r.codeDirectoryLength > kMaxCodeDirectorySize) {
        r.detail = formatString("code directory length %u out of range", r.codeDirectoryLength);
        return r;
    }
    if (r.signatureLength == 0 || r.signatureLength > kMaxSignatureSize) {
        r.detail = formatString("signature length %u out of range", r.signatureLength);
        return r;
    }
    const std::uint64_t blockSize = std::uint64_t{r.codeDirectoryLength} + r.signatureLength + kTrailerSize;
    if (blockSize > fileSize) {
        r.detail = "signature block longer than the file";
        return r;
    }
    r.status = BlockStatus::Found;
    r.codeLength = fileSize - blockSize;
    return r;
}

}  // namespace

bool isValidIdentifier(std::string_view identifier) {
    if (identifier.empty() || identifier.size() > kMaxIdentifierLength || !isValidUTF8(identifier)) {
        return false;
    }
    return std::none_of(identifier.begin(), identifier.end(), [](char c) {
        const auto u = static_cast<unsigned char>(c);
        return u < 0x20 || u == 0x7f;
    });
}

std::vector<std::uint8_t> encodeCodeDirectory(const CodeDirectory& directory) {
    const std::size_t total = kCodeDirectoryHeaderSize + directory.identifier.size() + kSha256Size;
    std::vector<std::uint8_t> out(kCodeDirectoryMagic.begin(), kCodeDirectoryMagic.end());
    out.reserve(total);
    putBE(out, kCodeDirectoryVersion, 4);
    putBE(out, total, 4);
    out.push_back(kHashTypeSha256);
    out.push_back(static_cast<std::uint8_t>(kSha256Size));
    putBE(out, directory.identifier.size(), 2);
    putBE(out, directory.codeLength, 8);
    out.insert(out.end(), directory.identifier.begin(), directory.identifier.end());
    out.insert(out.end(), directory.codeDigest.begin(), directory.codeDigest.end());
    return out;
}

DecodedCodeDirectory decodeCodeDirectory(std::span<const std::uint8_t> bytes) {
    DecodedCodeDirectory d;
    if (bytes.size() < 8 || !std::equal(kCodeDirectoryMagic.begin(), kCodeDirectoryMagic.end(), bytes.begin())) {
        d.detail = "no code directory";
        return d;
    }
    // The version comes first so that a later format, whatever its layout,
    // is reported as unsupported rather than as damaged.
    const auto version = getBE(bytes, 4, 4);
    if (version != kCodeDirectoryVersion) {
        d.status = BlockStatus::Unsupported;
        d.detail = formatString("code directory format version %llu is not supported",
                                static_cast<unsigned long long>(version));
        return d;
    }
    if (bytes.size() < kCodeDirectoryHeaderSize || getBE(bytes, 8, 4) != bytes.size()) {
        d.detail = "code directory length does not match";
        return d;
    }
    const auto hashType = bytes[12];
    if (hashType != kHashTypeSha256) {
        d.status = BlockStatus::Unsupported;
        d.detail = formatString("hash type %u is not supported", hashType);
        return d;
    }
    const std::size_t identifierLength = getBE(bytes, 14, 2);
    if (bytes[13] != kSha256Size ||
        kCodeDirectoryHeaderSize + identifierLength + kSha256Size != bytes.size()) {
        d.detail = "code directory fields do not add up";
        return d;
    }
    const auto* identifier = reinterpret_cast<const char*>(bytes.data() + kCodeDirectoryHeaderSize);
    d.directory.identifier.assign(identifier, identifierLength);
    if (!isValidIdentifier(d.directory.identifier)) {
        d.detail = "code directory identifier is not valid";
        return d;
    }
    d.directory.codeLength = getBE(bytes, 16, 8);
    std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(kCodeDirectoryHeaderSize + identifierLength), kSha256Size,
                d.directory.codeDigest.begin());
    d.status = BlockStatus::Found;
    return d;
}

std::array<std::uint8_t, kTrailerSize> encodeTrailer(std::uint32_t codeDirectoryLength,
                                                     std::uint32_t signatureLength) {
    std::vector<std::uint8_t> out;
    putBE(out, codeDirectoryLength, 4);
    putBE(out, signatureLength, 4);
    out.insert(out.end(), kTrailerMagic.begin(), kTrailerMagic.end());
    std::array<std::uint8_t, kTrailerSize> trailer{};
    std::copy(out.begin(), out.end(), trailer.begin());
    return trailer;
}

std::vector<std::uint8_t> encodeSignatureBlock(std::span<const std::uint8_t> codeDirectory,
                                               std::span<const std::uint8_t> signature) {
    std::vector<std::uint8_t> out(codeDirectory.begin(), codeDirectory.end());
    out.insert(out.end(), signature.begin(), signature.end());
    const auto trailer = encodeTrailer(static_cast<std::uint32_t>(codeDirectory.size()),
                                       static_cast<std::uint32_t>(signature.size()));
    out.insert(out.end(), trailer.begin(), trailer.end());
    return out;
}

BlockReadResult readSignatureBlock(int fd) {
    BlockReadResult result;
    TrailerRead trailer = readTrailer(fd);
    result.status = trailer.status;
    result.detail = std::move(trailer.detail);
    if (trailer.status != BlockStatus::Found) {
        return result;
    }
    SignatureBlock block;
    block.codeLength = trailer.codeLength;
    block.codeDirectoryBytes.resize(trailer.codeDirectoryLength);
    block.signatureBytes.resize(trailer.signatureLength);
    if (!readFully(fd, block.codeDirectoryBytes.data(), block.codeDirectoryBytes.size(), block.codeLength) ||
        !readFully(fd, block.signatureBytes.data(), block.signatureBytes.size(),
                   block.codeLength + trailer.codeDirectoryLength)) {
        result.status = BlockStatus::Unreadable;
        result.detail = "cannot read the signature block";
        return result;
    }
    DecodedCodeDirectory decoded = decodeCodeDirectory(block.codeDirectoryBytes);
    if (decoded.status != BlockStatus::Found) {
        result.status = decoded.status;
        result.detail = std::move(decoded.detail);
        return result;
    }
    if (decoded.directory.codeLength != block.codeLength) {
        result.status = BlockStatus::Damaged;
        result.detail = "the code directory covers another length than the file holds";
        return result;
    }
    block.directory = std::move(decoded.directory);
    result.block = std::move(block);
    return result;
}

std::optional<std::uint64_t> codeLengthOfFile(int fd) {
    const TrailerRead trailer = readTrailer(fd);
    if (trailer.status == BlockStatus::Found || trailer.status == BlockStatus::Unsigned) {
        return trailer.codeLength;
    }
    return std::nullopt;
}

}  // namespace korvo::platform::codesign
