#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "core/WorkspaceLookup.h"
#include "support/TestSupport.h"

namespace korvo {
namespace {

namespace fs = std::filesystem;

TEST(WorkspaceLookupTest, FindsTheBundleThatHoldsTheEntrysProgram) {
    EXPECT_EQ(bundlePathFromDesktopEntry("[Desktop Entry]\nType=Application\nName=Korvo\n"
                                         "Exec=/opt/Korvo.app/Contents/MacOS/Korvo %U\n"),
              "/opt/Korvo.app");
    // Quoted program with an escaped quote and a space, and the string
    // escape \s of desktop entries.
    EXPECT_EQ(bundlePathFromDesktopEntry("[Desktop Entry]\nExec=\"/opt/My \\\\\"Apps\\\\\"/Korvo.app/Contents/MacOS/Korvo\" --x\n"),
              "/opt/My \"Apps\"/Korvo.app");
    // \s is a space, and an unquoted space ends the program.
    EXPECT_EQ(bundlePathFromDesktopEntry("[Desktop Entry]\nExec=/opt/A\\sB.app/Contents/MacOS/Korvo\n"), std::nullopt);
    // Keys outside the main group and comments do not count; spaces around '='.
    EXPECT_EQ(bundlePathFromDesktopEntry("# Exec=/x.app/Contents/MacOS/y\n[Desktop Action New]\n"
                                         "Exec=/wrong.app/Contents/MacOS/Korvo\n[Desktop Entry]\n"
                                         "Exec = /right.app/Contents/MacOS/Korvo\n"),
              "/right.app");
}

TEST(WorkspaceLookupTest, RejectsEntriesThatNameNoBundle) {
    for (const char* entry : {
             "[Desktop Entry]\nExec=korvo\n",                                    // looked up in PATH
             "[Desktop Entry]\nExec=/usr/bin/korvo\n",                           // not in a bundle
             "[Desktop Entry]\nExec=/opt/Korvo.app/Contents/MacOS/\n",           // no program name
             "[Desktop Entry]\nExec=/opt/Korvo.app/Contents/MacOS/sub/Korvo\n",  // deeper than MacOS/
             "[Desktop Entry]\nExec=/Contents/MacOS/Korvo\n",                    // bundle path empty
             "[Desktop Entry]\nExec=\"/opt/Korvo.app/Contents/MacOS/Korvo\n",    // unterminated quote
             "[Desktop Entry]\nHidden=true\nExec=/opt/Korvo.app/Contents/MacOS/Korvo\n",
             "[Desktop Entry]\nType=Link\nExec=/opt/Korvo.app/Contents/MacOS/Korvo\n",
             "Exec=/opt/Korvo.app/Contents/MacOS/Korvo\n",  // no group
             "",
         }) {
        EXPECT_EQ(bundlePathFromDesktopEntry(entry), std::nullopt) << entry;
    }
}

// The first directory that has the entry decides, even when its entry is
// unusable (a user's hidden entry masks the system one).
TEST(WorkspaceLookupTest, SearchesTheApplicationDirectoriesInOrder) {
    const test::TempDir tmp;
    const fs::path root = tmp.path();
    const fs::path user = root / "user", system = root / "system";
    fs::create_directories(user);
    fs::create_directories(system);
    std::ofstream(system / "com.tallowmar.Korvo.desktop") << "[Desktop Entry]\nExec=/sys.app/Contents/MacOS/Korvo\n";
    const std::vector<std::string> dirs = {(root / "missing").string(), user.string(), system.string()};

    EXPECT_EQ(applicationBundlePathForIdentifier("com.tallowmar.Korvo", dirs), "/sys.app");
    std::ofstream(user / "com.tallowmar.Korvo.desktop") << "[Desktop Entry]\nExec=/user.app/Contents/MacOS/Korvo\n";
    EXPECT_EQ(applicationBundlePathForIdentifier("com.tallowmar.Korvo", dirs), "/user.app");
    std::ofstream(user / "com.tallowmar.Korvo.desktop") << "[Desktop Entry]\nHidden=true\n";
    EXPECT_EQ(applicationBundlePathForIdentifier("com.tallowmar.Korvo", dirs), std::nullopt);
    EXPECT_EQ(applicationBundlePathForIdentifier("../system/com.tallowmar.Korvo", dirs), std::nullopt);

    ::setenv("XDG_DATA_HOME", user.c_str(), 1);
    ::setenv("XDG_DATA_DIRS", (system.string() + ":relative:/usr/share").c_str(), 1);
    EXPECT_EQ(xdgApplicationDirectories(),
              (std::vector<std::string>{(user / "applications").string(), (system / "applications").string(),
                                        "/usr/share/applications"}));
    ::unsetenv("XDG_DATA_HOME");
    ::unsetenv("XDG_DATA_DIRS");
    const auto defaults = xdgApplicationDirectories();
    ASSERT_GE(defaults.size(), 2u);
    EXPECT_EQ(defaults[defaults.size() - 2], "/usr/local/share/applications");
    EXPECT_EQ(defaults.back(), "/usr/share/applications");
}

}  // namespace
}  // namespace korvo
