// Reading a WireGuard-family configuration written by the client: the tunnel
// interface's name from the client's private comment line, the tunnel
// addresses, and the runtime configuration handed to the control program's
// "setconf" (only the keys that program understands, endpoints resolved to
// IPv4 so that the tunnel program never resolves names itself).
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace korvo {

// The value of the first comment line holding "KorvoInterfaceName" and "="
// ("# KorvoInterfaceName = utun7") whose value is not empty.
std::optional<std::string> wireGuardInterfaceNameFromConfig(std::string_view config);

// Every address of every "Address = a, b" line, in file order.
std::vector<std::string> wireGuardAddressesFromConfig(std::string_view config);

// DIRECTORY/NAME.sock, where the tunnel program listens for its control program.
std::string wireGuardControlSocketPath(std::string_view interfaceName, std::string_view directory);

// The configuration reduced to what "setconf" accepts: the [Interface] and
// [Peer] sections with their known keys, comments and other keys dropped,
// blank lines collapsed, peer endpoints rewritten by wireGuardIPv4Endpoint.
std::string wireGuardRuntimeConfiguration(std::string_view config);

// "host:port" with the host replaced by its first IPv4 address when it is a
// name that resolves; any other value (an IP literal, a bracketed IPv6
// literal, a name that does not resolve, no port) comes back unchanged.
std::string wireGuardIPv4Endpoint(std::string_view endpoint);

// The dotted IPv4 netmask of a prefix length 0 to 32 ("255.255.255.0" for
// 24); nullopt for any other length.
std::optional<std::string> netmaskStringForPrefixLength(long prefixLength);

// A random (version 4) UUID in canonical upper-case form.
std::string randomUUIDString();

}  // namespace korvo
