// The service object's own requests: the four setters and termination.
#include "core/HelperTool.h"
#include "core/Protocol.h"

namespace korvo {

std::vector<OperationSpec> coreOperations() {
    using T = ArgumentType;
    return {
        {"setKorvoBundlePath", {{"path", T::String}}, ReplyShape::None,
         [](KorvoHelperTool& tool, const Dictionary& args, ReplySender reply) {
             tool.setKorvoBundlePath(stringArgument(args, "path"));
             reply({});
         }},
        {"setTmpDirPath", {{"path", T::String}}, ReplyShape::None,
         [](KorvoHelperTool& tool, const Dictionary& args, ReplySender reply) {
             tool.setTmpDirPath(stringArgument(args, "path"));
             reply({});
         }},
        {"setNetworkDiagnosticsCaptureEnabled", {{"enabled", T::Boolean}, {"logFilePath", T::String}},
         ReplyShape::None,
         [](KorvoHelperTool& tool, const Dictionary& args, ReplySender reply) {
             tool.setNetworkDiagnosticsCaptureEnabled(booleanArgument(args, "enabled"),
                                                      stringArgument(args, "logFilePath"));
             reply({});
         }},
        {"setVPNDebugLoggingEnabled", {{"enabled", T::Boolean}}, ReplyShape::None,
         [](KorvoHelperTool& tool, const Dictionary& args, ReplySender reply) {
             tool.setVPNDebugLoggingEnabled(booleanArgument(args, "enabled"));
             reply({});
         }},
        {"terminateWithReply", {}, ReplyShape::Error,
         [](KorvoHelperTool& tool, const Dictionary&, ReplySender reply) {
             tool.terminateWithReply([reply](const MaybeError& error) { reply(errorReply(error)); });
         }},
    };
}

}  // namespace korvo
