#include "platform/linux/codesigning/CodeSigningLinux.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>

#include "util/UniqueFd.h"
#include "util/Format.h"

namespace korvo::platform {
namespace {

using namespace codesign_status;

// The code of a process: a pidfd for the process itself and a descriptor
// for the file it was running when it was looked up.
class LinuxGuestCode final : public GuestCode {
public:
    LinuxGuestCode(pid_t pid, UniqueFd pidfd, UniqueFd exe, const struct stat& exeStat)
        : pid_(pid), pidfd_(std::move(pidfd)), exe_(std::move(exe)), device_(exeStat.st_dev), inode_(exeStat.st_ino) {}

    pid_t pid() const override { return pid_; }
    int executable() const { return exe_.get(); }

    // 0 while the process lives and runs the file that was pinned.
    int stillSameCode() const {
        pollfd p{pidfd_.get(), POLLIN, 0};
        const int ready = ::poll(&p, 1, 0);
        if (ready != 0) {
            return kNoSuchCode;  // exited (or the pidfd is unusable)
        }
        struct stat now {};
        if (::stat(formatString("/proc/%d/exe", pid_).c_str(), &now) != 0) {
            return kNoSuchCode;
        }
        return now.st_dev == device_ && now.st_ino == inode_ ? kSuccess : kGuestInvalid;
    }

private:
    pid_t pid_;
    UniqueFd pidfd_;
    UniqueFd exe_;
    dev_t device_;
    ino_t inode_;
};

class LinuxCodeRequirement final : public CodeRequirement {
public:
    explicit LinuxCodeRequirement(codesign::Requirement requirement) : requirement_(std::move(requirement)) {}
    const codesign::Requirement& requirement() const { return requirement_; }

private:
    codesign::Requirement requirement_;
};

bool rootOwnedAndClosed(const struct stat& st) { return st.st_uid == 0 && (st.st_mode & (S_IWGRP | S_IWOTH)) == 0; }

// Where the open file is now, as the kernel names it; "" when unknown.
std::string pathOfDescriptor(int fd) {
    char path[PATH_MAX];
    const ssize_t n = ::readlink(formatString("/proc/self/fd/%d", fd).c_str(), path, sizeof path);
    return n > 0 && static_cast<std::size_t>(n) < sizeof path ? std::string(path, static_cast<std::size_t>(n))
                                                               : std::string();
}

// The signer and the requirement are judged before the code is read: a
// refused signer costs no pass over its file, however large.
int statusAgainstRequirement(int fd, const codesign::Requirement& wanted, const codesign::CodeSigningAnchors& anchors);

}  // namespace

namespace codesign {

int validityStatus(const SignatureEvaluation& evaluation, const Requirement& requirement) {
    switch (evaluation.state) {
    case CodeSignState::Unsigned:
        return kUnsigned;
    case CodeSignState::InvalidSignature:
        return kSignatureFailed;
    case CodeSignState::Unsupported:
        return kSignatureUnsupported;
    case CodeSignState::CouldNotCheck:
        return kStaticCodeNotFound;
    case CodeSignState::Valid:
    case CodeSignState::NotVerifiable:
        break;
    }
    const auto holds = [&](const RequirementClause& clause) {
        if (std::holds_alternative<AnchorClause>(clause)) {
            return evaluation.state == CodeSignState::Valid;
        }
        if (const auto* identifier = std::get_if<IdentifierClause>(&clause)) {
            return evaluation.directory.identifier == identifier->identifier;
        }
        const auto& unit = std::get<LeafOrganizationalUnitClause>(clause).organizationalUnit;
        return std::ranges::find(evaluation.leafOrganizationalUnits, unit) != evaluation.leafOrganizationalUnits.end();
    };
    return std::ranges::all_of(requirement.clauses, holds) ? kSuccess : kRequirementFailed;
}

bool isSystemExecutable(const std::string& resolvedPath, int fd) {
    struct stat st {};
    if (resolvedPath.empty() || resolvedPath.front() != '/' || ::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) ||
        !rootOwnedAndClosed(st)) {
        return false;
    }
    std::string directory = resolvedPath;
    while (directory != "/") {
        const auto slash = directory.find_last_of('/');
        directory.resize(slash == 0 ? 1 : slash);
        struct stat dir {};
        if (::lstat(directory.c_str(), &dir) != 0 || !S_ISDIR(dir.st_mode) || !rootOwnedAndClosed(dir)) {
            return false;
        }
    }
    return true;
}

}  // namespace codesign

