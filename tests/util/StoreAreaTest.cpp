#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "support/TestSupport.h"
#include "util/StoreArea.h"

namespace korvo {
namespace {

namespace fs = std::filesystem;

struct stat statOf(const std::string& path) {
    struct stat st {};
    EXPECT_EQ(::lstat(path.c_str(), &st), 0) << path;
    return st;
}

// The client's group can add entries to the run directory. Whatever it
// planted under a store directory's name, the helper's state ends up in a
// root 0700 directory of its own.
TEST(StoreAreaTest, StoreDirectoriesAreRootsOwnWhateverWasPlanted) {
    const test::TempDir dir;
    const std::string run = dir.file("Korvo");
    const gid_t clientGroup = 4321;
    const StoreArea store(run, clientGroup);

    ASSERT_EQ(::mkdir(run.c_str(), 0777), 0);
    const std::string elsewhere = dir.file("elsewhere");
    ASSERT_EQ(::mkdir(elsewhere.c_str(), 0700), 0);
    ASSERT_EQ(::symlink(elsewhere.c_str(), store.path(StoreDirectory::Connections).c_str()), 0);
    ASSERT_EQ(::mkdir(store.path(StoreDirectory::NetworkTransactions).c_str(), 0700), 0);
    ASSERT_EQ(::chown(store.path(StoreDirectory::NetworkTransactions).c_str(), 65534, 65534), 0);

    ASSERT_EQ(store.prepare(), std::nullopt);
    const struct stat runStat = statOf(run);
    EXPECT_EQ(runStat.st_mode & 07777, 03770u);
    EXPECT_EQ(runStat.st_gid, clientGroup);
    for (const auto directory : {StoreDirectory::NetworkTransactions, StoreDirectory::DynamicStore,
                                 StoreDirectory::StartedProcesses, StoreDirectory::Connections}) {
        const struct stat st = statOf(store.path(directory));
        EXPECT_TRUE(S_ISDIR(st.st_mode)) << store.path(directory);
        EXPECT_EQ(st.st_uid, 0u);
        EXPECT_EQ(st.st_mode & 07777, 0700u);
        EXPECT_TRUE(store.open(directory)) << store.path(directory);
    }
    EXPECT_TRUE(fs::is_empty(elsewhere));  // the link was moved aside, not followed

    // Changed behind the helper's back: refused on the next use, then made anew.
    const std::string connections = store.path(StoreDirectory::Connections);
    ASSERT_EQ(::chmod(connections.c_str(), 0770), 0);
    EXPECT_TRUE(store.open(StoreDirectory::Connections));
    EXPECT_EQ(statOf(connections).st_mode & 07777, 0700u);

}

}  // namespace
}  // namespace korvo
