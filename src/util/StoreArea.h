// The run directory "/var/run/Korvo" and the helper's store area beneath it.
//
// The run directory is root-owned, group the client group, mode 3770: the
// client application may add files there (OpenVPN changes into it), and the
// sticky bit keeps it from renaming or removing root's. Everything the
// helper keeps for itself lives in store directories beneath it, each root
// 0700, checked (a real directory, owner, mode) every time it is opened, so
// that nothing the client's group can write ever holds helper state.
#pragma once

#include <sys/types.h>

#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "util/Error.h"
#include "util/UniqueFd.h"

namespace korvo {

enum class StoreDirectory {
    NetworkTransactions,  // "network-transactions": transaction records and journals
    DynamicStore,         // "dynamic-store": the published tunnel settings and saved resolver files
    StartedProcesses,     // "started-processes": the table of programs the helper started
    Connections,          // "connections": per-connection copies of what programs read
};

std::string_view storeDirectoryName(StoreDirectory directory);

class StoreArea {
public:
    // clientGroup: the group that may add files to the run directory; without
    // one the run directory is root's alone (0755).
    StoreArea(std::string runDirectory, std::optional<gid_t> clientGroup);

    const std::string& runDirectory() const { return runDirectory_; }
    std::string path(StoreDirectory directory) const;

    // Makes the run directory and every store directory, or puts their owner
    // and mode right. A store directory that is anything else (a link or
    // directory that someone else planted) is moved aside first.
    MaybeError prepare() const;

    // The store directory, opened (O_DIRECTORY, not following a link) and
    // checked: a directory owned by root with mode 0700, in a run directory
    // owned by root. Made anew when it is missing. An error otherwise.
    Result<UniqueFd> open(StoreDirectory directory) const;

    // A new root-owned file directly in the run directory, group the client
    // group, for the client to read (a program's log, a password it must
    // know). Whatever entry had that name is removed first, never followed:
    // the client's group may add entries there but cannot touch root's.
    // name must be a plain file name.
    Result<std::string> replaceSharedFile(std::string_view name, std::span<const std::uint8_t> bytes,
                                          mode_t mode) const;

private:
    Result<UniqueFd> openRunDirectory() const;
    Result<UniqueFd> openStoreDirectory(int runDirectory, StoreDirectory directory) const;

    std::string runDirectory_;
    std::optional<gid_t> clientGroup_;
};

}  // namespace korvo
