#include "platform/linux/codesigning/SignatureVerifier.h"

#include <openssl/crypto.h>
#include <openssl/objects.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>

#include "platform/linux/codesigning/OpenSslHandles.h"
#include "util/Format.h"

namespace korvo::platform::codesign {
namespace {

constexpr std::size_t kReadChunk = 256 * 1024;

void freeSignerStack(STACK_OF(X509)* s) { sk_X509_free(s); }  // CMS_get0_signers: stack owned, certs not
using SignerStackPtr = std::unique_ptr<STACK_OF(X509), OpenSslDeleter<freeSignerStack>>;

std::string nameText(const X509_NAME* name) {
    BioPtr bio(BIO_new(BIO_s_mem()));
    if (!bio || X509_NAME_print_ex(bio.get(), name, 0, XN_FLAG_RFC2253) < 0) {
        return {};
    }
    char* data = nullptr;
    const long size = BIO_get_mem_data(bio.get(), &data);
    return size > 0 ? std::string(data, static_cast<std::size_t>(size)) : std::string();
}

CertificateSummary summarize(X509* cert) {
    return {nameText(X509_get_subject_name(cert)), nameText(X509_get_issuer_name(cert))};
}

std::vector<std::string> organizationalUnits(X509* cert) {
    std::vector<std::string> units;
    const X509_NAME* subject = X509_get_subject_name(cert);
    for (int i = X509_NAME_get_index_by_NID(subject, NID_organizationalUnitName, -1); i >= 0;
         i = X509_NAME_get_index_by_NID(subject, NID_organizationalUnitName, i)) {
        unsigned char* utf8 = nullptr;
        const int length = ASN1_STRING_to_UTF8(&utf8, X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, i)));
        if (length >= 0) {
            units.emplace_back(reinterpret_cast<const char*>(utf8), static_cast<std::size_t>(length));
            OPENSSL_free(utf8);
        }
    }
    return units;
}

bool maySignCode(X509* cert) {
    return (X509_get_extension_flags(cert) & EXFLAG_XKUSAGE) != 0 &&
           (X509_get_extended_key_usage(cert) & XKU_CODE_SIGN) != 0;
}

enum class DigestOutcome { Match, Mismatch, ReadFailed };

// SHA-256 of the first length bytes of fd, read in pieces.
DigestOutcome checkCodeDigest(int fd, std::uint64_t length, const Sha256Digest& expected, std::string& detail) {
    MdPtr sha256(EVP_MD_fetch(nullptr, "SHA256", nullptr));
    MdCtxPtr ctx(EVP_MD_CTX_new());
    if (!sha256 || !ctx || EVP_DigestInit_ex(ctx.get(), sha256.get(), nullptr) != 1) {
        detail = "cannot compute SHA-256: " + takeOpenSslErrors();
        return DigestOutcome::ReadFailed;
    }
    std::vector<std::uint8_t> buffer(kReadChunk);
    std::uint64_t offset = 0;
    while (offset < length) {
        const std::size_t want = static_cast<std::size_t>(std::min<std::uint64_t>(buffer.size(), length - offset));
        const ssize_t n = ::pread(fd, buffer.data(), want, static_cast<off_t>(offset));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            detail = n == 0 ? "the file shrank while it was read" : formatString("cannot read the file: %s",
                                                                                  std::strerror(errno));
            return DigestOutcome::ReadFailed;
        }
        EVP_DigestUpdate(ctx.get(), buffer.data(), static_cast<std::size_t>(n));
        offset += static_cast<std::uint64_t>(n);
    }
    Sha256Digest actual{};
    unsigned int size = 0;
    if (EVP_DigestFinal_ex(ctx.get(), actual.data(), &size) != 1 || size != actual.size()) {
        detail = "cannot compute SHA-256: " + takeOpenSslErrors();
        return DigestOutcome::ReadFailed;
    }
    if (CRYPTO_memcmp(actual.data(), expected.data(), actual.size()) != 0) {
        detail = "the code does not match its signature (digest mismatch)";
        return DigestOutcome::Mismatch;
    }
    return DigestOutcome::Match;
}

// The outcome of one step: nullopt to go on, else the state to end with.
struct StepFailure {
    CodeSignState state;
    std::string detail;
};
using StepResult = std::optional<StepFailure>;

StepResult failure(CodeSignState state, std::string detail) { return StepFailure{state, std::move(detail)}; }

