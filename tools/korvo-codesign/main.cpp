// korvo-codesign: signs files with an appended CMS signature, verifies them
// against anchors, and shows what a signature says.
//
//   korvo-codesign sign --identifier ID --certificate CERT.pem [--chain CHAIN.pem] --key KEY.pem FILE
//   korvo-codesign verify [--anchors PEM] [--requirement TEXT] FILE
//   korvo-codesign display FILE
#include <fcntl.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/linux/codesigning/CodeSigner.h"
#include "platform/linux/codesigning/CodeSigningAnchors.h"
#include "platform/linux/codesigning/CodeSigningLinux.h"
#include "platform/linux/codesigning/SignatureVerifier.h"
#include "util/UniqueFd.h"

namespace {

using namespace korvo::platform;
using namespace korvo::platform::codesign;
using korvo::UniqueFd;

constexpr int kExitValid = 0;
constexpr int kExitInvalid = 1;
constexpr int kExitUsage = 2;

const char* const kUsage =
    "usage: korvo-codesign sign --identifier ID --certificate CERT.pem [--chain CHAIN.pem] --key KEY.pem FILE\n"
    "       korvo-codesign verify [--anchors PEM] [--requirement TEXT] FILE\n"
    "       korvo-codesign display FILE\n";

int usage(const char* problem) {
    std::fprintf(stderr, "korvo-codesign: %s\n%s", problem, kUsage);
    return kExitUsage;
}

// "--name value" options from the allowed set, then exactly one file.
struct Arguments {
    std::map<std::string, std::string> options;
    std::string file;
    std::string problem;
};

Arguments parseArguments(int argc, char** argv, const std::vector<std::string>& allowed) {
    Arguments a;
    for (int i = 2; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg.starts_with("--")) {
            if (std::find(allowed.begin(), allowed.end(), arg) == allowed.end()) {
                a.problem = "unknown option " + arg;
                return a;
            }
            if (i + 1 >= argc) {
                a.problem = arg + " needs a value";
                return a;
            }
            if (!a.options.emplace(arg, argv[++i]).second) {
                a.problem = arg + " given twice";
                return a;
            }
        } else if (a.file.empty()) {
            a.file = arg;
        } else {
            a.problem = "only one file, please";
            return a;
        }
    }
    if (a.file.empty()) {
        a.problem = "no file given";
    }
    return a;
}

std::optional<std::string> option(const Arguments& a, const std::string& name) {
    const auto it = a.options.find(name);
    return it == a.options.end() ? std::nullopt : std::optional(it->second);
}

const char* stateName(CodeSignState state) {
    switch (state) {
    case CodeSignState::Unsigned:
        return "not signed";
    case CodeSignState::Valid:
        return "valid";
    case CodeSignState::InvalidSignature:
        return "invalid signature";
    case CodeSignState::NotVerifiable:
        return "signature not verifiable";
    case CodeSignState::Unsupported:
        return "signature format not supported";
    case CodeSignState::CouldNotCheck:
        return "could not be checked";
    }
    return "?";
}

std::string hex(const Sha256Digest& digest) {
    std::string text;
    for (const auto byte : digest) {
        char two[3];
        std::snprintf(two, sizeof two, "%02x", byte);
        text += two;
    }
    return text;
}

int signMain(int argc, char** argv) {
    const Arguments a = parseArguments(argc, argv, {"--identifier", "--certificate", "--chain", "--key"});
    if (!a.problem.empty()) {
        return usage(a.problem.c_str());
    }
    const auto identifier = option(a, "--identifier");
    const auto certificate = option(a, "--certificate");
    const auto key = option(a, "--key");
    if (!identifier || !certificate || !key) {
        return usage("sign needs --identifier, --certificate and --key");
    }
    const SigningRequest request{*identifier, *certificate, option(a, "--chain"), *key};
    if (const auto error = signFile(a.file, request)) {
        std::fprintf(stderr, "korvo-codesign: cannot sign %s: %s\n", a.file.c_str(), error->c_str());
        return kExitInvalid;
    }
    return kExitValid;
}

