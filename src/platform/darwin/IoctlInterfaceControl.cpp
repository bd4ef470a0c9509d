// macOS interface control: SIOCIFDESTROY for tunnel interfaces, the shared
// flag ioctls and if_nameindex for the rest.
#include <fcntl.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/sockio.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/InterfaceControl.h"
#include "platform/InterfaceIoctl.h"

namespace korvo::platform {
namespace {

class IoctlInterfaceControl final : public InterfaceControl {
public:
    InterfaceOutcome destroyInterface(const std::string& name) override {
        const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
        if (fd < 0) return interfaceFailure(InterfaceFailure::Step::OpenSocket, errno);
        ::fcntl(fd, F_SETFD, FD_CLOEXEC);
        ifreq request{};
        const std::string requestName = interfaceRequestName(name);
        std::memcpy(request.ifr_name, requestName.data(), requestName.size());
        const int result = ::ioctl(fd, SIOCIFDESTROY, &request);
        const int error = errno;
        ::close(fd);
        if (result < 0) return interfaceFailure(InterfaceFailure::Step::Destroy, error);
        return std::nullopt;
    }

    InterfaceOutcome setInterfaceUp(const std::string& name, bool up) override { return setInterfaceUpFlag(name, up); }

    std::optional<std::vector<std::string>> interfaceNames() override { return systemInterfaceNames(); }
};

}  // namespace

std::shared_ptr<InterfaceControl> makeSystemInterfaceControl() { return std::make_shared<IoctlInterfaceControl>(); }

}  // namespace korvo::platform
