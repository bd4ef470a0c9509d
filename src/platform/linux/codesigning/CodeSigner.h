// Signing a file in place: the code directory over every byte before the
// block, a detached CMS signature over it with the signer's chain, and the
// trailer. Used by korvo-codesign and by tests.
#pragma once

#include <optional>
#include <string>

namespace korvo::platform::codesign {

struct SigningRequest {
    std::string identifier;
    std::string certificatePath;                // PEM: the signer's certificate
    std::optional<std::string> chainPath;       // PEM: certificates to carry along (intermediates)
    std::string keyPath;                        // PEM: the signer's private key
};

// Signs the file at path; an existing signature block is replaced. The file
// is rewritten through a temporary file and a rename, keeping its mode and
// owner. Returns nullopt on success, otherwise what went wrong.
std::optional<std::string> signFile(const std::string& path, const SigningRequest& request);

}  // namespace korvo::platform::codesign
