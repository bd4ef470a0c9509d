// The code-sign state of executables, the system-executable rule and the
// acceptance of a running client, on real files and processes.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <chrono>
#include <thread>

#include "SigningTestSupport.h"
#include "util/KorvoIdentity.h"
#include "platform/linux/codesigning/CodeSigningLinux.h"
#include "util/UniqueFd.h"

namespace korvo::test {
namespace {

using platform::CodeSignState;
using platform::LinuxCodeSigning;
namespace status = platform::codesign_status;

constexpr const char* kSmallProgram = "/usr/bin/sleep";

class CodeSigningTest : public ::testing::Test {
protected:
    // A copy of source with one byte changed (XOR mask) at offset.
    std::string changedCopy(const std::string& source, const std::string& name, std::size_t offset, std::uint8_t mask) {
        const std::string copy = dir.file(name);
        fs::copy_file(source, copy);
        auto bytes = readBytes(copy);
        bytes[offset] ^= mask;
        writeBytes(copy, bytes);
        return copy;
    }

    LinuxCodeSigning signing{testAnchors()};
    TempDir dir;
};

TEST_F(CodeSigningTest, ExecutableStatesCoverAllSixCases) {
    const std::string valid = dir.file("valid");
    signedCopy(kSmallProgram, valid, "com.tallowmar.test.valid");
    EXPECT_EQ(signing.codeSignStateForExecutable(valid), CodeSignState::Valid);

    // /tmp is writable by everyone, so an unsigned copy there is no system executable.
    const std::string unsignedCopy = dir.file("unsigned");
    fs::copy_file(kSmallProgram, unsignedCopy);
    EXPECT_EQ(signing.codeSignStateForExecutable(unsignedCopy), CodeSignState::Unsigned);

    EXPECT_EQ(signing.codeSignStateForExecutable(changedCopy(valid, "modified", 100, 0x01)),
              CodeSignState::InvalidSignature);

    const std::string otherCa = dir.file("otherca");
    signedCopy(kSmallProgram, otherCa, "com.tallowmar.test.otherca", kOtherCaSigner);
    EXPECT_EQ(signing.codeSignStateForExecutable(otherCa), CodeSignState::NotVerifiable);
    // A trusted chain is not enough: the signer must be allowed to sign code.
    const std::string serverCert = dir.file("noeku");
    signedCopy(kSmallProgram, serverCert, "com.tallowmar.test.noeku", kNoCodeSigningSigner);
    EXPECT_EQ(signing.codeSignStateForExecutable(serverCert), CodeSignState::NotVerifiable);

    // A later format version: the code directory's version field follows its magic.
    EXPECT_EQ(signing.codeSignStateForExecutable(changedCopy(valid, "future", fs::file_size(kSmallProgram) + 7, 0x03)),
              CodeSignState::Unsupported);

    EXPECT_EQ(signing.codeSignStateForExecutable(dir.file("missing")), CodeSignState::CouldNotCheck);
    EXPECT_EQ(signing.codeSignStateForExecutable(dir.path()), CodeSignState::CouldNotCheck);
    EXPECT_EQ(signing.codeSignStateForExecutable(""), CodeSignState::CouldNotCheck);
    const std::string unreadable = dir.file("fifo");
    ASSERT_EQ(::mkfifo(unreadable.c_str(), 0600), 0);
    EXPECT_EQ(signing.codeSignStateForExecutable(unreadable), CodeSignState::CouldNotCheck);
}

// Before a launch, on the open file: a program named through the client
// must be the vendor's, whatever its identifier, with no system-executable
// rule; that rule is for the helper's own system tools.
TEST_F(CodeSigningTest, LaunchChecksJudgeTheOpenFile) {
    const auto launchStatus = [this](const std::string& path) {
        const UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
        return signing.checkExecutable(fd.get(), KorvoProgramRequirement);
    };
    const std::string vendor = dir.file("vendor");
    signedCopy(kSmallProgram, vendor, "com.tallowmar.Korvo.vpnc");
    EXPECT_EQ(launchStatus(vendor), status::kSuccess);
    const std::string otherTeam = dir.file("otherteam");
    signedCopy(kSmallProgram, otherTeam, "com.tallowmar.Korvo.vpnc", kOtherTeamSigner);
    EXPECT_EQ(launchStatus(otherTeam), status::kRequirementFailed);
    const std::string otherCa = dir.file("otherca");
    signedCopy(kSmallProgram, otherCa, "com.tallowmar.Korvo.vpnc", kOtherCaSigner);
    EXPECT_EQ(launchStatus(otherCa), status::kRequirementFailed);
    EXPECT_EQ(launchStatus(kSmallProgram), status::kUnsigned);

    const UniqueFd system(::open(kSmallProgram, O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(signing.codeSignStateForSystemExecutable(system.get()), CodeSignState::Valid);
}

// A file beyond the size bound is not read at all, whatever its tail says:
// here a 4 GiB sparse file that ends in a real signature block.
TEST_F(CodeSigningTest, AFileBeyondTheSizeBoundIsNotChecked) {
    const std::string valid = dir.file("valid");
    signedCopy(kSmallProgram, valid, kClientIdentifier);
    const auto bytes = readBytes(valid);
    const std::string huge = dir.file("huge");
    const UniqueFd fd(::open(huge.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0755));
    ASSERT_TRUE(fd.valid());
    const off_t end = off_t{4} << 30;
    ASSERT_EQ(::pwrite(fd.get(), bytes.data(), bytes.size(), end - static_cast<off_t>(bytes.size())),
              static_cast<ssize_t>(bytes.size()));
    EXPECT_EQ(signing.codeSignStateForExecutable(huge), CodeSignState::CouldNotCheck);
}

class ClientAcceptanceTest : public CodeSigningTest {
protected:
    // The three steps of acceptance for a copy of a small program running
    // under its own path.
    int accept(const std::string& program, const std::string& requirementText = kClientRequirement) {
        Child child({program, "30"});
        EXPECT_GT(child.pid(), 0);
        std::unique_ptr<platform::GuestCode> guest;
        if (const int s = signing.copyGuestWithPid(child.pid(), guest); s != status::kSuccess) {
            return s;
        }
        EXPECT_EQ(guest->pid(), child.pid());
        std::unique_ptr<platform::CodeRequirement> requirement;
        if (const int s = signing.createRequirement(requirementText, requirement); s != status::kSuccess) {
            return s;
        }
        return signing.checkValidity(*guest, *requirement);
    }
};

TEST_F(ClientAcceptanceTest, OnlyTheSignedClientSatisfiesTheRequirement) {
    const std::string client = dir.file("client");
    signedCopy(kSmallProgram, client, kClientIdentifier);
    EXPECT_EQ(accept(client), status::kSuccess);

    const std::string otherTeam = dir.file("otherteam");
    signedCopy(kSmallProgram, otherTeam, kClientIdentifier, kOtherTeamSigner);
    EXPECT_EQ(accept(otherTeam), status::kRequirementFailed);

    const std::string otherIdentifier = dir.file("otherid");
    signedCopy(kSmallProgram, otherIdentifier, "com.tallowmar.Korvo2");
    EXPECT_EQ(accept(otherIdentifier), status::kRequirementFailed);

    // Same identifier and OU, but vouched for by an untrusted CA.
    const std::string otherCa = dir.file("otherca");
    signedCopy(kSmallProgram, otherCa, kClientIdentifier, kOtherCaSigner);
    EXPECT_EQ(accept(otherCa), status::kRequirementFailed);
    // Without the anchor clause the same signature is acceptable.
    EXPECT_EQ(accept(otherCa, "identifier \"com.tallowmar.Korvo\" and certificate leaf[subject.OU] = Q4XW82KTJN"),
              status::kSuccess);

    const std::size_t inTheCode = fs::file_size(client) / 3;
    EXPECT_EQ(accept(changedCopy(client, "modified", inTheCode, 0x80)), status::kSignatureFailed);
    // Another team's changed file is refused for its signer, before the
    // code is read.
    EXPECT_EQ(accept(changedCopy(otherTeam, "othermodified", inTheCode, 0x80)), status::kRequirementFailed);

    const std::string unsignedCopy = dir.file("unsigned");
    fs::copy_file(kSmallProgram, unsignedCopy);
    EXPECT_EQ(accept(unsignedCopy), status::kUnsigned);
    // A root-owned system program is no client either.
    EXPECT_EQ(accept(kSmallProgram), status::kUnsigned);

    EXPECT_EQ(accept(client, "anchor apple generic or identifier \"com.tallowmar.Korvo\""),
              status::kRequirementInvalid);
}

TEST_F(ClientAcceptanceTest, TheCheckStaysWithTheProcessThatWasLookedUp) {
    const std::string client = dir.file("client");
    signedCopy(kSmallProgram, client, kClientIdentifier);
    std::unique_ptr<platform::CodeRequirement> requirement;
    ASSERT_EQ(signing.createRequirement(kClientRequirement, requirement), status::kSuccess);
    std::unique_ptr<platform::GuestCode> guest;

    // No such process: never started, or already reaped.
    EXPECT_EQ(signing.copyGuestWithPid(0, guest), status::kNoSuchCode);
    EXPECT_EQ(signing.copyGuestWithPid(-1, guest), status::kNoSuchCode);
    Child gone({client, "30"});
    const pid_t gonePid = gone.pid();
    gone.killAndReap();
    EXPECT_EQ(signing.copyGuestWithPid(gonePid, guest), status::kNoSuchCode);
    EXPECT_EQ(guest, nullptr);

    // Exited but not yet reaped: its pid is still taken, its code is gone.
    Child zombie({client, "30"});
    ASSERT_EQ(::kill(zombie.pid(), SIGKILL), 0);
    siginfo_t info{};
    ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(zombie.pid()), &info, WEXITED | WNOWAIT), 0);
    EXPECT_EQ(signing.copyGuestWithPid(zombie.pid(), guest), status::kNoSuchCode);

    // Looked up while alive, gone by the time of the check.
    Child dying({client, "30"});
    ASSERT_EQ(signing.copyGuestWithPid(dying.pid(), guest), status::kSuccess);
    dying.killAndReap();
    EXPECT_EQ(signing.checkValidity(*guest, *requirement), status::kNoSuchCode);

    // Looked up while running the signed client, then replaced itself with
    // another program.
    const std::string shell = dir.file("shell");
    signedCopy("/bin/sh", shell, kClientIdentifier);
    const std::string trigger = dir.file("go");
    Child execing({shell, "-c", "while [ ! -e " + trigger + " ]; do sleep 0.02; done; exec " + kSmallProgram + " 30"});
    ASSERT_EQ(signing.copyGuestWithPid(execing.pid(), guest), status::kSuccess);
    EXPECT_EQ(signing.checkValidity(*guest, *requirement), status::kSuccess);
    writeBytes(trigger, {});
    const std::string exe = "/proc/" + std::to_string(execing.pid()) + "/exe";
    ASSERT_TRUE(eventually([&] { return fs::read_symlink(exe) == kSmallProgram; }, std::chrono::seconds(5)));
    EXPECT_EQ(signing.checkValidity(*guest, *requirement), status::kGuestInvalid);
}

}  // namespace
}  // namespace korvo::test
