// The gate in front of the service. A client is served only when it
// connected as root or with the client application's group, and the code of
// its process satisfies the requirement that names the client application
// and its signing team.
#pragma once

#include <sys/types.h>

#include <memory>
#include <optional>
#include <string_view>

#include "platform/CodeSigning.h"
#include "platform/ServiceListener.h"
#include "util/ClientGroup.h"
#include "util/KorvoIdentity.h"

namespace korvo {

class ClientAcceptance {
public:
    ClientAcceptance(std::shared_ptr<platform::CodeSigning> codeSigning, std::optional<gid_t> clientGroup);

    // First the credentials the client connected with: root, or the client
    // group among its groups at connect time. A process identifier and the
    // program behind it can change hands after connecting; those credentials
    // cannot. Then the code: identify it by the process identifier, parse
    // the requirement, check the code against it. Logs the failing step at
    // LOG_ERR and returns false; true when the client may be served.
    bool shouldAcceptClient(const platform::ServiceConnection& connection) const;

private:
    bool connectedAsRootOrClientGroup(const platform::ServiceConnection& connection) const;
    bool codeSatisfiesRequirement(pid_t processIdentifier) const;

    std::shared_ptr<platform::CodeSigning> codeSigning_;
    std::optional<gid_t> clientGroup_;
};

}  // namespace korvo
