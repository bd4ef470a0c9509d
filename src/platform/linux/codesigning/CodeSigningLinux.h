// Code signing on Linux: executables carry an appended CMS signature that
// chains to the anchors compiled into the helper; a client process is
// identified by its /proc/PID/exe, pinned with a pidfd.
#pragma once

#include <functional>
#include <mutex>
#include <optional>

#include "platform/CodeSigning.h"
#include "platform/linux/codesigning/CodeSigningAnchors.h"
#include "platform/linux/codesigning/RequirementParser.h"
#include "platform/linux/codesigning/SignatureVerifier.h"

namespace korvo::platform {

class LinuxCodeSigning final : public CodeSigning {
public:
    explicit LinuxCodeSigning(codesign::CodeSigningAnchors anchors);
    // Anchors made by load on the first check: a helper that nobody calls
    // never initialises the signature machinery, which is most of its idle
    // memory.
    explicit LinuxCodeSigning(std::function<codesign::CodeSigningAnchors()> load);

    // The signature's state; an unsigned system executable (see
    // isSystemExecutable) counts as valid.
    CodeSignState codeSignStateForExecutable(const std::string& path) override;
    // The signer is judged against the requirement before the code is read,
    // as for a client.
    int checkExecutable(int fd, std::string_view requirement) override;
    CodeSignState codeSignStateForSystemExecutable(int fd) override;

    int copyGuestWithPid(pid_t pid, std::unique_ptr<GuestCode>& guest) override;
    int createRequirement(std::string_view text, std::unique_ptr<CodeRequirement>& requirement) override;
    // Verifies the pinned executable and the requirement, then confirms that
    // the process is still alive and still runs that same file.
    int checkValidity(const GuestCode& guest, const CodeRequirement& requirement) override;

private:
    const codesign::CodeSigningAnchors& anchors();

    std::function<codesign::CodeSigningAnchors()> load_;
    std::once_flag loaded_;
    std::optional<codesign::CodeSigningAnchors> anchors_;
};

namespace codesign {

// The status of a signature checked against a requirement: a signature
// that is not intact fails with its own status; an intact one must satisfy
// every clause (only "anchor apple generic" asks for a trusted chain).
int validityStatus(const SignatureEvaluation& evaluation, const Requirement& requirement);

// An unsigned file counts as a system executable when it (by its resolved
// path) and every directory above it are owned by root and writable by
// neither group nor others: only root could have put it there.
bool isSystemExecutable(const std::string& resolvedPath, int fd);

}  // namespace codesign
}  // namespace korvo::platform
