// Reading signature blocks from hostile bytes: whatever the block holds, the
// reader answers with a state, never crashes, never reads beyond the file, and
// never calls a changed file valid.
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <random>

#include "SigningTestSupport.h"
#include "platform/linux/codesigning/SignatureBlock.h"
#include "platform/linux/codesigning/SignatureVerifier.h"
#include "util/UniqueFd.h"

namespace korvo::test {
namespace {

using platform::CodeSignState;
using namespace platform::codesign;

// A file in memory holding exactly the given bytes.
UniqueFd memoryFile(const std::vector<std::uint8_t>& bytes) {
    UniqueFd fd(::memfd_create("korvo-signature-test", MFD_CLOEXEC));
    EXPECT_TRUE(fd.valid());
    EXPECT_EQ(::write(fd.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    return fd;
}

void putBE32(std::vector<std::uint8_t>& bytes, std::size_t offset, std::uint32_t value) {
    for (int i = 0; i < 4; ++i) {
        bytes[offset + static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(value >> (24 - 8 * i));
    }
}

class SignatureBlockTest : public ::testing::Test {
protected:
    void SetUp() override {
        code.resize(5000);
        std::mt19937 random(7);
        for (auto& b : code) {
            b = static_cast<std::uint8_t>(random());
        }
        const std::string path = dir.file("signed");
        writeBytes(path, code);
        const auto error = signFile(path, {"com.tallowmar.block", kTeamSigner.certificate,
                                           std::string(kTeamSigner.chain), kTeamSigner.key});
        ASSERT_FALSE(error) << *error;
        signedBytes = readBytes(path);
        ASSERT_GT(signedBytes.size(), code.size() + kTrailerSize);
        reference = evaluate(signedBytes);
        ASSERT_EQ(reference.state, CodeSignState::Valid) << reference.detail;
    }

    SignatureEvaluation evaluate(const std::vector<std::uint8_t>& bytes) {
        const auto fd = memoryFile(bytes);
        return evaluateSignature(fd.get(), anchors);
    }

    TempDir dir;
    CodeSigningAnchors anchors = testAnchors();
    std::vector<std::uint8_t> code;
    std::vector<std::uint8_t> signedBytes;
    SignatureEvaluation reference;
};

TEST_F(SignatureBlockTest, BlockDescribesTheCodeBeforeIt) {
    EXPECT_EQ(reference.directory.identifier, "com.tallowmar.block");
    EXPECT_EQ(reference.directory.codeLength, code.size());
    EXPECT_EQ(reference.leafOrganizationalUnits, std::vector<std::string>{KORVO_TEST_TEAM_OU});
    ASSERT_EQ(reference.chain.size(), 3u);  // leaf, intermediate, root
    EXPECT_EQ(reference.chain[0].subject, reference.leafSubject);
    EXPECT_EQ(reference.chain[1].subject, reference.chain[0].issuer);
    EXPECT_NE(reference.leafSubject.find("OU=" KORVO_TEST_TEAM_OU), std::string::npos);
    EXPECT_EQ(std::vector<std::uint8_t>(signedBytes.end() - 8, signedBytes.end()),
              std::vector<std::uint8_t>(kTrailerMagic.begin(), kTrailerMagic.end()));
}

TEST_F(SignatureBlockTest, EveryCutOfTheFileIsUnsignedOrInvalid) {
    for (std::size_t size = 0; size < signedBytes.size(); ++size) {
        const std::vector<std::uint8_t> cut(signedBytes.begin(), signedBytes.begin() + static_cast<long>(size));
        const SignatureEvaluation e = evaluate(cut);
        ASSERT_TRUE(e.state == CodeSignState::Unsigned || e.state == CodeSignState::InvalidSignature)
            << "cut at " << size << ": " << static_cast<int>(e.state) << " " << e.detail;
    }
}

// Every single-bit change anywhere in the block. A change in bytes that the
// signature does not cover (the outer CMS wrapping, certificates carried for
// convenience) may leave the signature valid, but then it must still name the
// same code, identifier and signer.
TEST_F(SignatureBlockTest, NoBitFlipInTheBlockForgesAnotherIdentity) {
    const std::size_t signatureStart = code.size() + encodeCodeDirectory(reference.directory).size();
    const std::size_t trailerStart = signedBytes.size() - kTrailerSize;
    for (std::size_t offset = code.size(); offset < signedBytes.size(); ++offset) {
        std::vector<std::uint8_t> changed = signedBytes;
        changed[offset] ^= static_cast<std::uint8_t>(1u << (offset % 8));
        const SignatureEvaluation e = evaluate(changed);
        if (e.state != CodeSignState::Valid) {
            continue;
        }
        // The code directory and the trailer are covered completely.
        ASSERT_TRUE(offset >= signatureStart && offset < trailerStart) << offset;
        ASSERT_EQ(e.directory.identifier, reference.directory.identifier) << offset;
        ASSERT_EQ(e.directory.codeDigest, reference.directory.codeDigest) << offset;
        ASSERT_EQ(e.leafSubject, reference.leafSubject) << offset;
    }
}

TEST_F(SignatureBlockTest, ForgedLengthsAndVersionsAreRejectedWithoutReadingPastTheFile) {
    const std::size_t trailer = signedBytes.size() - kTrailerSize;
    const std::size_t directory = code.size();
    auto withTrailer = [&](std::uint32_t directoryLength, std::uint32_t signatureLength) {
        std::vector<std::uint8_t> b = signedBytes;
        putBE32(b, trailer, directoryLength);
        putBE32(b, trailer + 4, signatureLength);
        return evaluate(b).state;
    };
    EXPECT_EQ(withTrailer(0xffffffff, 0xffffffff), CodeSignState::InvalidSignature);
    EXPECT_EQ(withTrailer(0, 100), CodeSignState::InvalidSignature);
    EXPECT_EQ(withTrailer(100, 0), CodeSignState::InvalidSignature);
    EXPECT_EQ(withTrailer(kMaxCodeDirectorySize, kMaxSignatureSize), CodeSignState::InvalidSignature);

    // Only a trailer, claiming a block bigger than the file.
    std::vector<std::uint8_t> lone(kTrailerSize);
    std::copy(kTrailerMagic.begin(), kTrailerMagic.end(), lone.begin() + 8);
    putBE32(lone, 0, 64);
    putBE32(lone, 4, 64);
    EXPECT_EQ(evaluate(lone).state, CodeSignState::InvalidSignature);

    auto withDirectoryByte = [&](std::size_t offset, std::uint8_t value) {
        std::vector<std::uint8_t> b = signedBytes;
        b[directory + offset] = value;
        return evaluate(b).state;
    };
    EXPECT_EQ(withDirectoryByte(7, 2), CodeSignState::Unsupported);   // format version 2
    EXPECT_EQ(withDirectoryByte(4, 0x80), CodeSignState::Unsupported);
    EXPECT_EQ(withDirectoryByte(12, 2), CodeSignState::Unsupported);  // another hash type
    EXPECT_EQ(withDirectoryByte(0, 'X'), CodeSignState::InvalidSignature);
    EXPECT_EQ(withDirectoryByte(15, 0xff), CodeSignState::InvalidSignature);  // identifier length
    EXPECT_EQ(withDirectoryByte(23, 0x01), CodeSignState::InvalidSignature);  // code length
}

TEST_F(SignatureBlockTest, RandomGarbageBehindAValidTrailerIsNeverValid) {
    std::mt19937 random(12345);
    for (int round = 0; round < 400; ++round) {
        const std::size_t directoryLength = 8 + random() % 200;
        const std::size_t signatureLength = 1 + random() % 3000;
        std::vector<std::uint8_t> bytes(random() % 64);
        std::vector<std::uint8_t> directoryBytes(directoryLength);
        std::vector<std::uint8_t> signatureBytes(signatureLength);
        for (auto& b : bytes) b = static_cast<std::uint8_t>(random());
        for (auto& b : directoryBytes) b = static_cast<std::uint8_t>(random());
        for (auto& b : signatureBytes) b = static_cast<std::uint8_t>(random());
        // Half the rounds carry a plausible code directory header.
        if (round % 2 == 0) {
            std::copy(kCodeDirectoryMagic.begin(), kCodeDirectoryMagic.end(), directoryBytes.begin());
            putBE32(directoryBytes, 4, kCodeDirectoryVersion);
        }
        // Some carry the real signature over a garbage directory.
        if (round % 5 == 0) {
            const auto real = std::vector<std::uint8_t>(signedBytes.begin() + static_cast<long>(code.size()),
                                                        signedBytes.end() - static_cast<long>(kTrailerSize));
            signatureBytes.assign(real.begin() + static_cast<long>(encodeCodeDirectory(reference.directory).size()),
                                  real.end());
        }
        const auto block = encodeSignatureBlock(directoryBytes, signatureBytes);
        bytes.insert(bytes.end(), block.begin(), block.end());
        const SignatureEvaluation e = evaluate(bytes);
        ASSERT_NE(e.state, CodeSignState::Valid) << "round " << round;
        ASSERT_NE(e.state, CodeSignState::NotVerifiable) << "round " << round;
    }
}

}  // namespace
}  // namespace korvo::test
