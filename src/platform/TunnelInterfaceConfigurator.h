// Configuration of a userspace tunnel's interface once its program has
// created it: bringing the link up and giving it its addresses. On Linux this
// is done over rtnetlink; on macOS with /sbin/ifconfig, run through the
// helper's process runner (the SystemToolRunner it is made with). Every
// failure is an error of code 68.
#pragma once

#include <memory>
#include <string>

#include "platform/SystemToolRunner.h"
#include "util/Error.h"

namespace korvo::platform {

class TunnelInterfaceConfigurator {
public:
    virtual ~TunnelInterfaceConfigurator() = default;

    // Sets the interface's up flag.
    virtual MaybeError bringInterfaceUp(const std::string& interfaceName) = 0;

    // Adds an IPv4 address to a point-to-point interface (local and
    // destination address, dotted netmask) and leaves the interface up.
    virtual MaybeError addIPv4Address(const std::string& interfaceName,
                                      const std::string& localAddress, const std::string& destinationAddress,
                                      const std::string& netmask) = 0;

    // Adds an IPv6 address with its prefix length (1 to 128) as an alias.
    virtual MaybeError addIPv6Address(const std::string& interfaceName,
                                      const std::string& address, long prefixLength) = 0;
};

// The platform's implementation; runTool is used where the platform drives
// a system tool (macOS: /sbin/ifconfig).
std::shared_ptr<TunnelInterfaceConfigurator> makeSystemTunnelInterfaceConfigurator(SystemToolRunner runTool = {});

}  // namespace korvo::platform
