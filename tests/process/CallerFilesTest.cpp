// Files at client-named paths are reached with the client's rights: user
// nobody cannot write, append to or remove what root alone may, and a
// symbolic link in the last component is never followed.
#include "process/CallerFiles.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <sstream>

#include <gtest/gtest.h>

#include "support/TestSupport.h"

namespace korvo {
namespace {

using test::TempDir;

CallerRights nobody() {
    const passwd* entry = ::getpwnam("nobody");
    const uid_t uid = entry ? entry->pw_uid : 65534;
    const gid_t gid = entry ? entry->pw_gid : 65534;
    return CallerRights{uid, gid, {gid}};
}

std::string contents(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

struct stat statusOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
    return status;
}

bool exists(const std::string& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0;
}

// A folder that nobody may write to, and one that belongs to nobody.
class CallerFilesTest : public ::testing::Test {
protected:
    void SetUp() override {
        rootOnly_ = base_.file("root-only");
        ASSERT_EQ(::mkdir(rootOnly_.c_str(), 0755), 0);
        own_ = base_.file("own");
        ASSERT_EQ(::mkdir(own_.c_str(), 0755), 0);
        ASSERT_EQ(::chown(own_.c_str(), caller_.userIdentifier, caller_.groupIdentifier), 0);
        sticky_ = base_.file("sticky");
        ASSERT_EQ(::mkdir(sticky_.c_str(), 0755), 0);
        ASSERT_EQ(::chmod(sticky_.c_str(), 01777), 0);
    }

