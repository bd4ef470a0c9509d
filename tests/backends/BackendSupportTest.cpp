#include "backends/BackendSupport.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "support/TestSupport.h"

namespace korvo {
namespace {

std::string removed(const std::string& text, bool expectRemoval) {
    bool flag = !expectRemoval;
    std::string out = configTextByRemovingBackgroundOption(text, &flag);
    EXPECT_EQ(flag, expectRemoval) << text;
    return out;
}

// Every form of the option is dropped; lookalikes and comments stay.
TEST(BackgroundOptionTest, EveryFormOfTheOptionIsDroppedAndNothingElse) {
    EXPECT_EQ(removed("user=a\nbackground\nprotocol=anyconnect\n", true), "user=a\nprotocol=anyconnect\n");
    EXPECT_EQ(removed("--background\n", true), "");
    EXPECT_EQ(removed("BackGround=yes\nx", true), "x");
    EXPECT_EQ(removed("  background  \n\tkeep  \n", true), "\tkeep  \n");
    EXPECT_EQ(removed("background x=1\n", true), "");  // with "=" after a blank the name ends at the blank
    EXPECT_EQ(removed("a\r\nbackground\r\nb", true), "a\n\n\nb");  // CR and LF each end a line
    const std::string text = "#background\nbackgrounded\nno-background\nbackground-color=1\nmtu=1 background\n";
    EXPECT_EQ(removed(text, false), text);
}

// openconnect runs its script argument with /bin/sh -c: whatever the
// client put into the directory and file names, the shell runs exactly the
// named script and expands nothing.
TEST(ScriptQuotingTest, AQuotedScriptPathRunsThatScriptAndNothingElse) {
    const test::TempDir tmp;
    const std::string dir = tmp.path();
    const std::string marker = dir + "/payload-ran";  // the shell runs in dir
    const std::vector<std::string> names = {"a b",          "$(touch payload-ran)", "`touch payload-ran`",
                                            "it's \"x\"", "'; touch payload-ran; '", "$HOME"};
    for (const std::string& name : names) {
        const std::string folder = dir + "/" + std::to_string(std::hash<std::string>{}(name)) + name;
        std::filesystem::create_directory(folder);
        const std::string script = folder + "/" + name + "-openconnect-script.sh";
        std::ofstream(script) << "#!/bin/sh\necho ran > \"$0.out\"\n";
        std::filesystem::permissions(script, std::filesystem::perms::owner_all);
        const pid_t child = ::fork();
        if (child == 0) {
            if (::chdir(dir.c_str()) != 0) ::_exit(126);
            ::execl("/bin/sh", "/bin/sh", "-c", shellQuoted(script).c_str(), static_cast<char*>(nullptr));
            ::_exit(127);
        }
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        EXPECT_TRUE(std::filesystem::exists(script + ".out")) << name;
        EXPECT_FALSE(std::filesystem::exists(marker)) << name;
    }
}

}  // namespace
}  // namespace korvo
