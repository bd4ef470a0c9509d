// The disconnect request: SIGINT to the VPN program, and for WireGuard the
// deletion of its tunnel interface. Only a program that the helper started
// is signalled and only a link that such a program made is deleted: the
// client names them by pid and name, which could be anyone's.
#include <signal.h>

#include "backends/SystemMaintenance.h"
#include "process/ProcessProbe.h"
#include "util/Format.h"
#include "util/Log.h"

namespace korvo {
namespace {

enum ServiceType : std::int64_t { OpenVPN = 0, VPNC = 1, SSH = 2, OpenConnect = 4, WireGuard = 5 };

bool hasDisconnectableProgram(std::int64_t serviceType) {
    return serviceType == VPNC || serviceType == SSH || serviceType == OpenConnect || serviceType == WireGuard;
}

}  // namespace

MaybeError SystemMaintenance::disconnectService(std::int64_t serviceType, const std::optional<std::string>& remoteHost,
                                                std::uint64_t /*comPort*/, std::int32_t pid) {
    logMessage(LOG_NOTICE, "Running disconnectService in helper.");
    if (pid <= 0) return errorWithKorvoErrorCode(kInvalidParameterCode, std::string("Invalid process identifier"));
    if (serviceType == OpenVPN) {
        return errorWithKorvoErrorCode(kInvalidParameterCode,
                                       std::string("Invalid service type for disconnect command with OPENVPN_SERVICE"));
    }
    if (!hasDisconnectableProgram(serviceType)) return std::nullopt;
    if (auto error = interruptStartedProcess(pid)) return error;
    // For WireGuard the string is the tunnel interface's name.
    if (serviceType == WireGuard && remoteHost && !remoteHost->empty()) return destroyStartedLink(*remoteHost);
    return std::nullopt;
}

MaybeError SystemMaintenance::interruptStartedProcess(std::int32_t pid) {
    switch (startedProcesses_.signal(pid, SIGINT)) {
    case StartedProcesses::SignalOutcome::Sent:
    case StartedProcesses::SignalOutcome::Gone: return std::nullopt;
    case StartedProcesses::SignalOutcome::NotStarted:
        // A process that has exited needs no signal, whoever started it.
        if (!processExists(pid)) return std::nullopt;
        logMessage(LOG_ERR, "Refused to signal process with PID %d: the helper did not start it.", pid);
        break;
    case StartedProcesses::SignalOutcome::Failed: break;
    }
    logMessage(LOG_ERR, "ERROR: Could not terminate process with PID %d", pid);
    return errorWithKorvoErrorCode(kProcessTerminationCode, formatString("Could not terminate process with PID %d", pid));
}

MaybeError SystemMaintenance::destroyStartedLink(const std::string& interfaceName) {
    if (!startedProcesses_.isStartedLink(interfaceName)) {
        logMessage(LOG_ERR, "Refused to delete interface '%s': no program that the helper started made it.",
                   interfaceName.c_str());
        return errorWithKorvoErrorCode(
            kLaunchingCode, formatString("Could not delete tunnel interface %s: the helper did not create it.",
                                         interfaceName.c_str()));
    }
    if (auto error = networkSystemOperations_->_deleteInterfaceIfPresent(interfaceName)) {
        logMessage(LOG_ERR, "%s", error->displayText().c_str());
        return error;
    }
    startedProcesses_.forgetLink(interfaceName);
    return std::nullopt;
}

}  // namespace korvo
