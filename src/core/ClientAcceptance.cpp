#include "core/ClientAcceptance.h"

#include <algorithm>
#include <string>

#include "util/Log.h"

namespace korvo {

ClientAcceptance::ClientAcceptance(std::shared_ptr<platform::CodeSigning> codeSigning,
                                   std::optional<gid_t> clientGroup)
    : codeSigning_(std::move(codeSigning)), clientGroup_(clientGroup) {}

bool ClientAcceptance::shouldAcceptClient(const platform::ServiceConnection& connection) const {
    // A client that the platform could not name a process for (it left
    // before it could be asked) is never looked up by a made-up identifier.
    if (!codeSigning_ || !connection.processIdentifier || *connection.processIdentifier <= 0) {
        logMessage(LOG_ERR, "Error: Unable to identify client: %d", platform::codesign_status::kNoSuchCode);
        return false;
    }
    return connectedAsRootOrClientGroup(connection) && codeSatisfiesRequirement(*connection.processIdentifier);
}

bool ClientAcceptance::connectedAsRootOrClientGroup(const platform::ServiceConnection& connection) const {
    if (connection.userIdentifier == uid_t{0}) {
        return true;
    }
    if (clientGroup_ && std::ranges::find(connection.groupIdentifiers, *clientGroup_) !=
                            connection.groupIdentifiers.end()) {
        return true;
    }
    const long uid = connection.userIdentifier ? static_cast<long>(*connection.userIdentifier) : -1L;
    const int pid = static_cast<int>(connection.processIdentifier.value_or(-1));
    logMessage(LOG_ERR, "Error: Client %s (pid %d, uid %ld) connected neither as root nor with the group '%s'.",
               connection.name.c_str(), pid, uid, std::string(KorvoClientGroupName).c_str());
    return false;
}

bool ClientAcceptance::codeSatisfiesRequirement(pid_t processIdentifier) const {
    namespace status = platform::codesign_status;

    std::unique_ptr<platform::GuestCode> guest;
    int result = codeSigning_->copyGuestWithPid(processIdentifier, guest);
    if (result == status::kSuccess && !guest) result = status::kNoSuchCode;
    if (result != status::kSuccess) {
        logMessage(LOG_ERR, "Error: Unable to identify client: %d", result);
        return false;
    }

    std::unique_ptr<platform::CodeRequirement> requirement;
    result = codeSigning_->createRequirement(KorvoClientRequirement, requirement);
    if (result == status::kSuccess && !requirement) result = status::kRequirementInvalid;
    if (result != status::kSuccess) {
        logMessage(LOG_ERR, "Error: Unable to create signing requirements: %d", result);
        return false;
    }

    // A failed check is reported with the requirement message as well; clients
    // and support scripts look for that one line.
    result = codeSigning_->checkValidity(*guest, *requirement);
    if (result != status::kSuccess) {
        logMessage(LOG_ERR, "Error: Unable to create signing requirements: %d", result);
        return false;
    }
    return true;
}

}  // namespace korvo
