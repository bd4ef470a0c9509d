#include "util/Protocol.h"

namespace korvo {

const std::vector<Operation>& helperOperations() {
    using T = ArgumentType;
    static const std::vector<Operation> operations = {
        {"setKorvoBundlePath", {{"path", T::String}}, ReplyShape::None},
        {"setTmpDirPath", {{"path", T::String}}, ReplyShape::None},
        {"setNetworkDiagnosticsCaptureEnabled", {{"enabled", T::Boolean}, {"logFilePath", T::String}},
         ReplyShape::None},
        {"setVPNDebugLoggingEnabled", {{"enabled", T::Boolean}}, ReplyShape::None},
        {"networkDiagnosticsConnectionEstablishedForServiceType",
         {{"serviceType", T::Int64}, {"accountDescription", T::String}},
         ReplyShape::None},
        {"networkDiagnosticsConnectionTerminatedForServiceType",
         {{"serviceType", T::Int64}, {"accountDescription", T::String}},
         ReplyShape::None},
        {"terminateWithReply", {}, ReplyShape::Error},
        {"connectOpenVPNWithConfig", {{"config", T::String}, {"managementPort", T::UInt64}}, ReplyShape::Result},
        {"connectVPNCWithConfig", {{"config", T::String}, {"comPort", T::UInt64}}, ReplyShape::Pid},
        {"connectSSHWithConfig",
         {{"config", T::String}, {"host", T::String}, {"credentials", T::String}, {"comPort", T::UInt64}},
         ReplyShape::Pid},
        {"connectOpenConnectWithConfig",
         {{"config", T::String},
          {"host", T::String},
          {"resolve", T::String},
          {"credentials", T::String},
          {"hash", T::String},
          {"comPort", T::UInt64}},
         ReplyShape::Pid},
        {"connectWireGuardWithConfig", {{"config", T::String}, {"comPort", T::UInt64}}, ReplyShape::Pid},
        {"connectAmneziaWGWithConfig", {{"config", T::String}, {"comPort", T::UInt64}}, ReplyShape::Pid},
        {"disconnectService",
         {{"serviceType", T::Int64}, {"remoteHost", T::String}, {"comPort", T::UInt64}, {"pid", T::Int32}},
         ReplyShape::Error},
        {"recordOwnerProcessPID",
         {{"pid", T::Int32}, {"serviceType", T::Int64}, {"isAmneziaWG", T::Boolean}, {"transactionIdentifier", T::String}},
         ReplyShape::Error},
        {"writeConfig", {{"config", T::String}, {"path", T::String}}, ReplyShape::Error},
        {"deleteConfigAtPath", {{"path", T::String}}, ReplyShape::Error},
        {"updateNameServerAddresses",
         {{"nameServerAddresses", T::StringArray},
          {"searchDomains", T::StringArray},
          {"defaultDomain", T::String},
          {"serviceIdentifier", T::String},
          {"interfaceName", T::String},
          {"IPv4Addresses", T::StringArray},
          {"IPv4DestAddresses", T::StringArray},
          {"IPv6Addresses", T::StringArray},
          {"IPv6PrefixLengths", T::Int64Array},
          {"transactionIdentifier", T::String}},
         ReplyShape::Error},
        {"configureRoutes", {{"routeOperations", T::Any}}, ReplyShape::Result},
        {"cleanKnownHostsForRemoteHost", {{"host", T::String}}, ReplyShape::Error},
        {"cleanSystem", {{"cleanMask", T::Int64}}, ReplyShape::Error},
        {"applyNetworkTransaction", {{"request", T::Any}}, ReplyShape::Error},
        {"restoreNetworkTransactionWithIdentifier", {{"identifier", T::String}}, ReplyShape::Error},
        {"resetNetworkConfigurationForIdentifier", {{"identifier", T::String}, {"tunnelInterface", T::String}},
         ReplyShape::Error},
        {"setTimeMachineEnabled", {{"enabled", T::Boolean}}, ReplyShape::Error},
    };
    return operations;
}

const Operation* findOperation(const std::string& name) {
    for (const auto& op : helperOperations()) {
        if (op.name == name) return &op;
    }
    return nullptr;
}

Dictionary errorReply(const MaybeError& error) {
    Dictionary reply;
    if (error) reply["error"] = error->toDictionary();
    return reply;
}

Dictionary pidReply(const MaybeError& error, std::int32_t pid) {
    Dictionary reply = errorReply(error);
    reply["pid"] = static_cast<std::int64_t>(pid);
    return reply;
}

Dictionary resultReply(const MaybeError& error, const std::optional<std::string>& result) {
    Dictionary reply = errorReply(error);
    if (result) reply["result"] = *result;
    return reply;
}

std::optional<std::string> stringArgument(const Dictionary& arguments, const std::string& key) {
    return stringForKey(arguments, key);
}

bool booleanArgument(const Dictionary& arguments, const std::string& key) {
    auto it = arguments.find(key);
    return it != arguments.end() && it->second.boolValue().value_or(false);
}

std::int64_t integerArgument(const Dictionary& arguments, const std::string& key) {
    auto it = arguments.find(key);
    return it == arguments.end() ? 0 : it->second.integerValue().value_or(0);
}

std::uint64_t unsignedArgument(const Dictionary& arguments, const std::string& key) {
    return static_cast<std::uint64_t>(integerArgument(arguments, key));
}

std::optional<std::vector<std::string>> stringArrayArgument(const Dictionary& arguments, const std::string& key) {
    auto it = arguments.find(key);
    if (it == arguments.end() || !it->second.asArray()) return std::nullopt;
    std::vector<std::string> out;
    for (const auto& item : *it->second.asArray()) {
        if (const auto* s = item.asString()) out.push_back(*s);
    }
    return out;
}

std::optional<std::vector<std::int64_t>> int64ArrayArgument(const Dictionary& arguments, const std::string& key) {
    auto it = arguments.find(key);
    if (it == arguments.end() || !it->second.asArray()) return std::nullopt;
    std::vector<std::int64_t> out;
    for (const auto& item : *it->second.asArray()) {
        if (auto n = item.integerValue()) out.push_back(*n);
    }
    return out;
}

}  // namespace korvo
