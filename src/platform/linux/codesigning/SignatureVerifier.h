// Verification of an appended code signature: the CMS signature over the code
// directory, the digest of the code (one streaming pass over the file), and
// the signer's chain to an anchor with the code-signing extended key usage.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "platform/CodeSigning.h"
#include "platform/linux/codesigning/CodeSigningAnchors.h"
#include "platform/linux/codesigning/SignatureBlock.h"

namespace korvo::platform::codesign {

struct CertificateSummary {
    std::string subject;  // RFC 2253, e.g. "CN=Korvo Developer,OU=Q4XW82KTJN,O=Tallowmar"
    std::string issuer;
};

struct SignatureEvaluation {
    // Valid: intact and chained to an anchor; NotVerifiable: intact, but the
    // chain does not reach an anchor or the signer may not sign code.
    CodeSignState state = CodeSignState::CouldNotCheck;
    std::string detail;  // why the state is not Valid
    CodeDirectory directory;
    std::vector<std::string> leafOrganizationalUnits;
    std::string leafSubject;
    // Leaf first: the verified chain when trusted, else the certificates the
    // signature carries.
    std::vector<CertificateSummary> chain;
    // false when the evaluation stopped before the pass over the code (the
    // gate said no); state then tells only what the signer is worth.
    bool codeRead = true;

    bool intact() const { return state == CodeSignState::Valid || state == CodeSignState::NotVerifiable; }
};

// Files above this size are not checked at all (CouldNotCheck): no caller
// can make the helper spend more than one bounded pass on a file.
inline constexpr std::uint64_t kMaximumCheckedFileSize = std::uint64_t{256} << 20;

// Asked with the signer's verdict (Valid or NotVerifiable) before the code
// is read; false ends the evaluation there, so that a signer that will be
// refused anyway costs no pass over the file.
using SignerGate = std::function<bool(const SignatureEvaluation&)>;

// Evaluates the signature of the regular file open as fd: the block, the
// CMS signature and the signer's chain first, then the code once, in
// fixed-size pieces; memory use does not grow with the file.
SignatureEvaluation evaluateSignature(int fd, const CodeSigningAnchors& anchors, const SignerGate& beforeReadingCode = {});

// What the block says, without checking digest or chain: for display.
// state is Valid when the block decodes and its CMS signature verifies
// against the code directory, otherwise as in evaluateSignature.
SignatureEvaluation describeSignature(int fd);

}  // namespace korvo::platform::codesign
