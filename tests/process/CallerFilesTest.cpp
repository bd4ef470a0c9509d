// Files at client-named paths are reached with the client's rights: user
// nobody cannot write, append to or remove what root alone may, and a
// symbolic link in the last component is never followed.
#include "process/CallerFiles.h"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>

#include <gtest/gtest.h>

#include "support/TestSupport.h"

namespace korvo {
namespace {

namespace fs = std::filesystem;

using test::fileText;

struct stat statusOf(const std::string& path) {
    struct stat status {};
    ::lstat(path.c_str(), &status);
    return status;
}

// Writing and appending as the caller go through the bus too
// (SystemMaintenanceServiceTest, DiagnosticsServiceTest); here the refusals.
// A folder of root's that nobody may not write, one of nobody's own, and a
// sticky world-writable one (nobody may add files there, not replace root's).
class CallerFilesTest : public ::testing::Test {
protected:
    void SetUp() override {
        for (const auto& [folder, mode] : {std::pair{rootOnly, 0755}, {own, 0755}, {sticky, 01777}}) {
            ASSERT_EQ(::mkdir(folder.c_str(), 0755), 0);
            ASSERT_EQ(::chmod(folder.c_str(), mode), 0);
        }
        ASSERT_EQ(::chown(own.c_str(), nobody.userIdentifier, nobody.groupIdentifier), 0);
    }

    const test::TempDir base{"/tmp", 0755};
    const CallerRights nobody{65534, 65534, {65534}};
    const std::string rootOnly = base.file("root-only"), own = base.file("own"), sticky = base.file("sticky");
};

TEST_F(CallerFilesTest, RefusesWhatOnlyRootMayChange) {
    const std::string inRootFolder = rootOnly + "/shadow", inSticky = sticky + "/root-file";
    for (const auto& path : {inRootFolder, inSticky}) std::ofstream(path) << "root's";
    ASSERT_EQ(::chmod(inSticky.c_str(), 0600), 0);
    const std::vector<std::pair<const char*, std::function<MaybeError()>>> cases = {
        {"write in root's folder", [&] { return writeFileAsCaller(nobody, rootOnly + "/marker", "x", 0644); }},
        {"write below root's folder", [&] { return writeFileAsCaller(nobody, rootOnly + "/a/marker", "x", 0644); }},
        {"replace in root's folder", [&] { return writeFileAsCaller(nobody, inRootFolder, "x", 0644); }},
        {"replace in a sticky folder", [&] { return writeFileAsCaller(nobody, inSticky, "x", 0644); }},
        {"append to root's file", [&] { return appendFileAsCaller(nobody, inSticky, "x", 0644); }},
        {"create by appending", [&] { return appendFileAsCaller(nobody, rootOnly + "/marker", "x", 0644); }},
        {"remove in root's folder", [&] { return removeFileAsCaller(nobody, inRootFolder); }},
        {"remove in a sticky folder", [&] { return removeFileAsCaller(nobody, inSticky); }},
    };
    for (const auto& [what, act] : cases) {
        const MaybeError error = act();
        ASSERT_TRUE(error.has_value()) << what;
        EXPECT_EQ(error->domain, CocoaErrorDomain) << what;
        EXPECT_EQ(error->code, 513) << what << ": " << error->displayText();
    }
    EXPECT_FALSE(fs::exists(rootOnly + "/marker"));
    EXPECT_FALSE(fs::exists(rootOnly + "/a"));
    EXPECT_EQ(fileText(inRootFolder), "root's");
    EXPECT_EQ(fileText(inSticky), "root's");
}

TEST_F(CallerFilesTest, NeverFollowsASymbolicLinkInTheLastComponent) {
    // Root's file that nobody may read but not write, behind nobody's link.
    const std::string target = rootOnly + "/passwd", link = own + "/link";
    std::ofstream(target) << "root's";
    ASSERT_EQ(::symlink(target.c_str(), link.c_str()), 0);
    EXPECT_TRUE(appendFileAsCaller(nobody, link, "x", 0644).has_value());
    ASSERT_EQ(writeFileAsCaller(nobody, link, "new", 0644), std::nullopt);
    EXPECT_TRUE(S_ISREG(statusOf(link).st_mode)) << "the link itself is replaced";
    ASSERT_EQ(::unlink(link.c_str()), 0);
    ASSERT_EQ(::symlink(target.c_str(), link.c_str()), 0);
    ASSERT_EQ(removeFileAsCaller(nobody, link), std::nullopt);
    EXPECT_FALSE(fs::exists(fs::symlink_status(link)));
    EXPECT_EQ(fileText(target), "root's");
}

TEST_F(CallerFilesTest, RefusesPathsAndSizesOutOfBounds) {
    const std::string fifo = own + "/fifo";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    ASSERT_EQ(::chown(fifo.c_str(), nobody.userIdentifier, nobody.groupIdentifier), 0);
    const std::vector<std::pair<const char*, MaybeError>> cases = {
        {"relative", writeFileAsCaller(nobody, "relative/file", "x", 0644)},
        {"empty", removeFileAsCaller(nobody, "")},
        {"NUL inside", writeFileAsCaller(nobody, own + std::string("/a\0b", 4), "x", 0644)},
        {"a folder's path", writeFileAsCaller(nobody, own + "/", "x", 0644)},
        {"too long", appendFileAsCaller(nobody, own + "/" + std::string(5000, 'a'), "x", 0644)},
        {"too big", writeFileAsCaller(nobody, own + "/big", std::string(kMaximumCallerFileSize + 1, 'x'), 0644)},
        {"a FIFO", appendFileAsCaller(nobody, fifo, "x", 0644)},
    };
    for (const auto& [what, error] : cases) EXPECT_TRUE(error.has_value()) << what;
    EXPECT_FALSE(fs::exists(own + "/big"));
    EXPECT_FALSE(fs::exists(own + "/a"));
}

}  // namespace
}  // namespace korvo
