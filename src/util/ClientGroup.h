// The group of the installed client application. Its bus-speaking program
// is installed setgid to it and no user is a member; the helper serves
// callers that connected with it, and lets it add files to the run
// directory.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string_view>

namespace korvo {

inline constexpr std::string_view KorvoClientGroupName = "korvo";

// The gid of the client group on this system; nullopt when there is none.
std::optional<gid_t> lookUpClientGroup();

}  // namespace korvo
