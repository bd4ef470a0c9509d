#include "util/ClientGroup.h"

#include <grp.h>

#include <string>
#include <vector>

namespace korvo {

std::optional<gid_t> lookUpClientGroup() {
    const std::string name(KorvoClientGroupName);
    group entry{};
    group* found = nullptr;
    std::vector<char> buffer(16384);
    if (::getgrnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found) != 0 || !found) {
        return std::nullopt;
    }
    return found->gr_gid;
}

}  // namespace korvo
