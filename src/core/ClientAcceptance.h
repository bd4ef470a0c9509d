// The gate in front of the service: a client is served only when the code of
// its process satisfies the requirement that names the client application and
// its signing team.
#pragma once

#include <sys/types.h>

#include <memory>
#include <optional>
#include <string_view>

#include "platform/CodeSigning.h"

namespace korvo {

inline constexpr std::string_view KorvoClientRequirement =
    "anchor apple generic and identifier \"com.tallowmar.Korvo\" and certificate leaf[subject.OU] = Q4XW82KTJN";

class ClientAcceptance {
public:
    explicit ClientAcceptance(std::shared_ptr<platform::CodeSigning> codeSigning);

    // Identifies the client's code by its process identifier (nullopt: the
    // platform could not tell it), parses the requirement and checks the code
    // against it, in that order. Logs the failing step at LOG_ERR and returns
    // false; true when the client may be served.
    bool shouldAcceptClient(std::optional<pid_t> processIdentifier) const;

private:
    std::shared_ptr<platform::CodeSigning> codeSigning_;
};

}  // namespace korvo
