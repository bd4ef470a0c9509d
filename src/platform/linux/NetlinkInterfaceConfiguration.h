// An interface's addresses and main-table routes, saved as the kernel's own
// messages and sent back to it: taking a link down removes its routes (and
// its IPv6 addresses), which the helper's bounce of a link must not lose.
#pragma once

#include <cstddef>
#include <string>

#include "platform/InterfaceControl.h"

namespace korvo::platform::linux_netlink {

InterfaceConfiguration saveInterfaceConfiguration(const std::string& name);
std::size_t restoreInterfaceConfiguration(const InterfaceConfiguration& configuration);

}  // namespace korvo::platform::linux_netlink
