#include "KorvoClient.h"

#include <sdbus-c++/sdbus-c++.h>

#include "util/KorvoIdentity.h"
#include "util/Protocol.h"
#include "util/ProtocolArguments.h"
#include "platform/linux/bus/DbusValueCodec.h"

namespace korvo {

KorvoClient::KorvoClient(std::optional<std::string> busAddress) : busAddress_(std::move(busAddress)) {}

KorvoClient::~KorvoClient() {
    proxy_.reset();
    connection_.reset();  // writes what is still queued, e.g. a call without reply
}

std::optional<BusError> KorvoClient::connect() {
    if (proxy_) return std::nullopt;
    const auto names = platform::BusServiceNames::forService(HelperServiceName);
    try {
        connection_ = busAddress_ ? sdbus::createSessionBusConnectionWithAddress(*busAddress_)
                                  : sdbus::createSystemBusConnection();
        proxy_ = sdbus::createProxy(*connection_, names.busName, names.objectPath);
    } catch (const sdbus::Error& e) {
        proxy_.reset();
        connection_.reset();
        return BusError{e.getName(), e.getMessage()};
    }
    return std::nullopt;
}

CallOutcome KorvoClient::call(const std::string& operation, const Dictionary& arguments,
                              std::chrono::milliseconds timeout, bool expectReply) {
    if (auto error = connect()) return {{}, error};
    const auto names = platform::BusServiceNames::forService(HelperServiceName);
    const Operation* operationEntry = findOperation(operation);
    try {
        auto message = proxy_->createMethodCall(names.interfaceName, operation);
        platform::dbus::writeDictionary(message, arguments, operationEntry ? argumentTypes(*operationEntry) : decltype(argumentTypes(*operationEntry)){});
        if (!expectReply) {
            message.dontExpectReply();
            proxy_->callMethod(message);
            return {};
        }
        auto reply = proxy_->callMethod(message, std::chrono::duration_cast<std::chrono::microseconds>(timeout));
        return {platform::dbus::readDictionary(reply).values, std::nullopt};
    } catch (const sdbus::Error& e) {
        return {{}, BusError{e.getName(), e.getMessage()}};
    }
}

std::optional<std::string> KorvoClient::uniqueName() {
    if (connect()) return std::nullopt;
    try {
        return connection_->getUniqueName();
    } catch (const sdbus::Error&) {
        return std::nullopt;
    }
}

}  // namespace korvo
