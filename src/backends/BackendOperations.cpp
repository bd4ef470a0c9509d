// The OpenVPN, vpnc, SSH and OpenConnect requests as the transports export
// them.
#include "core/HelperTool.h"
#include "core/Protocol.h"

namespace korvo {

namespace {

PidReply sendPid(ReplySender reply) {
    return [reply = std::move(reply)](const MaybeError& error, std::int32_t pid) { reply(pidReply(error, pid)); };
}

}  // namespace

std::vector<OperationSpec> backendOperations() {
    std::vector<OperationSpec> operations;
    operations.push_back(OperationSpec{
        "connectOpenVPNWithConfig",
        {{"config", ArgumentType::String}, {"managementPort", ArgumentType::UInt64}},
        ReplyShape::Result,
        [](KorvoHelperTool& tool, const Dictionary& arguments, ReplySender reply) {
            tool.connectOpenVPNWithConfig(
                stringArgument(arguments, "config"), unsignedArgument(arguments, "managementPort"),
                [reply = std::move(reply)](const MaybeError& error, const std::optional<std::string>& result) {
                    reply(resultReply(error, result));
                });
        },
    });
    operations.push_back(OperationSpec{
        "connectVPNCWithConfig",
        {{"config", ArgumentType::String}, {"comPort", ArgumentType::UInt64}},
        ReplyShape::Pid,
        [](KorvoHelperTool& tool, const Dictionary& arguments, ReplySender reply) {
            tool.connectVPNCWithConfig(stringArgument(arguments, "config"), unsignedArgument(arguments, "comPort"),
                                       sendPid(std::move(reply)));
        },
    });
    operations.push_back(OperationSpec{
        "connectSSHWithConfig",
        {{"config", ArgumentType::String},
         {"host", ArgumentType::String},
         {"credentials", ArgumentType::String},
         {"comPort", ArgumentType::UInt64}},
        ReplyShape::Pid,
        [](KorvoHelperTool& tool, const Dictionary& arguments, ReplySender reply) {
            tool.connectSSHWithConfig(stringArgument(arguments, "config"), stringArgument(arguments, "host"),
                                      stringArgument(arguments, "credentials"), unsignedArgument(arguments, "comPort"),
                                      sendPid(std::move(reply)));
        },
    });
    operations.push_back(OperationSpec{
        "connectOpenConnectWithConfig",
        {{"config", ArgumentType::String},
         {"host", ArgumentType::String},
         {"resolve", ArgumentType::String},
         {"credentials", ArgumentType::String},
         {"hash", ArgumentType::String},
         {"comPort", ArgumentType::UInt64}},
        ReplyShape::Pid,
        [](KorvoHelperTool& tool, const Dictionary& arguments, ReplySender reply) {
            tool.connectOpenConnectWithConfig(stringArgument(arguments, "config"), stringArgument(arguments, "host"),
                                              stringArgument(arguments, "resolve"),
                                              stringArgument(arguments, "credentials"),
                                              stringArgument(arguments, "hash"),
                                              unsignedArgument(arguments, "comPort"), sendPid(std::move(reply)));
        },
    });
    return operations;
}

}  // namespace korvo
