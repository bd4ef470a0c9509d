// The WireGuard-family requests as the transports export them.
#include "core/HelperTool.h"
#include "core/Protocol.h"

namespace korvo {
namespace {

using ConnectMethod = void (KorvoHelperTool::*)(const std::optional<std::string>&, std::uint64_t, PidReply);

OperationSpec connectOperation(std::string name, ConnectMethod method) {
    return OperationSpec{
        std::move(name),
        {{"config", ArgumentType::String}, {"comPort", ArgumentType::UInt64}},
        ReplyShape::Pid,
        [method](KorvoHelperTool& tool, const Dictionary& arguments, ReplySender reply) {
            (tool.*method)(
                stringArgument(arguments, "config"), unsignedArgument(arguments, "comPort"),
                [reply = std::move(reply)](const MaybeError& error, std::int32_t pid) { reply(pidReply(error, pid)); });
        },
    };
}

}  // namespace

std::vector<OperationSpec> wireGuardOperations() {
    std::vector<OperationSpec> operations;
    operations.push_back(connectOperation("connectWireGuardWithConfig", &KorvoHelperTool::connectWireGuardWithConfig));
    operations.push_back(connectOperation("connectAmneziaWGWithConfig", &KorvoHelperTool::connectAmneziaWGWithConfig));
    return operations;
}

}  // namespace korvo
