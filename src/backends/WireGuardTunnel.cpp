#include "backends/WireGuardTunnel.h"

#include <chrono>
#include <climits>
#include <cstdint>
#include <thread>
#include <vector>

#include "backends/WireGuardConfig.h"
#include "platform/TunnelInterfaceConfigurator.h"
#include "process/ProcessProbe.h"
#include "util/CharacterSets.h"
#include "util/FileSystem.h"
#include "util/Format.h"
#include "util/IntegerScan.h"

namespace korvo {
namespace {

constexpr std::chrono::milliseconds kControlSocketTimeout{5000};
constexpr std::chrono::milliseconds kControlSocketPollInterval{100};



}  // namespace

std::string wireGuardBackendErrorMessage(const std::string& message, const CSCapturedProcessOutput* output) {
    return messageWithBackendOutput(message, output);
}

MaybeError wireGuardWaitForControlSocket(const std::string& interfaceName, const std::string& directory, pid_t pid,
                                         const std::string& displayName, const CSCapturedProcessOutput* output) {
    const std::string socketPath = wireGuardControlSocketPath(interfaceName, directory);
    const auto deadline = std::chrono::steady_clock::now() + kControlSocketTimeout;
    for (;;) {
        // The order matters: a program that died after the deadline is
        // reported as a time-out.
        if (std::chrono::steady_clock::now() >= deadline) {
            return errorWithKorvoErrorCode(
                kHelperProblemCode, wireGuardBackendErrorMessage(
                                        formatString("%s userspace backend did not create its control socket at %s.",
                                                     displayName.c_str(), socketPath.c_str()),
                                        output));
        }
        if (!processExists(pid)) {
            return errorWithKorvoErrorCode(
                kHelperProblemCode,
                wireGuardBackendErrorMessage(
                    formatString("%s userspace backend terminated before its control socket became available.",
                                 displayName.c_str()),
                    output));
        }
        if (fileExists(socketPath)) return std::nullopt;
        std::this_thread::sleep_for(kControlSocketPollInterval);
    }
}

MaybeError wireGuardConfigureAddress(platform::TunnelInterfaceConfigurator& interfaces, const std::string& interfaceName,
                                     const std::string& address) {
    const std::string_view text = address;
    const auto slash = text.find('/');
    const std::string host(trimmedWhitespaceAndNewlines(text.substr(0, slash)));
    if (host.empty()) return std::nullopt;
    // A piece that is not a number reads as 0, which both families below
    // raise to a host prefix.
    std::int64_t prefixLength = 32;
    if (slash != std::string_view::npos) {
        const auto scanned = scanInteger(text.substr(text.rfind('/') + 1));
        prefixLength = scanned ? scanned->value : 0;
    }

    if (host.find(':') != std::string::npos) {
        if (prefixLength < 1 || prefixLength > 128) prefixLength = 128;
        return interfaces.addIPv6Address(interfaceName, host, prefixLength);
    }
    // Whatever prefix was written, the tunnel's IPv4 address is a host
    // address on the point-to-point link; the networks behind the tunnel are
    // reached through the routes the client adds.
    return interfaces.addIPv4Address(interfaceName, host, host,
                                                  netmaskStringForPrefixLength(32).value());
}

MaybeError wireGuardBringInterfaceUp(platform::TunnelInterfaceConfigurator& interfaces, const std::string& interfaceName) {
    return interfaces.bringInterfaceUp(interfaceName);
}

}  // namespace korvo
