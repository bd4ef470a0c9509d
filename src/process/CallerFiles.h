// Files at paths that a client names, opened, written and removed with that
// client's own file permissions rather than root's: each operation runs in a
// short-lived child that takes on the caller's user and groups (a thread of
// the helper cannot change its groups alone), and never follows a symbolic
// link in the last component. An accepted client can thereby reach exactly
// the files it could reach itself.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/ServiceListener.h"
#include "util/Error.h"

namespace korvo {

// The file-system identity of a client as it was accepted.
struct CallerRights {
    uid_t userIdentifier = 0;
    gid_t groupIdentifier = 0;          // the effective group
    std::vector<gid_t> groupIdentifiers;  // every group, the effective one included
};

// The rights of an accepted client, from the credentials it connected with;
// nullopt when they are unknown.
std::optional<CallerRights> callerRightsOf(const platform::ServiceConnection& connection);

// The most bytes one write or append takes.
inline constexpr std::size_t kMaximumCallerFileSize = std::size_t{4} << 20;

// Paths must be absolute: the helper's working directory means nothing to a
// client. Failures are file-system errors (fileSystemError), as the caller
// itself would have met them.

// Replaces the file at path by one holding exactly bytes, atomically (a new
// file in the same folder renamed over it), with mode for a new file.
// Missing folders on the way are created (0755).
MaybeError writeFileAsCaller(const CallerRights& caller, const std::string& path, std::string_view bytes,
                             mode_t mode);
// Appends bytes to the file at path, creating it with mode when missing.
MaybeError appendFileAsCaller(const CallerRights& caller, const std::string& path, std::string_view bytes,
                              mode_t mode);
// Removes the file at path; a missing file counts as removed.
MaybeError removeFileAsCaller(const CallerRights& caller, const std::string& path);

}  // namespace korvo
