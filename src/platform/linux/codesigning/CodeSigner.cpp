#include "platform/linux/codesigning/CodeSigner.h"

#include <fcntl.h>
#include <openssl/pem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "platform/linux/codesigning/OpenSslHandles.h"
#include "platform/linux/codesigning/SignatureBlock.h"
#include "util/UniqueFd.h"
#include "util/FileSystem.h"
#include "util/Format.h"

namespace korvo::platform::codesign {
namespace {

constexpr std::size_t kCopyChunk = 256 * 1024;

std::string errnoText(const char* what, const std::string& path) {
    return formatString("%s %s: %s", what, path.c_str(), std::strerror(errno));
}

BioPtr openPem(const std::string& path, std::string& error) {
    BioPtr bio(BIO_new_file(path.c_str(), "r"));
    if (!bio) {
        error = formatString("cannot open %s: %s", path.c_str(), takeOpenSslErrors().c_str());
    }
    return bio;
}


struct SigningIdentity {
    X509Ptr certificate;
    X509StackPtr chain;
    PKeyPtr key;
};

std::optional<std::string> loadIdentity(const SigningRequest& request, SigningIdentity& identity) {
    std::string error;
    BioPtr certBio = openPem(request.certificatePath, error);
    if (!certBio) {
        return error;
    }
    identity.certificate.reset(PEM_read_bio_X509(certBio.get(), nullptr, nullptr, nullptr));
    if (!identity.certificate) {
        return "no certificate in " + request.certificatePath + ": " + takeOpenSslErrors();
    }
    BioPtr keyBio = openPem(request.keyPath, error);
    if (!keyBio) {
        return error;
    }
    identity.key.reset(PEM_read_bio_PrivateKey(keyBio.get(), nullptr, nullptr, nullptr));
    if (!identity.key) {
        return "no private key in " + request.keyPath + ": " + takeOpenSslErrors();
    }
    if (X509_check_private_key(identity.certificate.get(), identity.key.get()) != 1) {
        ERR_clear_error();
        return "the private key does not belong to the certificate";
    }
    identity.chain.reset(sk_X509_new_null());
    if (!identity.chain) {
        return std::string("out of memory");
    }
    if (request.chainPath) {
        BioPtr chainBio = openPem(*request.chainPath, error);
        if (!chainBio) {
            return error;
        }
        while (X509* cert = PEM_read_bio_X509(chainBio.get(), nullptr, nullptr, nullptr)) {
            if (!sk_X509_push(identity.chain.get(), cert)) {
                X509_free(cert);
                return std::string("out of memory");
            }
        }
        ERR_clear_error();  // the read that ended the loop
        if (sk_X509_num(identity.chain.get()) == 0) {
            return "no certificate in " + *request.chainPath;
        }
    }
    return std::nullopt;
}

// SHA-256 of the first length bytes of fd, copying them to out as they pass.
std::optional<std::string> digestAndCopy(int in, int out, std::uint64_t length, Sha256Digest& digest) {
    MdPtr sha256(EVP_MD_fetch(nullptr, "SHA256", nullptr));
    MdCtxPtr ctx(EVP_MD_CTX_new());
    if (!sha256 || !ctx || EVP_DigestInit_ex(ctx.get(), sha256.get(), nullptr) != 1) {
        return "cannot compute SHA-256: " + takeOpenSslErrors();
    }
    std::vector<std::uint8_t> buffer(kCopyChunk);
    std::uint64_t offset = 0;
    while (offset < length) {
        const auto want = static_cast<std::size_t>(std::min<std::uint64_t>(buffer.size(), length - offset));
        const ssize_t n = ::pread(in, buffer.data(), want, static_cast<off_t>(offset));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return n == 0 ? std::string("the file shrank while it was read")
                          : formatString("cannot read the file: %s", std::strerror(errno));
        }
        EVP_DigestUpdate(ctx.get(), buffer.data(), static_cast<std::size_t>(n));
        if (!writeAll(out, std::span<const std::uint8_t>(buffer.data(), static_cast<std::size_t>(n)))) {
            return formatString("cannot write the signed file: %s", std::strerror(errno));
        }
        offset += static_cast<std::uint64_t>(n);
    }
    unsigned int size = 0;
    if (EVP_DigestFinal_ex(ctx.get(), digest.data(), &size) != 1 || size != digest.size()) {
        return "cannot compute SHA-256: " + takeOpenSslErrors();
    }
    return std::nullopt;
}

std::optional<std::string> signCodeDirectory(const std::vector<std::uint8_t>& codeDirectory,
                                             const SigningIdentity& identity, std::vector<std::uint8_t>& der) {
    BioPtr content(BIO_new_mem_buf(codeDirectory.data(), static_cast<int>(codeDirectory.size())));
    if (!content) {
        return std::string("out of memory");
    }
    CmsPtr cms(CMS_sign(identity.certificate.get(), identity.key.get(), identity.chain.get(), content.get(),
                        CMS_DETACHED | CMS_BINARY | CMS_NOSMIMECAP));
    if (!cms) {
        return "cannot make the CMS signature: " + takeOpenSslErrors();
    }
    unsigned char* out = nullptr;
    const int size = i2d_CMS_ContentInfo(cms.get(), &out);
    if (size <= 0) {
        return "cannot encode the CMS signature: " + takeOpenSslErrors();
    }
    der.assign(out, out + size);
    OPENSSL_free(out);
    if (der.size() > kMaxSignatureSize) {
        return formatString("the signature is %zu bytes, more than the %zu a block may hold", der.size(),
                            kMaxSignatureSize);
    }
    return std::nullopt;
}

}  // namespace

