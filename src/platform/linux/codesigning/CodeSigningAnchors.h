// The certificates that a code signature must chain to: the roots compiled
// into the helper, or a PEM bundle given by a test or by korvo-codesign.
#pragma once

#include <openssl/x509_vfy.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

namespace korvo::platform::codesign {

class CodeSigningAnchors {
public:
    // Every certificate of a PEM bundle; nullopt (and why) when the bundle
    // holds none or a block that does not parse.
    static std::optional<CodeSigningAnchors> fromPem(std::span<const std::uint8_t> pem, std::string* error = nullptr);
    static std::optional<CodeSigningAnchors> fromPemFile(const std::string& path, std::string* error = nullptr);
    // The bundle named at build time (KORVO_CODESIGN_ANCHORS, or the build's
    // test root).
    static CodeSigningAnchors compiledIn();

    // A store for chain verification: any certificate in it is a trust
    // anchor, and no purpose is imposed (the caller checks the code-signing
    // extended key usage). Shared, read-only, safe to use from many threads.
    X509_STORE* store() const { return store_.get(); }
    int count() const { return count_; }

private:
    CodeSigningAnchors(std::shared_ptr<X509_STORE> store, int count) : store_(std::move(store)), count_(count) {}

    std::shared_ptr<X509_STORE> store_;
    int count_ = 0;
};

}  // namespace korvo::platform::codesign
