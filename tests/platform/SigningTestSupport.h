// Shared by the code-signing tests: signed copies of
// programs made with the build's test identities, and a child process that
// is killed and reaped at the end of a test.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "TestSigning.h"
#include "platform/linux/codesigning/CodeSigner.h"
#include "platform/linux/codesigning/CodeSigningAnchors.h"
#include "support/TestSupport.h"

namespace korvo::test {

namespace fs = std::filesystem;

inline constexpr const char* kClientIdentifier = "com.tallowmar.Korvo";
inline constexpr const char* kClientRequirement =
    "anchor apple generic and identifier \"com.tallowmar.Korvo\" and certificate leaf[subject.OU] = Q4XW82KTJN";

struct TestSigner {
    const char* certificate;
    const char* chain;
    const char* key;
};
#define KORVO_TEST_SIGNER(NAME) \
    TestSigner { KORVO_TEST_SIGNER_##NAME##_CERT, KORVO_TEST_SIGNER_##NAME##_CHAIN, KORVO_TEST_SIGNER_##NAME##_KEY }
inline constexpr TestSigner kTeamSigner = KORVO_TEST_SIGNER(TEAM);
inline constexpr TestSigner kOtherTeamSigner = KORVO_TEST_SIGNER(OTHERTEAM);
inline constexpr TestSigner kOtherCaSigner = KORVO_TEST_SIGNER(OTHERCA);
inline constexpr TestSigner kNoCodeSigningSigner = KORVO_TEST_SIGNER(NOEKU);
#undef KORVO_TEST_SIGNER

inline platform::codesign::CodeSigningAnchors testAnchors() {
    std::string error;
    auto anchors = platform::codesign::CodeSigningAnchors::fromPemFile(KORVO_TEST_ANCHORS, &error);
    if (!anchors) {
        ADD_FAILURE() << error;
        std::abort();
    }
    return std::move(*anchors);
}

inline std::vector<std::uint8_t> readBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

inline void writeBytes(const std::string& path, const std::vector<std::uint8_t>& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

// Copies source to target (keeping its mode) and signs the copy.
inline void signedCopy(const std::string& source, const std::string& target, const std::string& identifier,
                       const TestSigner& signer = kTeamSigner) {
    fs::copy_file(source, target, fs::copy_options::overwrite_existing);
    const auto error =
        platform::codesign::signFile(target, {identifier, signer.certificate, std::string(signer.chain), signer.key});
    ASSERT_FALSE(error) << *error;
}

// A child process, killed and reaped when it goes out of scope.
class Child {
public:
    explicit Child(const std::vector<std::string>& argv) {
        std::vector<char*> args;
        for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        if (::posix_spawn(&pid_, args[0], nullptr, nullptr, args.data(), environ) != 0) pid_ = -1;
    }
    ~Child() { killAndReap(); }
    pid_t pid() const { return pid_; }
    void killAndReap() {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
            pid_ = -1;
        }
    }

private:
    pid_t pid_ = -1;
};

}  // namespace korvo::test