std::optional<std::string> signFile(const std::string& path, const SigningRequest& request) {
    if (!isValidIdentifier(request.identifier)) {
        return formatString("the identifier must be 1 to %zu characters, none of them a control character",
                            kMaxIdentifierLength);
    }
    SigningIdentity identity;
    if (auto error = loadIdentity(request, identity)) {
        return error;
    }

    // A symbolic link stays one: the file it names is signed.
    char resolved[PATH_MAX];
    if (!::realpath(path.c_str(), resolved)) {
        return errnoText("cannot find", path);
    }
    const std::string target = resolved;
    UniqueFd in(::open(target.c_str(), O_RDONLY | O_CLOEXEC));
    if (in.get() < 0) {
        return errnoText("cannot open", path);
    }
    struct stat st {};
    if (::fstat(in.get(), &st) != 0) {
        return errnoText("cannot examine", path);
    }
    if (!S_ISREG(st.st_mode)) {
        return path + " is not a regular file";
    }
    const auto codeLength = codeLengthOfFile(in.get());
    if (!codeLength) {
        return path + " ends in a damaged signature block; restore the unsigned file first";
    }

    // Written beside the original and renamed over it, so that a reader (or
    // a running copy of the program) never sees a half-signed file.
    std::string temporary = target + ".korvo-codesign-XXXXXX";
    UniqueFd out(::mkostemp(temporary.data(), O_CLOEXEC));
    if (out.get() < 0) {
        return errnoText("cannot create a temporary file for", path);
    }
    bool renamed = false;
    struct Cleanup {
        const std::string& file;
        const bool& done;
        ~Cleanup() {
            if (!done) {
                ::unlink(file.c_str());
            }
        }
    } cleanup{temporary, renamed};

    CodeDirectory directory{request.identifier, *codeLength, {}};
    if (auto error = digestAndCopy(in.get(), out.get(), *codeLength, directory.codeDigest)) {
        return error;
    }
    const std::vector<std::uint8_t> codeDirectory = encodeCodeDirectory(directory);
    std::vector<std::uint8_t> signature;
    if (auto error = signCodeDirectory(codeDirectory, identity, signature)) {
        return error;
    }
    const std::vector<std::uint8_t> block = encodeSignatureBlock(codeDirectory, signature);
    if (!writeAll(out.get(), block)) {
        return errnoText("cannot write the signed copy of", path);
    }
    if (::fchmod(out.get(), st.st_mode & 07777) != 0) {
        return errnoText("cannot set the mode of the signed copy of", path);
    }
    if (::fchown(out.get(), st.st_uid, st.st_gid) != 0 && errno != EPERM) {
        return errnoText("cannot set the owner of the signed copy of", path);
    }
    if (::fsync(out.get()) != 0) {
        return errnoText("cannot write the signed copy of", path);
    }
    if (::rename(temporary.c_str(), target.c_str()) != 0) {
        return errnoText("cannot replace", path);
    }
    renamed = true;
    return std::nullopt;
}

}  // namespace korvo::platform::codesign