int verifyMain(int argc, char** argv) {
    const Arguments a = parseArguments(argc, argv, {"--anchors", "--requirement"});
    if (!a.problem.empty()) {
        return usage(a.problem.c_str());
    }
    std::optional<CodeSigningAnchors> anchors;
    if (const auto path = option(a, "--anchors")) {
        std::string error;
        anchors = CodeSigningAnchors::fromPemFile(*path, &error);
        if (!anchors) {
            std::fprintf(stderr, "korvo-codesign: anchors %s: %s\n", path->c_str(), error.c_str());
            return kExitUsage;
        }
    } else {
        anchors = CodeSigningAnchors::compiledIn();
    }
    std::optional<Requirement> requirement;
    if (const auto text = option(a, "--requirement")) {
        RequirementParse parsed = parseRequirement(*text);
        if (!parsed.ok) {
            std::fprintf(stderr, "korvo-codesign: requirement: %s\n", parsed.error.c_str());
            return kExitUsage;
        }
        requirement = std::move(parsed.requirement);
    }
    const UniqueFd fd(::open(a.file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!fd.valid()) {
        std::printf("%s: %s (%d)\n", a.file.c_str(), stateName(CodeSignState::CouldNotCheck),
                    static_cast<int>(CodeSignState::CouldNotCheck));
        return kExitInvalid;
    }
    const SignatureEvaluation e = evaluateSignature(fd.get(), *anchors);
    std::printf("%s: %s (%d)%s%s\n", a.file.c_str(), stateName(e.state), static_cast<int>(e.state),
                e.detail.empty() ? "" : ": ", e.detail.c_str());
    if (requirement) {
        const int status = validityStatus(e, *requirement);
        std::printf("requirement: %s (%d)\n", status == 0 ? "satisfied" : "not satisfied", status);
        return status == 0 ? kExitValid : kExitInvalid;
    }
    return e.state == CodeSignState::Valid ? kExitValid : kExitInvalid;
}

int displayMain(int argc, char** argv) {
    const Arguments a = parseArguments(argc, argv, {});
    if (!a.problem.empty()) {
        return usage(a.problem.c_str());
    }
    const UniqueFd fd(::open(a.file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!fd.valid()) {
        std::fprintf(stderr, "korvo-codesign: cannot open %s\n", a.file.c_str());
        return kExitInvalid;
    }
    const SignatureEvaluation e = describeSignature(fd.get());
    if (e.state != CodeSignState::Valid) {
        std::printf("%s: %s%s%s\n", a.file.c_str(), stateName(e.state), e.detail.empty() ? "" : ": ",
                    e.detail.c_str());
        return kExitInvalid;
    }
    std::printf("Executable=%s\n", a.file.c_str());
    std::printf("Identifier=%s\n", e.directory.identifier.c_str());
    std::printf("Format=code directory version %u, SHA-256\n", kCodeDirectoryVersion);
    std::printf("CodeLength=%llu\n", static_cast<unsigned long long>(e.directory.codeLength));
    std::printf("CodeDigest=%s\n", hex(e.directory.codeDigest).c_str());
    std::printf("Signer=%s\n", e.leafSubject.c_str());
    for (const auto& unit : e.leafOrganizationalUnits) {
        std::printf("SignerOU=%s\n", unit.c_str());
    }
    for (std::size_t i = 0; i < e.chain.size(); ++i) {
        std::printf("Authority[%zu]=%s (issuer: %s)\n", i, e.chain[i].subject.c_str(), e.chain[i].issuer.c_str());
    }
    return kExitValid;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        return usage("no command given");
    }
    const std::string command = argv[1];
    if (command == "sign") {
        return signMain(argc, argv);
    }
    if (command == "verify") {
        return verifyMain(argc, argv);
    }
    if (command == "display") {
        return displayMain(argc, argv);
    }
    if (command == "--help" || command == "-h" || command == "help") {
        std::fputs(kUsage, stdout);
        return kExitValid;
    }
    return usage(("unknown command " + command).c_str());
}
