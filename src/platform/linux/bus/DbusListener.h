// The service listener on the D-Bus system bus. The helper owns its
// well-known name and exports one object whose interface has one method per
// operation, each taking one a{sv} of named arguments and returning one a{sv}.
//
// Every client (a unique bus name) gets a serial queue on a bounded worker
// pool: one client's requests run in order, different clients' concurrently,
// and the bus thread itself never runs a request. A client is judged once,
// on the one acceptance queue, before any of its requests is decoded; until
// then only a few small requests of it are held, and its decision is kept
// until it leaves the bus, when all its state is dropped.
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
#include "platform/linux/bus/DbusValueCodec.h"

namespace sdbus {
class IConnection;
class IObject;
class IProxy;
class MethodCall;
}  // namespace sdbus

namespace korvo {
class SerialQueue;
class WorkerPool;
}

namespace korvo::platform {

class DbusListener final : public ServiceListener {
public:
    struct Limits {
        // Threads that run requests; each client occupies at most one, and
        // all acceptance decisions together occupy one.
        std::size_t maximumWorkers = 32;
        // Requests of an accepted client waiting for their turn, and their
        // bytes; more are refused with LimitsExceeded.
        std::size_t maximumQueuedPerClient = 256;
        std::size_t maximumQueuedBytesPerClient = std::size_t{64} << 20;
        // While a client is being judged, the requests it may have waiting
        // and their bytes, and the bytes of all such clients together; more
        // are refused at once, never held.
        std::size_t maximumPendingPerClient = 4;
        std::size_t maximumPendingBytesPerClient = std::size_t{4} << 20;
        std::size_t maximumPendingBytes = std::size_t{16} << 20;
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
    void receive(const Operation& operation, sdbus::MethodCall call);
    bool holdWhileJudged(Client& client, const Operation& operation, const std::shared_ptr<Call>& call,
                         std::size_t bytes);
    void judge(const std::shared_ptr<Client>& client);
    void dispatch(const std::shared_ptr<Client>& client, const Operation& operation,
                  const std::shared_ptr<Call>& call, std::size_t bytes);
    void serve(const ServiceConnection& caller, const Operation& operation, const std::shared_ptr<Call>& call);
    bool decideAcceptance(Client& client);
    void requestStarted();
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
    // Acceptance decisions, one at a time: however many connections a
    // caller opens, judging them never takes more than one worker.
    std::unique_ptr<SerialQueue> acceptanceQueue_;
    std::atomic<std::size_t> pendingBytes_{0};  // held by clients being judged

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
