#include "core/RequestHandlers.h"

#include <map>

#include "core/HelperTool.h"
#include "network/TunnelDns.h"

namespace korvo {
namespace {

using Handlers = std::map<std::string, RequestHandler>;
using Caller = platform::ServiceConnection;

PidReply sendPid(ReplySender reply) {
    return [reply = std::move(reply)](const MaybeError& error, std::int32_t pid) { reply(pidReply(error, pid)); };
}

ErrorReply sendError(ReplySender reply) {
    return [reply = std::move(reply)](const MaybeError& error) { reply(errorReply(error)); };
}

void addSettingRequests(Handlers& h) {
    h["setKorvoBundlePath"] = [](KorvoHelperTool& tool, const Caller&, const Dictionary& args, ReplySender reply) {
        tool.setKorvoBundlePath(stringArgument(args, "path"));
        reply({});
    };
    h["setTmpDirPath"] = [](KorvoHelperTool& tool, const Caller&, const Dictionary& args, ReplySender reply) {
        tool.setTmpDirPath(stringArgument(args, "path"));
        reply({});
    };
    h["setNetworkDiagnosticsCaptureEnabled"] = [](KorvoHelperTool& tool, const Caller& caller, const Dictionary& args, ReplySender reply) {
        tool.setNetworkDiagnosticsCaptureEnabled(booleanArgument(args, "enabled"), stringArgument(args, "logFilePath"),
                                                 callerRightsOf(caller));
        reply({});
    };
    h["setVPNDebugLoggingEnabled"] = [](KorvoHelperTool& tool, const Caller&, const Dictionary& args, ReplySender reply) {
        tool.setVPNDebugLoggingEnabled(booleanArgument(args, "enabled"));
        reply({});
    };
    h["networkDiagnosticsConnectionEstablishedForServiceType"] = [](KorvoHelperTool& tool, const Caller&, const Dictionary& args, ReplySender reply) {
        tool.networkDiagnosticsConnectionEstablishedForServiceType(integerArgument(args, "serviceType"),
                                                                   stringArgument(args, "accountDescription"));
        reply({});
    };
    h["networkDiagnosticsConnectionTerminatedForServiceType"] = [](KorvoHelperTool& tool, const Caller&, const Dictionary& args, ReplySender reply) {
        tool.networkDiagnosticsConnectionTerminatedForServiceType(integerArgument(args, "serviceType"),
                                                                  stringArgument(args, "accountDescription"));
        reply({});
    };
    h["terminateWithReply"] = [](KorvoHelperTool& tool, const Caller&, const Dictionary&, ReplySender reply) {
        tool.terminateWithReply(sendError(std::move(reply)));
    };
}

void addConnectRequests(Handlers& h) {
    h["connectOpenVPNWithConfig"] = [](KorvoHelperTool& tool, const Caller&, const Dictionary& args, ReplySender reply) {
        tool.connectOpenVPNWithConfig(
            stringArgument(args, "config"), unsignedArgument(args, "managementPort"),
            [reply = std::move(reply)](const MaybeError& error, const std::optional<std::string>& result) {
                reply(resultReply(error, result));
            });
    };
    h["connectVPNCWithConfig"] = [](KorvoHelperTool& tool, const Caller&, const Dictionary& args, ReplySender reply) {
        tool.connectVPNCWithConfig(stringArgument(args, "config"), unsignedArgument(args, "comPort"),
                                   sendPid(std::move(reply)));
    };
    h["connectSSHWithConfig"] = [](KorvoHelperTool& tool, const Caller&, const Dictionary& args, ReplySender reply) {
        tool.connectSSHWithConfig(stringArgument(args, "config"), stringArgument(args, "host"),
                                  stringArgument(args, "credentials"), unsignedArgument(args, "comPort"),
                                  sendPid(std::move(reply)));
    };
    h["connectOpenConnectWithConfig"] = [](KorvoHelperTool& tool, const Caller&, const Dictionary& args, ReplySender reply) {
        tool.connectOpenConnectWithConfig(stringArgument(args, "config"), stringArgument(args, "host"),
                                          stringArgument(args, "resolve"), stringArgument(args, "credentials"),
                                          stringArgument(args, "hash"), unsignedArgument(args, "comPort"),
                                          sendPid(std::move(reply)));
    };
    h["connectWireGuardWithConfig"] = [](KorvoHelperTool& tool, const Caller&, const Dictionary& args, ReplySender reply) {
        tool.connectWireGuardWithConfig(stringArgument(args, "config"), unsignedArgument(args, "comPort"),
                                        sendPid(std::move(reply)));
    };
    h["connectAmneziaWGWithConfig"] = [](KorvoHelperTool& tool, const Caller&, const Dictionary& args, ReplySender reply) {
        tool.connectAmneziaWGWithConfig(stringArgument(args, "config"), unsignedArgument(args, "comPort"),
                                        sendPid(std::move(reply)));
    };
}

void addMaintenanceRequests(Handlers& h) {
    h["disconnectService"] = [](KorvoHelperTool& tool, const Caller&, const Dictionary& args, ReplySender reply) {
        tool.disconnectService(integerArgument(args, "serviceType"), stringArgument(args, "remoteHost"),
                               unsignedArgument(args, "comPort"),
                               static_cast<std::int32_t>(integerArgument(args, "pid")), sendError(std::move(reply)));
    };
    h["writeConfig"] = [](KorvoHelperTool& tool, const Caller& caller, const Dictionary& args, ReplySender reply) {
        tool.writeConfig(caller, stringArgument(args, "config"), stringArgument(args, "path"),
                         sendError(std::move(reply)));
    };
    h["deleteConfigAtPath"] = [](KorvoHelperTool& tool, const Caller& caller, const Dictionary& args, ReplySender reply) {
        tool.deleteConfigAtPath(caller, stringArgument(args, "path"), sendError(std::move(reply)));
    };
    h["cleanKnownHostsForRemoteHost"] = [](KorvoHelperTool& tool, const Caller&, const Dictionary& args, ReplySender reply) {
        tool.cleanKnownHostsForRemoteHost(stringArgument(args, "host"), sendError(std::move(reply)));
    };
    h["cleanSystem"] = [](KorvoHelperTool& tool, const Caller&, const Dictionary& args, ReplySender reply) {
        tool.cleanSystem(integerArgument(args, "cleanMask"), sendError(std::move(reply)));
    };
    h["setTimeMachineEnabled"] = [](KorvoHelperTool& tool, const Caller&, const Dictionary& args, ReplySender reply) {
        tool.setTimeMachineEnabled(booleanArgument(args, "enabled"), sendError(std::move(reply)));
    };
}

void addNetworkRequests(Handlers& h) {
    h["updateNameServerAddresses"] = [](KorvoHelperTool& tool, const Caller&, const Dictionary& args, ReplySender reply) {
        NameServerSettings settings;
        settings.nameServerAddresses = stringArrayArgument(args, "nameServerAddresses");
        settings.searchDomains = stringArrayArgument(args, "searchDomains");
        settings.defaultDomain = stringArgument(args, "defaultDomain");
        settings.serviceIdentifier = stringArgument(args, "serviceIdentifier");
        settings.interfaceName = stringArgument(args, "interfaceName");
        settings.IPv4Addresses = stringArrayArgument(args, "IPv4Addresses");
        settings.IPv4DestAddresses = stringArrayArgument(args, "IPv4DestAddresses");
        settings.IPv6Addresses = stringArrayArgument(args, "IPv6Addresses");
        settings.IPv6PrefixLengths = int64ArrayArgument(args, "IPv6PrefixLengths");
        settings.transactionIdentifier = stringArgument(args, "transactionIdentifier");
        tool.updateNameServerAddresses(settings, sendError(std::move(reply)));
    };
}

// The argument as it came, for operations that check its type themselves;
// an absent one is an empty string, which no such operation accepts.
Value anyArgument(const Dictionary& arguments, const std::string& key) {
    const auto it = arguments.find(key);
    return it == arguments.end() ? Value() : it->second;
}

void addTransactionRequests(Handlers& h) {
    h["recordOwnerProcessPID"] = [](KorvoHelperTool& tool, const Caller&, const Dictionary& args, ReplySender reply) {
        tool.recordOwnerProcessPID(static_cast<std::int32_t>(integerArgument(args, "pid")),
                                   integerArgument(args, "serviceType"), booleanArgument(args, "isAmneziaWG"),
                                   stringArgument(args, "transactionIdentifier"), sendError(std::move(reply)));
    };
    h["configureRoutes"] = [](KorvoHelperTool& tool, const Caller&, const Dictionary& args, ReplySender reply) {
        tool.configureRoutes(anyArgument(args, "routeOperations"),
                             [reply = std::move(reply)](const MaybeError& error, const std::optional<std::string>& result) {
                                 reply(resultReply(error, result));
                             });
    };
    h["applyNetworkTransaction"] = [](KorvoHelperTool& tool, const Caller&, const Dictionary& args, ReplySender reply) {
        tool.applyNetworkTransaction(anyArgument(args, "request"), sendError(std::move(reply)));
    };
    h["restoreNetworkTransactionWithIdentifier"] = [](KorvoHelperTool& tool, const Caller&, const Dictionary& args,
                                                      ReplySender reply) {
        tool.restoreNetworkTransactionWithIdentifier(stringArgument(args, "identifier"), sendError(std::move(reply)));
    };
    h["resetNetworkConfigurationForIdentifier"] = [](KorvoHelperTool& tool, const Caller&, const Dictionary& args,
                                                     ReplySender reply) {
        tool.resetNetworkConfigurationForIdentifier(stringArgument(args, "identifier"),
                                                    stringArgument(args, "tunnelInterface"), sendError(std::move(reply)));
    };
}

const Handlers& handlers() {
    static const Handlers table = [] {
        Handlers h;
        addSettingRequests(h);
        addConnectRequests(h);
        addMaintenanceRequests(h);
        addNetworkRequests(h);
        addTransactionRequests(h);
        return h;
    }();
    return table;
}

}  // namespace

const RequestHandler* requestHandler(const std::string& name) {
    auto it = handlers().find(name);
    return it == handlers().end() ? nullptr : &it->second;
}

}  // namespace korvo
