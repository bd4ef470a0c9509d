// The service listener on the D-Bus system bus. The helper owns its
// well-known name and exports one object whose interface has one method per
// operation, each taking one a{sv} of named arguments and returning one a{sv}.
//
// Every client (a unique bus name) gets a serial queue on a bounded worker
// pool: one client's requests run in order, different clients' concurrently,
// and the bus thread itself never runs a request. A client's credentials are
// asked of the bus once, on its queue, and its acceptance is kept until it
// leaves the bus, when all its state is dropped.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

#include "platform/ServiceListener.h"

namespace sdbus {
class IConnection;
class IObject;
class IProxy;
class MethodCall;
}  // namespace sdbus

namespace korvo {
class WorkerPool;
}

namespace korvo::platform {

// The bus names of a service: "com.tallowmar.korvo.utility" is owned as that
// name, exports /com/tallowmar/korvo/utility with the interface
// com.tallowmar.korvo.utility.KorvoHelperToolProtocol.
struct BusServiceNames {
    std::string busName;
    std::string objectPath;
    std::string interfaceName;

    static BusServiceNames forService(std::string_view serviceName);
};

class DbusListener final : public ServiceListener {
public:
    struct Limits {
        // Threads that run requests; each client occupies at most one.
        std::size_t maximumWorkers = 32;
        // Requests of one client waiting for their turn; more are refused
        // with LimitsExceeded.
        std::size_t maximumQueuedPerClient = 256;
    };

    DbusListener(std::string_view serviceName, ServiceListenerDelegate& delegate);
    DbusListener(std::string_view serviceName, ServiceListenerDelegate& delegate, Limits limits);
    // Invalidates, then waits for running requests to finish.
    ~DbusListener() override;

    // Connects to the system bus (DBUS_SYSTEM_BUS_ADDRESS or the standard
    // socket), exports the object, takes the name and starts the bus thread.
    MaybeError resume() override;
    void invalidate() override;

    // Clients whose state is kept now (they have sent a request and not yet
    // left the bus).
    std::size_t clientCount() const;

private:
    struct Client;
    struct Bus;
    struct Call;
    class PendingReply;

    static void sendError(Call& call, const std::string& name, const std::string& text);
    void receive(const OperationSpec& operation, sdbus::MethodCall call);
    void serve(Client& client, const OperationSpec& operation, const std::shared_ptr<Call>& call);
    bool decideAcceptance(Client& client);
    void clientLeft(const std::string& name);
    void eventLoop();
    void flushOutgoing();
    void requestFinished();

    const BusServiceNames names_;
    ServiceListenerDelegate& delegate_;
    const Limits limits_;

    std::shared_ptr<Bus> bus_;
    std::unique_ptr<sdbus::IObject> object_;
    std::unique_ptr<sdbus::IConnection> queryConnection_;  // credential look-ups from the workers
    std::unique_ptr<sdbus::IProxy> queryProxy_;
    std::shared_ptr<WorkerPool> pool_;

    mutable std::mutex clientsMutex_;
    std::map<std::string, std::shared_ptr<Client>> clients_;

    std::mutex inFlightMutex_;
    std::size_t inFlight_ = 0;  // requests queued or running
    std::condition_variable allRequestsFinished_;

    std::thread loopThread_;
    std::atomic<bool> invalidated_{false};
    bool resumed_ = false;
};

}  // namespace korvo::platform
