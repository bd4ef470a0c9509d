// The listener on the helper's named service: it receives the clients'
// requests, lets its delegate decide once per client whether that client may
// use the service, and hands each accepted request to the delegate on the
// client's own serial queue (clients run concurrently, one client's requests
// in order). Every request gets exactly one reply.
#pragma once

#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "util/Error.h"
#include "util/Protocol.h"
#include "util/Value.h"

namespace korvo::platform {

class ServiceListener;

// One client of the service as the platform identifies it.
struct ServiceConnection {
    std::string name;                   // the bus's unique name of the client
    std::optional<pid_t> processIdentifier;  // nullopt: the client could not be identified
    std::optional<uid_t> userIdentifier;
    // The groups the client held when it connected (effective first, then
    // supplementary), as the kernel recorded them then: unlike the process
    // behind a pid, they cannot change hands afterwards.
    std::vector<gid_t> groupIdentifiers;
};

class ServiceListenerDelegate {
public:
    virtual ~ServiceListenerDelegate() = default;

    // Called once per client before its first request is decoded, on the
    // listener's acceptance queue. The decision is kept for as long as the
    // client stays connected.
    virtual bool shouldAcceptNewConnection(ServiceListener& listener, const ServiceConnection& connection) = 0;

    // The operations offered to accepted clients.
    virtual const std::vector<Operation>& exportedOperations() = 0;

    // Runs one request of an accepted client on its queue. caller is the
    // client as it was accepted. The arguments have the types the operation
    // declares (absent keys are nil); reply must be called exactly once, from
    // any thread.
    virtual void performOperation(const ServiceConnection& caller, const Operation& operation,
                                  const Dictionary& arguments, ReplySender reply) = 0;

    // The listener lost its connection to the platform's IPC service and
    // serves no more requests.
    virtual void listenerDidFail(ServiceListener& listener, const std::string& reason) = 0;
};

class ServiceListener {
public:
    virtual ~ServiceListener() = default;

    // Publishes the service and starts serving requests.
    virtual MaybeError resume() = 0;
    // Stops serving; replies already sent are delivered first. Requests that
    // are still running may finish but their replies are dropped.
    virtual void invalidate() = 0;
};

// The platform's listener for the named service (Linux: the system bus).
std::unique_ptr<ServiceListener> makeServiceListener(std::string_view serviceName, ServiceListenerDelegate& delegate);

}  // namespace korvo::platform
