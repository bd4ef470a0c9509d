// The maintenance component itself, the known-hosts request and the Time
// Machine request. Disconnect, configuration files and cleaning have files
// of their own.
#include "backends/SystemMaintenance.h"

#include "util/FileSystem.h"
#include "util/Format.h"
#include "util/Log.h"

namespace korvo {

SystemMaintenance::SystemMaintenance(Dependencies dependencies)
    : startedProcesses_(dependencies.startedProcesses),
      networkSystemOperations_(std::move(dependencies.networkSystemOperations)),
      runSystemTool_(std::move(dependencies.runSystemTool)),
      storeAreaHoldsNetworkState_(std::move(dependencies.storeAreaHoldsNetworkState)),
      paths_(std::move(dependencies.paths)) {}

MaybeError SystemMaintenance::cleanKnownHostsForRemoteHost(const std::optional<std::string>& host) {
    logMessage(LOG_NOTICE, "Running cleanKnownHostsForRemoteHost in helper.");
    // ssh-keygen -R edits root's own known-hosts file (~/.ssh/known_hosts of
    // root's home directory). "-R" takes the next argument as its value,
    // whatever it begins with, so a host cannot pass as an option.
    MaybeError error;
    if (host) error = runSystemTool_(SystemTool::SSHKeygen, {"-R", *host});
    if (host && !error) return std::nullopt;
    if (error && error->code == kInvalidSignatureCode) return error;  // the runner has logged it
    if (error && error->code == kRequiredFileMissingCode) {
        // A missing tool has no valid signature either.
        const char* path = systemToolPath(SystemTool::SSHKeygen);
        logMessage(LOG_ERR, "Cannot verify signature of executable at path '%s'.", path);
        return errorWithKorvoErrorCode(kInvalidSignatureCode,
                                       formatString("Cannot verify signature of executable at path %s", path));
    }
    return errorWithKorvoErrorCode(kKnownHostsErrorCode, formatString("Cannot clean known hosts file for remote host %s",
                                                                      host ? host->c_str() : "(null)"));
}

// No system here keeps Time Machine's preference file, so the request ends at
// its first check; the tool that would change it, "/usr/bin/defaults", does
// not exist either, and is never signed.
MaybeError SystemMaintenance::setTimeMachineEnabled(bool) {
    const std::string preferences = paths_.timeMachinePreferencesDomain + ".plist";
    if (!fileExists(preferences)) {
        return errorWithKorvoErrorCode(
            kRequiredFileMissingCode, formatString("Time Machine preference file file not found at %s", preferences.c_str()));
    }
    const char* defaultsTool = "/usr/bin/defaults";
    logMessage(LOG_ERR, "Cannot verify signature of executable at path '%s'.", defaultsTool);
    return errorWithKorvoErrorCode(kInvalidSignatureCode,
                                   formatString("Cannot verify signature of executable at path %s", defaultsTool));
}

}  // namespace korvo
