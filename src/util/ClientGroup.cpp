#include "util/ClientGroup.h"

#include <grp.h>

#include <cstdio>
#include <string>
#include <vector>

namespace korvo {
namespace {

// The group as /etc/group lists it, where systemd-sysusers puts it. Read
// directly so that a helper whose group is there never loads the name
// service modules (a third of a megabyte of idle memory).
std::optional<gid_t> groupInGroupFile(const std::string& name) {
    std::FILE* file = std::fopen("/etc/group", "re");
    if (!file) return std::nullopt;
    std::optional<gid_t> gid;
    while (const group* entry = ::fgetgrent(file)) {
        if (entry->gr_name && name == entry->gr_name) {
            gid = entry->gr_gid;
            break;
        }
    }
    std::fclose(file);
    return gid;
}

}  // namespace

std::optional<gid_t> lookUpClientGroup() {
    const std::string name(KorvoClientGroupName);
    if (auto gid = groupInGroupFile(name)) return gid;
    // A group kept elsewhere (a directory service): the name service.
    group entry{};
    group* found = nullptr;
    std::vector<char> buffer(16384);
    if (::getgrnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found) != 0 || !found) {
        return std::nullopt;
    }
    return found->gr_gid;
}

}  // namespace korvo
