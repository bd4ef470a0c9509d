// The system-executable rule: an unsigned file counts as valid only where
// nobody but root could have put it. Runs in tests/support/isolated, as
// root, so that a root-only folder chain exists wherever the build lies.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "SigningTestSupport.h"
#include "platform/linux/codesigning/CodeSigningLinux.h"

namespace korvo::test {
namespace {

using platform::CodeSignState;
using platform::LinuxCodeSigning;

constexpr const char* kSmallProgram = "/usr/bin/sleep";

// The rule needs a folder chain that only root can write to, wherever the
// build lies: the private /run of tests/support/isolated is one.
TEST(SystemExecutableTest, UnsignedFilesInRootOnlyFoldersAreSystemExecutables) {
    LinuxCodeSigning signing{testAnchors()};
    TempDir dir;
    TempDir closed("/run");
    ASSERT_EQ(::chmod(closed.path().c_str(), 0755), 0);
    for (fs::path p = closed.path(); p != p.root_path(); p = p.parent_path()) {
        struct stat st {};
        ASSERT_EQ(::stat(p.c_str(), &st), 0);
        ASSERT_TRUE(st.st_uid == 0 && (st.st_mode & (S_IWGRP | S_IWOTH)) == 0) << p << " is not a root-only folder";
    }

    const std::string system = closed.file("tool");
    fs::copy_file(kSmallProgram, system);
    EXPECT_EQ(signing.codeSignStateForExecutable(system), CodeSignState::Valid);
    EXPECT_EQ(signing.codeSignStateForExecutable(kSmallProgram), CodeSignState::Valid);

    // Reached through a link in a world-writable folder: judged by the target.
    const std::string link = dir.file("link-to-system");
    fs::create_symlink(system, link);
    EXPECT_EQ(signing.codeSignStateForExecutable(link), CodeSignState::Valid);

    // The file itself writable by the group.
    ASSERT_EQ(::chmod(system.c_str(), 0775), 0);
    EXPECT_EQ(signing.codeSignStateForExecutable(system), CodeSignState::Unsigned);
    ASSERT_EQ(::chmod(system.c_str(), 0755), 0);

    // A parent writable by the group.
    const fs::path open = fs::path(closed.path()) / "shared";
    fs::create_directory(open);
    ASSERT_EQ(::chmod(open.c_str(), 0775), 0);
    const std::string inOpen = (open / "tool").string();
    fs::copy_file(kSmallProgram, inOpen);
    EXPECT_EQ(signing.codeSignStateForExecutable(inOpen), CodeSignState::Unsigned);

    // Not owned by root.
    ASSERT_EQ(::chown(system.c_str(), 1, 1), 0);
    EXPECT_EQ(signing.codeSignStateForExecutable(system), CodeSignState::Unsigned);

    // A signed file in the same place is judged by its signature alone.
    const std::string broken = closed.file("broken");
    signedCopy(kSmallProgram, broken, "com.tallowmar.broken", kOtherCaSigner);
    EXPECT_EQ(signing.codeSignStateForExecutable(broken), CodeSignState::NotVerifiable);
}

}  // namespace
}  // namespace korvo::test
