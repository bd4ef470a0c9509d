// The steps of bringing up a WireGuard-family tunnel that act on the running
// tunnel program and its interface: waiting for the program's control
// socket, bringing its interface up and giving it its addresses.
#pragma once

#include <sys/types.h>

#include <string>

#include "platform/TunnelInterfaceConfigurator.h"
#include "util/Error.h"

namespace korvo {

class CSCapturedProcessOutput;

// message, with " Backend output: TEXT" appended when the program's captured
// output holds text (output may be null).
std::string wireGuardBackendErrorMessage(const std::string& message, const CSCapturedProcessOutput* output);

// Polls every 0.1 s, for at most 5 s, until the program with process
// identifier pid has created DIRECTORY/NAME.sock. Error 55 when the program
// ended first or the time ran out, with the program's output appended.
MaybeError wireGuardWaitForControlSocket(const std::string& interfaceName, const std::string& directory, pid_t pid,
                                         const std::string& displayName, const CSCapturedProcessOutput* output);

// Gives the interface one address from an "Address" line: an IPv4 address
// as a host address (local = peer, netmask 255.255.255.255; the prefix
// length is ignored, networks behind the tunnel come from routes), an IPv6
// address with its prefix length (32 when none is written). An empty host
// is skipped without error.
MaybeError wireGuardConfigureAddress(platform::TunnelInterfaceConfigurator& interfaces, const std::string& interfaceName,
                                     const std::string& address);

// Sets the tunnel interface's up flag.
MaybeError wireGuardBringInterfaceUp(platform::TunnelInterfaceConfigurator& interfaces, const std::string& interfaceName);

}  // namespace korvo