namespace {

int statusAgainstRequirement(int fd, const codesign::Requirement& wanted, const codesign::CodeSigningAnchors& anchors) {
    const codesign::SignatureEvaluation evaluation =
        codesign::evaluateSignature(fd, anchors, [&](const codesign::SignatureEvaluation& signer) {
            return codesign::validityStatus(signer, wanted) == kSuccess;
        });
    if (!evaluation.codeRead) {
        return kRequirementFailed;
    }
    return codesign::validityStatus(evaluation, wanted);
}

}  // namespace

LinuxCodeSigning::LinuxCodeSigning(codesign::CodeSigningAnchors anchors) : anchors_(std::move(anchors)) {}

LinuxCodeSigning::LinuxCodeSigning(std::function<codesign::CodeSigningAnchors()> load) : load_(std::move(load)) {}

const codesign::CodeSigningAnchors& LinuxCodeSigning::anchors() {
    std::call_once(loaded_, [this] {
        if (!anchors_) anchors_.emplace(load_());
    });
    return *anchors_;
}

CodeSignState LinuxCodeSigning::codeSignStateForExecutable(const std::string& path) {
    if (path.empty()) {
        return CodeSignState::CouldNotCheck;
    }
    const UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!fd.valid()) {
        return CodeSignState::CouldNotCheck;
    }
    return codeSignStateForSystemExecutable(fd.get());
}

CodeSignState LinuxCodeSigning::codeSignStateForSystemExecutable(int fd) {
    const codesign::SignatureEvaluation evaluation = codesign::evaluateSignature(fd, anchors());
    if (evaluation.state == CodeSignState::Unsigned && codesign::isSystemExecutable(pathOfDescriptor(fd), fd)) {
        return CodeSignState::Valid;
    }
    return evaluation.state;
}

int LinuxCodeSigning::checkExecutable(int fd, std::string_view requirement) {
    const codesign::RequirementParse parsed = codesign::parseRequirement(requirement);
    if (!parsed.ok) {
        return kRequirementInvalid;
    }
    return statusAgainstRequirement(fd, parsed.requirement, anchors());
}

int LinuxCodeSigning::copyGuestWithPid(pid_t pid, std::unique_ptr<GuestCode>& guest) {
    guest.reset();
    if (pid <= 0) {
        return kNoSuchCode;
    }
    // The pidfd first: from here on, the process it names cannot be
    // replaced by another one under the same identifier unnoticed.
    UniqueFd pidfd(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
    if (!pidfd.valid()) {
        return kNoSuchCode;
    }
    UniqueFd exe(::open(formatString("/proc/%d/exe", pid).c_str(), O_RDONLY | O_CLOEXEC));
    struct stat st {};
    if (!exe.valid() || ::fstat(exe.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
        return kNoSuchCode;
    }
    auto code = std::make_unique<LinuxGuestCode>(pid, std::move(pidfd), std::move(exe), st);
    if (const int status = code->stillSameCode(); status != kSuccess) {
        return status;
    }
    guest = std::move(code);
    return kSuccess;
}

int LinuxCodeSigning::createRequirement(std::string_view text, std::unique_ptr<CodeRequirement>& requirement) {
    requirement.reset();
    codesign::RequirementParse parsed = codesign::parseRequirement(text);
    if (!parsed.ok) {
        return kRequirementInvalid;
    }
    requirement = std::make_unique<LinuxCodeRequirement>(std::move(parsed.requirement));
    return kSuccess;
}

int LinuxCodeSigning::checkValidity(const GuestCode& guest, const CodeRequirement& requirement) {
    const auto* code = dynamic_cast<const LinuxGuestCode*>(&guest);
    if (!code) {
        return kNoSuchCode;
    }
    const auto* parsed = dynamic_cast<const LinuxCodeRequirement*>(&requirement);
    if (!parsed) {
        return kRequirementInvalid;
    }
    const int status = statusAgainstRequirement(code->executable(), parsed->requirement(), anchors());
    // Whatever the verdict, it is only about this process if the process is
    // still the one that ran the file that was read.
    if (const int same = code->stillSameCode(); same != kSuccess) {
        return same;
    }
    return status;
}

std::unique_ptr<CodeSigning> makeSystemCodeSigning() {
    return std::make_unique<LinuxCodeSigning>(std::function<codesign::CodeSigningAnchors()>(
        [] { return codesign::CodeSigningAnchors::compiledIn(); }));
}

}  // namespace korvo::platform