// The content that CMS_verify digests. OpenSSL 3.0 copies a memory BIO
// before digesting and leaks that copy when the signed data names a digest
// it does not know; a buffering filter in front is used as it is, so the
// caller keeps ownership whatever the outcome.
BioPtr detachedContent(const std::vector<std::uint8_t>& bytes) {
    BioPtr memory(BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.size())));
    BioPtr buffer(BIO_new(BIO_f_buffer()));
    if (!memory || !buffer) {
        return nullptr;
    }
    BIO_push(buffer.get(), memory.release());
    return buffer;
}

bool signerDigestIsSha256(CMS_SignerInfo* signer) {
    X509_ALGOR* digest = nullptr;
    CMS_SignerInfo_get0_algs(signer, nullptr, nullptr, &digest, nullptr);
    const ASN1_OBJECT* algorithm = nullptr;
    if (digest) {
        X509_ALGOR_get0(&algorithm, nullptr, nullptr, digest);
    }
    return algorithm && OBJ_obj2nid(algorithm) == NID_sha256;
}

// The CMS signature: DER that must be consumed exactly, detached signed
// data with one SHA-256 signer, whose signature over the code directory
// verifies. Fills in the signer and the certificates it carries.
StepResult verifyCms(const SignatureBlock& block, SignatureEvaluation& e, CmsPtr& cms, X509StackPtr& certs,
                     X509*& leaf) {
    const unsigned char* p = block.signatureBytes.data();
    cms.reset(d2i_CMS_ContentInfo(nullptr, &p, static_cast<long>(block.signatureBytes.size())));
    if (!cms || p != block.signatureBytes.data() + block.signatureBytes.size()) {
        return failure(CodeSignState::InvalidSignature, "the signature is not a CMS structure");
    }
    if (OBJ_obj2nid(CMS_get0_type(cms.get())) != NID_pkcs7_signed || CMS_is_detached(cms.get()) != 1) {
        return failure(CodeSignState::InvalidSignature, "the signature is not detached CMS signed data");
    }
    STACK_OF(CMS_SignerInfo)* signerInfos = CMS_get0_SignerInfos(cms.get());
    if (!signerInfos || sk_CMS_SignerInfo_num(signerInfos) != 1) {
        return failure(CodeSignState::InvalidSignature, "the signature must have exactly one signer");
    }
    if (!signerDigestIsSha256(sk_CMS_SignerInfo_value(signerInfos, 0))) {
        return failure(CodeSignState::InvalidSignature, "the signer's digest algorithm is not SHA-256");
    }
    certs.reset(CMS_get1_certs(cms.get()));
    for (int i = 0; certs && i < sk_X509_num(certs.get()); ++i) {
        e.chain.push_back(summarize(sk_X509_value(certs.get(), i)));
    }
    const BioPtr content = detachedContent(block.codeDirectoryBytes);
    if (!content) {
        return failure(CodeSignState::CouldNotCheck, "out of memory");
    }
    if (CMS_verify(cms.get(), nullptr, nullptr, content.get(), nullptr, CMS_BINARY | CMS_NO_SIGNER_CERT_VERIFY) != 1) {
        return failure(CodeSignState::InvalidSignature, "the CMS signature does not verify: " + takeOpenSslErrors());
    }
    SignerStackPtr signers(CMS_get0_signers(cms.get()));
    leaf = signers && sk_X509_num(signers.get()) == 1 ? sk_X509_value(signers.get(), 0) : nullptr;
    if (!leaf) {
        return failure(CodeSignState::InvalidSignature, "the signer's certificate is missing");
    }
    e.leafSubject = nameText(X509_get_subject_name(leaf));
    e.leafOrganizationalUnits = organizationalUnits(leaf);
    // Leaf first in the listing.
    const CertificateSummary leafSummary = summarize(leaf);
    std::erase_if(e.chain, [&](const CertificateSummary& c) {
        return c.subject == leafSummary.subject && c.issuer == leafSummary.issuer;
    });
    e.chain.insert(e.chain.begin(), leafSummary);
    return std::nullopt;
}

