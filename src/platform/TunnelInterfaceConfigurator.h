// Configuration of a userspace tunnel's interface once its program has
// created it: bringing the link up and giving it its addresses. On Linux this
// is done over rtnetlink; on macOS with /sbin/ifconfig, run through the
// service object's process runner (hence the KorvoHelperTool parameter).
// Every failure is an error of code 68.
#pragma once

#include <memory>
#include <string>

#include "util/Error.h"

namespace korvo {
class KorvoHelperTool;
}

namespace korvo::platform {

class TunnelInterfaceConfigurator {
public:
    virtual ~TunnelInterfaceConfigurator() = default;

    // Sets the interface's up flag.
    virtual MaybeError bringInterfaceUp(KorvoHelperTool& tool, const std::string& interfaceName) = 0;

    // Adds an IPv4 address to a point-to-point interface (local and
    // destination address, dotted netmask) and leaves the interface up.
    virtual MaybeError addIPv4Address(KorvoHelperTool& tool, const std::string& interfaceName,
                                      const std::string& localAddress, const std::string& destinationAddress,
                                      const std::string& netmask) = 0;

    // Adds an IPv6 address with its prefix length (1 to 128) as an alias.
    virtual MaybeError addIPv6Address(KorvoHelperTool& tool, const std::string& interfaceName,
                                      const std::string& address, long prefixLength) = 0;
};

// The platform's implementation.
std::shared_ptr<TunnelInterfaceConfigurator> makeSystemTunnelInterfaceConfigurator();

}  // namespace korvo::platform
