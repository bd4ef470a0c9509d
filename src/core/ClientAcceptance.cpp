#include "core/ClientAcceptance.h"

#include "util/Log.h"

namespace korvo {

ClientAcceptance::ClientAcceptance(std::shared_ptr<platform::CodeSigning> codeSigning)
    : codeSigning_(std::move(codeSigning)) {}

bool ClientAcceptance::shouldAcceptClient(std::optional<pid_t> processIdentifier) const {
    namespace status = platform::codesign_status;

    std::unique_ptr<platform::GuestCode> guest;
    int result = status::kNoSuchCode;
    if (codeSigning_ && processIdentifier && *processIdentifier > 0) {
        result = codeSigning_->copyGuestWithPid(*processIdentifier, guest);
        if (result == status::kSuccess && !guest) result = status::kNoSuchCode;
    }
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
