// The anchors compiled into the helper and korvo-codesign. Signing with the
// tool is what every SIGNED test does; the clients it signs for other teams
// and CAs are refused in HelperServiceTest.
#include <gtest/gtest.h>

#include "SigningTestSupport.h"
#include "platform/linux/codesigning/CodeSigningLinux.h"

namespace korvo::test {
namespace {

// korvo-codesign with the arguments; its exit status and everything it wrote.
ShellResult run(const std::string& arguments) { return shell(std::string(KORVO_CODESIGN_TOOL_PATH) + " " + arguments); }

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
