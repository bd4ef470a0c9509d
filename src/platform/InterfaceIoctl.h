// The interface calls that Linux and macOS share: the flags ioctls on a
// datagram socket and if_nameindex.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/InterfaceControl.h"

namespace korvo::platform {

// The name as an interface request carries it: at most 15 bytes.
std::string interfaceRequestName(std::string_view name);

// SIOCGIFFLAGS, then SIOCSIFFLAGS with IFF_UP set or cleared.
InterfaceOutcome setInterfaceUpFlag(const std::string& name, bool up);

// if_nameindex in its order; nullopt when it fails.
std::optional<std::vector<std::string>> systemInterfaceNames();

// strerror(error) as InterfaceFailure::reason carries it.
InterfaceFailure interfaceFailure(InterfaceFailure::Step step, int error);

}  // namespace korvo::platform
