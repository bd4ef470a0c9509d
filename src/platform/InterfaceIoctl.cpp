#include "platform/InterfaceIoctl.h"

#include <fcntl.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "util/UniqueFd.h"

namespace korvo::platform {
std::string interfaceRequestName(std::string_view name) {
    const std::string_view cut = name.substr(0, IFNAMSIZ - 1);
    // A name with an embedded NUL ends there, as the C string would.
    return std::string(cut.substr(0, cut.find('\0')));
}

InterfaceFailure interfaceFailure(InterfaceFailure::Step step, int error) {
    return InterfaceFailure{step, error, std::strerror(error)};
}

InterfaceOutcome setInterfaceUpFlag(const std::string& name, bool up) {
    // SOCK_CLOEXEC does not exist on macOS.
    const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) return interfaceFailure(InterfaceFailure::Step::OpenSocket, errno);
    const UniqueFd closer(fd);
    ::fcntl(fd, F_SETFD, FD_CLOEXEC);

    ifreq request{};
    const std::string requestName = interfaceRequestName(name);
    std::memcpy(request.ifr_name, requestName.data(), requestName.size());
    if (::ioctl(fd, SIOCGIFFLAGS, &request) < 0) return interfaceFailure(InterfaceFailure::Step::ReadFlags, errno);
    if (up) {
        request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
    } else {
        request.ifr_flags = static_cast<short>(request.ifr_flags & ~IFF_UP);
    }
    if (::ioctl(fd, SIOCSIFFLAGS, &request) < 0) return interfaceFailure(InterfaceFailure::Step::WriteFlags, errno);
    return std::nullopt;
}

std::optional<std::vector<std::string>> systemInterfaceNames() {
    using NameIndex = struct if_nameindex;
    const std::unique_ptr<NameIndex, void (*)(NameIndex*)> index(::if_nameindex(), ::if_freenameindex);
    if (!index) return std::nullopt;
    std::vector<std::string> names;
    for (const NameIndex* entry = index.get(); entry->if_index != 0; ++entry) {
        if (entry->if_name != nullptr) names.emplace_back(entry->if_name);
    }
    return names;
}

}  // namespace korvo::platform
