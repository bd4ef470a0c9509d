// Removal of a whole directory tree as root, in folders that others may
// write to (the run directory's group may add entries): every step goes
// through directory descriptors and never follows a symbolic link, which is
// removed as the entry it is.
#pragma once

#include <set>
#include <string>

#include "util/Error.h"

namespace korvo {

// Removes the directory at path with everything beneath it. Entries named
// in keptEntries directly inside it stay, and so does the directory when
// any of them is there. A missing path is an error (code 4), as is a tree
// deeper than a few dozen levels. The first entry that cannot be removed
// stops the walk with its file-system error; what was removed stays removed.
MaybeError removeDirectoryTree(const std::string& path, const std::set<std::string>& keptEntries = {});

}  // namespace korvo