    TempDir base_{"/tmp", 0755};
    CallerRights caller_ = nobody();
    std::string rootOnly_, own_, sticky_;
};

TEST_F(CallerFilesTest, WritesExactlyTheBytesAndReplacesTheFileAtomically) {
    const std::string path = own_ + "/new/folders/config.ovpn";
    const std::string first("first\0\xff\n", 8);
    ASSERT_EQ(writeFileAsCaller(caller_, path, first, 0644), std::nullopt);
    EXPECT_EQ(contents(path), first);
    const struct stat before = statusOf(path);
    EXPECT_EQ(before.st_uid, caller_.userIdentifier);
    EXPECT_EQ(before.st_gid, caller_.groupIdentifier);
    EXPECT_EQ(statusOf(own_ + "/new").st_uid, caller_.userIdentifier);

    ASSERT_EQ(writeFileAsCaller(caller_, path, "second", 0600), std::nullopt);
    EXPECT_EQ(contents(path), "second");
    // A new file took the name: a reader of the old one never saw a mix.
    EXPECT_NE(statusOf(path).st_ino, before.st_ino);
    EXPECT_EQ(statusOf(path).st_mode & 07777, 0600u);
    const auto entries = test::shell("ls -A " + own_ + "/new/folders").output;
    EXPECT_EQ(entries, "config.ovpn\n");  // no temporary file left
}

TEST_F(CallerFilesTest, AppendsAndRemovesAsTheCaller) {
    const std::string path = own_ + "/diagnostics.log";
    ASSERT_EQ(appendFileAsCaller(caller_, path, "one\n", 0644), std::nullopt);
    ASSERT_EQ(appendFileAsCaller(caller_, path, "two\n", 0644), std::nullopt);
    EXPECT_EQ(contents(path), "one\ntwo\n");
    EXPECT_EQ(statusOf(path).st_uid, caller_.userIdentifier);
    ASSERT_EQ(removeFileAsCaller(caller_, path), std::nullopt);
    EXPECT_FALSE(exists(path));
    EXPECT_EQ(removeFileAsCaller(caller_, path), std::nullopt) << "a missing file counts as removed";
}

TEST_F(CallerFilesTest, RefusesWhatOnlyRootMayChange) {
    // Root's files: one in a folder nobody cannot write, one in a sticky
    // world-writable folder (nobody may add files there, not replace root's).
    const std::string inRootFolder = rootOnly_ + "/shadow";
    const std::string inSticky = sticky_ + "/root-file";
    for (const auto& path : {inRootFolder, inSticky}) {
        std::ofstream(path) << "root's";
        ASSERT_EQ(::chmod(path.c_str(), 0600), 0);
    }
    const std::string marker = rootOnly_ + "/marker";
    struct Case {
        const char* what;
        std::function<MaybeError()> act;
        std::string untouched;
    };
    const std::vector<Case> cases = {
        {"write into a root folder", [&] { return writeFileAsCaller(caller_, marker, "x", 0644); }, marker},
        {"write into a missing folder under root's",
         [&] { return writeFileAsCaller(caller_, rootOnly_ + "/sub/marker", "x", 0644); }, rootOnly_ + "/sub"},
        {"replace root's file in a root folder",
         [&] { return writeFileAsCaller(caller_, inRootFolder, "x", 0644); }, inRootFolder},
        {"replace root's file in a sticky folder",
         [&] { return writeFileAsCaller(caller_, inSticky, "x", 0644); }, inSticky},
        {"append to root's file", [&] { return appendFileAsCaller(caller_, inSticky, "x", 0644); }, inSticky},
        {"create by appending in a root folder",
         [&] { return appendFileAsCaller(caller_, marker, "x", 0644); }, marker},
        {"remove root's file in a root folder", [&] { return removeFileAsCaller(caller_, inRootFolder); },
         inRootFolder},
        {"remove root's file in a sticky folder", [&] { return removeFileAsCaller(caller_, inSticky); },
         inSticky},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const MaybeError error = c.act();
        ASSERT_TRUE(error.has_value());
        EXPECT_EQ(error->domain, CocoaErrorDomain);
        EXPECT_EQ(error->code, 513) << error->displayText();
        if (c.untouched == marker || c.untouched == rootOnly_ + "/sub") {
            EXPECT_FALSE(exists(c.untouched));
        } else {
            EXPECT_EQ(contents(c.untouched), "root's");
        }
    }
}

TEST_F(CallerFilesTest, NeverFollowsASymbolicLinkInTheLastComponent) {
    // Targets: root's file that nobody may read but not write, and nobody's own.
    const std::string rootTarget = rootOnly_ + "/passwd";
    std::ofstream(rootTarget) << "root's";
    const std::string ownTarget = own_ + "/own-target";
    ASSERT_EQ(writeFileAsCaller(caller_, ownTarget, "own", 0644), std::nullopt);
    for (const auto& target : {rootTarget, ownTarget}) {
        SCOPED_TRACE(target);
        const std::string link = own_ + "/link";
        ::unlink(link.c_str());
        ASSERT_EQ(::symlink(target.c_str(), link.c_str()), 0);
        ASSERT_EQ(::lchown(link.c_str(), caller_.userIdentifier, caller_.groupIdentifier), 0);
        const std::string before = contents(target);

        const MaybeError append = appendFileAsCaller(caller_, link, "x", 0644);
        ASSERT_TRUE(append.has_value());
        EXPECT_EQ(contents(target), before);

        // Writing replaces the link itself by a file.
        ASSERT_EQ(writeFileAsCaller(caller_, link, "new", 0644), std::nullopt);
        EXPECT_TRUE(S_ISREG(statusOf(link).st_mode));
        EXPECT_EQ(contents(target), before);

        ::unlink(link.c_str());
        ASSERT_EQ(::symlink(target.c_str(), link.c_str()), 0);
        ASSERT_EQ(removeFileAsCaller(caller_, link), std::nullopt);
        EXPECT_FALSE(exists(link));
        EXPECT_EQ(contents(target), before);
    }
}

TEST_F(CallerFilesTest, RefusesPathsAndSizesOutOfBounds) {
    const std::string big(kMaximumCallerFileSize + 1, 'x');
    const std::vector<std::pair<std::string, MaybeError>> cases = {
        {"relative", writeFileAsCaller(caller_, "relative/file", "x", 0644)},
        {"empty", removeFileAsCaller(caller_, "")},
        {"NUL", writeFileAsCaller(caller_, own_ + std::string("/a\0b", 4), "x", 0644)},
        {"folder", writeFileAsCaller(caller_, own_ + "/", "x", 0644)},
        {"too long", appendFileAsCaller(caller_, own_ + "/" + std::string(5000, 'a'), "x", 0644)},
        {"too big", writeFileAsCaller(caller_, own_ + "/big", big, 0644)},
        {"a FIFO", [&] {
             const std::string fifo = own_ + "/fifo";
             ::mkfifo(fifo.c_str(), 0600);
             EXPECT_EQ(::chown(fifo.c_str(), caller_.userIdentifier, caller_.groupIdentifier), 0);
             return appendFileAsCaller(caller_, fifo, "x", 0644);
         }()},
    };
    for (const auto& [what, error] : cases) {
        EXPECT_TRUE(error.has_value()) << what;
    }
    EXPECT_FALSE(exists(own_ + "/big"));
    EXPECT_FALSE(exists(own_ + "/a"));
}

TEST(CallerRightsTest, TakesTheEffectiveGroupFirst) {
    platform::ServiceConnection connection;
    EXPECT_FALSE(callerRightsOf(connection).has_value());
    connection.userIdentifier = 1000;
    EXPECT_FALSE(callerRightsOf(connection).has_value()) << "no groups known";
    connection.groupIdentifiers = {50, 7, 1000};
    const auto rights = callerRightsOf(connection);
    ASSERT_TRUE(rights.has_value());
    EXPECT_EQ(rights->userIdentifier, 1000u);
    EXPECT_EQ(rights->groupIdentifier, 50u);
    EXPECT_EQ(rights->groupIdentifiers, (std::vector<gid_t>{50, 7, 1000}));
}

}  // namespace
}  // namespace korvo