// Trust: the signer chains to an anchor and may sign code. The verdict is
// Valid or NotVerifiable; only a failure to check at all ends the
// evaluation.
StepResult judgeTrust(X509* leaf, STACK_OF(X509)* certs, const CodeSigningAnchors& anchors, SignatureEvaluation& e) {
    StoreCtxPtr ctx(X509_STORE_CTX_new());
    if (!ctx || X509_STORE_CTX_init(ctx.get(), anchors.store(), leaf, certs) != 1) {
        return failure(CodeSignState::CouldNotCheck, "cannot set up chain verification: " + takeOpenSslErrors());
    }
    if (X509_verify_cert(ctx.get()) != 1) {
        e.state = CodeSignState::NotVerifiable;
        e.detail = std::string("the signer's chain does not reach a trusted anchor: ") +
                   X509_verify_cert_error_string(X509_STORE_CTX_get_error(ctx.get()));
        return std::nullopt;
    }
    e.chain.clear();
    STACK_OF(X509)* verified = X509_STORE_CTX_get0_chain(ctx.get());
    for (int i = 0; i < sk_X509_num(verified); ++i) {
        e.chain.push_back(summarize(sk_X509_value(verified, i)));
    }
    if (!maySignCode(leaf)) {
        e.state = CodeSignState::NotVerifiable;
        e.detail = "the signer's certificate is not for code signing";
        return std::nullopt;
    }
    e.state = CodeSignState::Valid;
    return std::nullopt;
}

StepResult checkFileSize(int fd) {
    struct stat st {};
    if (::fstat(fd, &st) != 0) {
        return failure(CodeSignState::CouldNotCheck, formatString("cannot examine the file: %s", std::strerror(errno)));
    }
    if (static_cast<std::uint64_t>(st.st_size) > kMaximumCheckedFileSize) {
        return failure(CodeSignState::CouldNotCheck,
                       formatString("the file is larger than %llu MiB; it is not read",
                                    static_cast<unsigned long long>(kMaximumCheckedFileSize >> 20)));
    }
    return std::nullopt;
}

// anchors == nullptr: describe only (no trust, no digest).
SignatureEvaluation evaluate(int fd, const CodeSigningAnchors* anchors, const SignerGate& beforeReadingCode) {
    SignatureEvaluation e;
    auto finish = [&](StepFailure f) {
        e.state = f.state;
        e.detail = std::move(f.detail);
        ERR_clear_error();
        return e;
    };

    if (anchors) {
        if (auto f = checkFileSize(fd)) return finish(std::move(*f));
    }
    BlockReadResult read = readSignatureBlock(fd);
    switch (read.status) {
    case BlockStatus::Found:
        break;
    case BlockStatus::Unsigned:
        return finish({CodeSignState::Unsigned, "the file is not signed"});
    case BlockStatus::Damaged:
        return finish({CodeSignState::InvalidSignature, "damaged signature block: " + read.detail});
    case BlockStatus::Unsupported:
        return finish({CodeSignState::Unsupported, read.detail});
    case BlockStatus::Unreadable:
        return finish({CodeSignState::CouldNotCheck, read.detail});
    }
    const SignatureBlock& block = *read.block;
    e.directory = block.directory;

    CmsPtr cms;
    X509StackPtr certs;
    X509* leaf = nullptr;
    if (auto f = verifyCms(block, e, cms, certs, leaf)) return finish(std::move(*f));
    if (!anchors) return finish({CodeSignState::Valid, {}});
    if (auto f = judgeTrust(leaf, certs.get(), *anchors, e)) return finish(std::move(*f));

    // Everything above costs the same whatever the size of the file; the
    // one pass over the code comes last, and only for a signer that the
    // caller still wants.
    if (beforeReadingCode && !beforeReadingCode(e)) {
        e.codeRead = false;
        ERR_clear_error();
        return e;
    }
    std::string digestDetail;
    switch (checkCodeDigest(fd, block.codeLength, block.directory.codeDigest, digestDetail)) {
    case DigestOutcome::Match:
        break;
    case DigestOutcome::Mismatch:
        // Integrity before trust: a changed file reads as an invalid
        // signature whoever signed it.
        return finish({CodeSignState::InvalidSignature, digestDetail});
    case DigestOutcome::ReadFailed:
        return finish({CodeSignState::CouldNotCheck, digestDetail});
    }
    ERR_clear_error();
    return e;
}

}  // namespace

SignatureEvaluation evaluateSignature(int fd, const CodeSigningAnchors& anchors, const SignerGate& beforeReadingCode) {
    return evaluate(fd, &anchors, beforeReadingCode);
}

SignatureEvaluation describeSignature(int fd) { return evaluate(fd, nullptr, {}); }

}  // namespace korvo::platform::codesign
