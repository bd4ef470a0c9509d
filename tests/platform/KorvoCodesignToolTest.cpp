// korvo-codesign as the build and the other tests use it, and the anchors
// compiled into the helper.
#include <gtest/gtest.h>

#include "SigningTestSupport.h"
#include "platform/linux/codesigning/CodeSigningLinux.h"

namespace korvo::test {
namespace {

// korvo-codesign with the arguments; its exit status and everything it wrote.
ShellResult run(const std::string& arguments) { return shell(std::string(KORVO_CODESIGN_TOOL_PATH) + " " + arguments); }

std::string signArguments(const TestSigner& signer, const std::string& identifier, const std::string& file) {
    return "sign --identifier '" + identifier + "' --certificate " + signer.certificate + " --chain " + signer.chain +
           " --key " + signer.key + " '" + file + "'";
}

TEST(KorvoCodesignTool, SignsVerifiesAndDisplays) {
    TempDir dir;
    const std::string program = dir.file("program");
    fs::copy_file("/usr/bin/true", program);

    EXPECT_EQ(run("verify --anchors " KORVO_TEST_ANCHORS " " + program).exitStatus, 1);
    ASSERT_EQ(run(signArguments(kTeamSigner, kClientIdentifier, program)).exitStatus, 0);
    const ShellResult verified = run("verify --anchors " KORVO_TEST_ANCHORS " " + program);
    EXPECT_EQ(verified.exitStatus, 0) << verified.output;
    EXPECT_EQ(run("verify --anchors " KORVO_TEST_OTHER_ANCHORS " " + program).exitStatus, 1);
    EXPECT_EQ(run("verify --anchors " KORVO_TEST_ANCHORS " --requirement '" + std::string(kClientRequirement) +
                  "' " + program)
                  .exitStatus,
              0);
    EXPECT_EQ(run("verify --anchors " KORVO_TEST_ANCHORS " --requirement 'identifier other' " + program).exitStatus,
              1);
    EXPECT_EQ(std::system(program.c_str()), 0) << "a signed program still runs";

    const ShellResult display = run("display " + program);
    EXPECT_EQ(display.exitStatus, 0);
    EXPECT_NE(display.output.find("Identifier=com.tallowmar.Korvo\n"), std::string::npos) << display.output;
    EXPECT_NE(display.output.find("SignerOU=" KORVO_TEST_TEAM_OU "\n"), std::string::npos) << display.output;

    // Re-signed by another team: the new block replaces the old one.
    ASSERT_EQ(run(signArguments(kOtherTeamSigner, "com.example.other", program)).exitStatus, 0);
    const ShellResult again = run("display " + program);
    EXPECT_NE(again.output.find("Identifier=com.example.other\n"), std::string::npos) << again.output;
    EXPECT_NE(again.output.find("SignerOU=" KORVO_TEST_OTHER_TEAM_OU "\n"), std::string::npos) << again.output;
    EXPECT_EQ(again.output.find(KORVO_TEST_TEAM_OU), std::string::npos) << again.output;

}

// The helper trusts what the build compiled in: the test root unless
// KORVO_CODESIGN_ANCHORS named another bundle.
TEST(KorvoCodesignTool, CompiledInAnchorsAreTheBuildsOwn) {
    if (!KORVO_TEST_CA_TRUSTED) {
        GTEST_SKIP() << "built with KORVO_CODESIGN_ANCHORS";
    }
    TempDir dir;
    const std::string program = dir.file("program");
    signedCopy("/usr/bin/true", program, kClientIdentifier);
    EXPECT_EQ(platform::makeSystemCodeSigning()->codeSignStateForExecutable(program), platform::CodeSignState::Valid);
    EXPECT_EQ(run("verify " + program).exitStatus, 0);

    signedCopy("/usr/bin/true", program, kClientIdentifier, kOtherCaSigner);
    EXPECT_EQ(platform::makeSystemCodeSigning()->codeSignStateForExecutable(program),
              platform::CodeSignState::NotVerifiable);
    EXPECT_EQ(run("verify " + program).exitStatus, 1);
}

}  // namespace
}  // namespace korvo::test
