// The cleaning request: the run directory, the client's resolver files and
// the helper's installed files, each chosen by a bit of the clean mask.
#include <sys/stat.h>

#include <set>

#include "backends/SystemMaintenance.h"
#include "util/DirectoryTree.h"
#include "util/FileSystem.h"
#include "util/Log.h"

namespace korvo {
namespace {

// The bits, in the order in which they are handled.
enum CleanMaskBit : std::int64_t { kRunDirectoryBit = 4, kResolverFilesBit = 16, kInstallationBit = 2 };

constexpr std::int64_t kFileNoSuchFileCode = 4;

}  // namespace

std::vector<std::string> installedHelperFiles() {
    // The build names where it installs the files (packaging/CMakeLists.txt);
    // without them, the macOS installation.
#if defined(KORVO_INSTALLED_HELPER)
    return {KORVO_INSTALLED_SYSTEMD_UNIT, KORVO_INSTALLED_DBUS_SERVICE, KORVO_INSTALLED_DBUS_POLICY,
            KORVO_INSTALLED_HELPER};
#else
    return {"/Library/LaunchDaemons/com.tallowmar.korvo.helper.plist",
            "/Library/LaunchAgents/com.tallowmar.korvo.helper.plist",
            "/Library/PrivilegedHelperTools/com.tallowmar.korvo.helper"};
#endif
}

bool storeAreaHoldsNetworkState(const StoreArea& store) {
    for (const StoreDirectory directory : {StoreDirectory::NetworkTransactions, StoreDirectory::DynamicStore}) {
        const auto entries = directoryEntries(store.path(directory));
        if (entries && !entries->empty()) return true;
    }
    return false;
}

MaybeError SystemMaintenance::cleanSystem(std::int64_t cleanMask) {
    logMessage(LOG_NOTICE, "Running cleanSystem in helper.");
    std::int64_t remaining = cleanMask;
    if (remaining & kRunDirectoryBit) {
        if (auto error = removeRunDirectory()) return error;
        remaining &= ~kRunDirectoryBit;
    }
    if (remaining & kResolverFilesBit) {
        if (auto error = networkSystemOperations_->_removeKorvoGeneratedResolverFiles()) return error;
        remaining &= ~kResolverFilesBit;
    }
    if (remaining & kInstallationBit) {
        if (auto error = removeInstalledFiles()) return error;
        remaining &= ~kInstallationBit;
    }
    if (remaining != 0) {
        logMessage(LOG_NOTICE, "Could not perform all cleaning operations. Remaining clean mask: %ld.",
                   static_cast<long>(remaining));
    }
    return std::nullopt;
}

// The whole run directory; a missing one is an error. While the store area
// holds network transactions or published DNS settings, their undo would be
// lost with it: the store directories then stay and everything else goes.
MaybeError SystemMaintenance::removeRunDirectory() {
    if (storeAreaHoldsNetworkState_ && storeAreaHoldsNetworkState_()) {
        logMessage(LOG_WARNING,
                   "Warning: Kept the helper's store area in '%s': it still holds network transactions or "
                   "published DNS settings.",
                   paths_.runDirectory.c_str());
        std::set<std::string> kept;
        for (const StoreDirectory directory : {StoreDirectory::NetworkTransactions, StoreDirectory::DynamicStore,
                                               StoreDirectory::StartedProcesses, StoreDirectory::Connections}) {
            kept.emplace(storeDirectoryName(directory));
        }
        return removeDirectoryTree(paths_.runDirectory, kept);
    }
    return removeDirectoryTree(paths_.runDirectory);
}

MaybeError SystemMaintenance::removeInstalledFiles() {
    for (const std::string& path : paths_.installedFiles) {
        struct stat status {};
        if (::lstat(path.c_str(), &status) != 0) continue;
        const MaybeError error = removeFile(path);
        if (error && !(error->domain == CocoaErrorDomain && error->code == kFileNoSuchFileCode)) return error;
    }
    return std::nullopt;
}

}  // namespace korvo
