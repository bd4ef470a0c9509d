// The one place where the helper writes and deletes a client-named file as
// root: the resolver directory, which only root may write, and in it only a
// regular file directly in the directory that carries the generated-resolver
// marker, in the new text and in whatever file it replaces or removes. The
// client can thus manage its own resolver files and nothing else there.
#pragma once

#include <string>
#include <string_view>

#include "util/Error.h"

namespace korvo {

// Replaces (atomically) or creates the file name in directory, which is
// made when missing. A refusal is a no-permission error (code 513).
MaybeError writeGeneratedResolverFile(const std::string& directory, const std::string& name, std::string_view text);
// Removes the file name in directory; a missing file (or directory) counts
// as removed.
MaybeError removeGeneratedResolverFile(const std::string& directory, const std::string& name);

}  // namespace korvo
