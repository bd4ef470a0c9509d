#include "platform/linux/bus/DbusListener.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <utility>
#include <vector>

#include <sdbus-c++/sdbus-c++.h>

#include "platform/linux/bus/DbusValueCodec.h"
#include "util/ProtocolArguments.h"
#include "util/Log.h"
#include "util/SerialQueue.h"
#include "util/WorkerPool.h"

namespace korvo::platform {
namespace {

constexpr const char* kBusDaemonName = "org.freedesktop.DBus";
constexpr const char* kBusDaemonPath = "/org/freedesktop/DBus";
constexpr const char* kBusDaemonInterface = "org.freedesktop.DBus";
constexpr const char* kErrorAccessDenied = "org.freedesktop.DBus.Error.AccessDenied";
constexpr const char* kErrorInvalidArgs = "org.freedesktop.DBus.Error.InvalidArgs";
constexpr const char* kErrorLimitsExceeded = "org.freedesktop.DBus.Error.LimitsExceeded";
constexpr const char* kErrorFailed = "org.freedesktop.DBus.Error.Failed";
constexpr const char* kAccessDeniedMessage = "This client is not allowed to use the Korvo helper.";
constexpr std::uint32_t kNameFlagDoNotQueue = 4;
constexpr std::uint32_t kNameReplyPrimaryOwner = 1;
constexpr std::uint32_t kNameReplyAlreadyOwner = 4;
constexpr auto kBusDaemonTimeout = std::chrono::seconds(5);
// The largest reply sent. The system bus refuses messages above its limit
// (32 MB by default) by dropping the sender's connection, which would end
// the service for every client; no reply of the helper comes near this.
constexpr std::size_t kMaximumReplySize = 8 << 20;
// How long invalidate() keeps writing replies that are still queued.
constexpr auto kFlushTimeout = std::chrono::seconds(2);

}  // namespace

// The service connection, shared with every reply in flight so that a reply
// sent late never touches a connection that is gone.
struct DbusListener::Bus {
    std::unique_ptr<sdbus::IConnection> connection;
    sdbus::Slot nameOwnerChanged;  // released before the connection
    int wakeFd = -1;

    ~Bus() {
        nameOwnerChanged.reset();
        connection.reset();
        if (wakeFd >= 0) ::close(wakeFd);
    }

    // Makes the bus thread poll again, e.g. to write a reply that a worker
    // could not write in full.
    void wake() const {
        const std::uint64_t one = 1;
        [[maybe_unused]] const auto written = ::write(wakeFd, &one, sizeof one);
    }
};

// One request; the message refers to the connection, so the bus goes last.
struct DbusListener::Call {
    std::shared_ptr<Bus> bus;
    sdbus::MethodCall message;
};

struct DbusListener::Client {
    Client(std::string n, std::shared_ptr<WorkerPool> pool)
        : name(std::move(n)), queue("com.tallowmar.korvo.utility.client" + name, std::move(pool)) {}

    enum Decision { Undecided, Accepted, Refused };

    // A request received while the client is judged.
    struct Held {
        const Operation* operation;
        std::shared_ptr<Call> call;
        std::size_t bytes;
    };

    const std::string name;
    SerialQueue queue;  // the accepted client's requests
    // Who the client was when it connected; set once before it is accepted.
    ServiceConnection identity;
    std::atomic<std::size_t> waiting{0};
    std::atomic<std::size_t> waitingBytes{0};

    std::mutex mutex;  // guards what follows
    Decision decision = Undecided;
    bool judging = false;
    std::vector<Held> held;
    std::size_t heldBytes = 0;
};

// Sends at most one reply; one that is never sent is answered with an error
// when the last copy of the reply function goes away.
class DbusListener::PendingReply {
public:
    PendingReply(std::shared_ptr<Call> call, std::string operation,
                 std::map<std::string, ArgumentType> types)
        : call_(std::move(call)), operation_(std::move(operation)), types_(std::move(types)) {}
    PendingReply(const PendingReply&) = delete;
    PendingReply& operator=(const PendingReply&) = delete;

    ~PendingReply() {
        if (!sent_.exchange(true)) {
            logMessage(LOG_ERR, "Error: Request '%s' ended without a reply.", operation_.c_str());
            sendError(*call_, kErrorFailed, "The request ended without a reply.");
        }
    }

    void send(const Dictionary& reply) {
        if (sent_.exchange(true)) {
            logMessage(LOG_ERR, "Error: Request '%s' replied more than once; extra reply dropped.", operation_.c_str());
            return;
        }
        auto& message = call_->message;
        if (message.doesntExpectReply()) return;
        if (dbus::encodedSizeEstimate(reply) > kMaximumReplySize) {
            logMessage(LOG_ERR, "Error: Reply to '%s' too large for the bus; sent an error instead.", operation_.c_str());
            sendError(*call_, kErrorLimitsExceeded, "The reply is too large for the bus.");
            return;
        }
        try {
            auto out = message.createReply();
            dbus::writeDictionary(out, reply, types_);
            out.send();
            call_->bus->wake();
        } catch (const sdbus::Error& e) {
            logMessage(LOG_WARNING, "Warning: Reply to '%s' not sent: %s", operation_.c_str(), e.what());
        }
    }

private:
    std::shared_ptr<Call> call_;
    const std::string operation_;
    const std::map<std::string, ArgumentType> types_;
    std::atomic<bool> sent_{false};
};

void DbusListener::sendError(Call& call, const std::string& name, const std::string& text) {
    if (call.message.doesntExpectReply()) return;
    try {
        call.message.createErrorReply(sdbus::Error(name, text)).send();
        call.bus->wake();
    } catch (const sdbus::Error&) {
        // The client is gone or the connection closed; nobody to tell.
    }
}

namespace {

// A failure of the bus, in the bus's own terms: its error name as the
// domain, its message as the description.
KorvoError busError(const std::string& name, const std::string& message) {
    return KorvoError{name, 0, Dictionary{{std::string(LocalizedDescriptionKey), message}}};
}

}  // namespace

std::unique_ptr<ServiceListener> makeServiceListener(std::string_view serviceName, ServiceListenerDelegate& delegate) {
    return std::make_unique<DbusListener>(serviceName, delegate);
}

DbusListener::DbusListener(std::string_view serviceName, ServiceListenerDelegate& delegate)
    : DbusListener(serviceName, delegate, Limits{}) {}

DbusListener::DbusListener(std::string_view serviceName, ServiceListenerDelegate& delegate, Limits limits)
    : names_(BusServiceNames::forService(serviceName)),
      delegate_(delegate),
      limits_(limits),
      pool_(std::make_shared<WorkerPool>(limits.maximumWorkers)),
      acceptanceQueue_(std::make_unique<SerialQueue>("com.tallowmar.korvo.utility.acceptance", pool_)) {}

DbusListener::~DbusListener() {
    invalidate();
    {
        std::unique_lock lock(inFlightMutex_);
        allRequestsFinished_.wait(lock, [this] { return inFlight_ == 0; });
    }
    {
        std::lock_guard lock(clientsMutex_);
        clients_.clear();
    }
    acceptanceQueue_.reset();
    pool_.reset();
    object_.reset();
    queryProxy_.reset();
    queryConnection_.reset();
    if (bus_) bus_->nameOwnerChanged.reset();
    bus_.reset();
}

MaybeError DbusListener::resume() {
    if (resumed_) return std::nullopt;
    if (invalidated_) return busError(kErrorFailed, "The listener has been invalidated.");
    try {
        auto bus = std::make_shared<Bus>();
        bus->wakeFd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        if (bus->wakeFd < 0) return busError(kErrorFailed, std::string("eventfd: ") + std::strerror(errno));
        bus->connection = sdbus::createSystemBusConnection();

        queryConnection_ = sdbus::createSystemBusConnection();
        queryProxy_ = sdbus::createProxy(*queryConnection_, kBusDaemonName, kBusDaemonPath);

        object_ = sdbus::createObject(*bus->connection, names_.objectPath);
        for (const auto& operation : delegate_.exportedOperations()) {
            object_->registerMethod(names_.interfaceName, operation.name, "a{sv}", {"arguments"}, "a{sv}", {"reply"},
                                    [this, &operation](sdbus::MethodCall call) { receive(operation, std::move(call)); });
        }
        object_->finishRegistration();

        bus->nameOwnerChanged = bus->connection->addMatch(
            "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
            "interface='org.freedesktop.DBus',member='NameOwnerChanged'",
            [this](sdbus::Message& message) {
                std::string name, oldOwner, newOwner;
                message >> name >> oldOwner >> newOwner;
                if (newOwner.empty() && !name.empty() && name.front() == ':') clientLeft(name);
            });

        // Refuse to wait in the queue for a name someone else holds: a second
        // helper must fail loudly rather than sit unused.
        auto nameProxy = sdbus::createProxy(*bus->connection, kBusDaemonName, kBusDaemonPath);
        std::uint32_t reply = 0;
        nameProxy->callMethod("RequestName")
            .onInterface(kBusDaemonInterface)
            .withTimeout(kBusDaemonTimeout)
            .withArguments(names_.busName, kNameFlagDoNotQueue)
            .storeResultsTo(reply);
        if (reply != kNameReplyPrimaryOwner && reply != kNameReplyAlreadyOwner) {
            return busError("org.freedesktop.DBus.Error.AddressInUse",
                            "The bus name " + names_.busName + " is owned by another process.");
        }

        bus_ = std::move(bus);
    } catch (const sdbus::Error& e) {
        object_.reset();
        queryProxy_.reset();
        queryConnection_.reset();
        return busError(e.getName(), e.getMessage());
    }
    resumed_ = true;
    loopThread_ = std::thread([this] { eventLoop(); });
    return std::nullopt;
}

void DbusListener::invalidate() {
    invalidated_ = true;
    if (bus_) bus_->wake();
    if (loopThread_.joinable() && loopThread_.get_id() != std::this_thread::get_id()) loopThread_.join();
}

std::size_t DbusListener::clientCount() const {
    std::lock_guard lock(clientsMutex_);
    return clients_.size();
}

void DbusListener::eventLoop() {
    auto& connection = *bus_->connection;
    try {
        while (!invalidated_) {
            while (!invalidated_ && connection.processPendingRequest()) {
            }
            if (invalidated_) break;
            const auto poll = connection.getEventLoopPollData();
            pollfd fds[2] = {{poll.fd, poll.events, 0}, {bus_->wakeFd, POLLIN, 0}};
            if (::poll(fds, 2, poll.getPollTimeout()) < 0 && errno != EINTR) {
                throw sdbus::Error(kErrorFailed, std::string("poll: ") + std::strerror(errno));
            }
            if (fds[1].revents & POLLIN) {
                std::uint64_t count;
                [[maybe_unused]] const auto n = ::read(bus_->wakeFd, &count, sizeof count);
            }
        }
        flushOutgoing();
    } catch (const sdbus::Error& e) {
        if (!invalidated_.exchange(true)) delegate_.listenerDidFail(*this, e.getMessage());
    }
}

void DbusListener::flushOutgoing() {
    auto& connection = *bus_->connection;
    const auto deadline = std::chrono::steady_clock::now() + kFlushTimeout;
    while (std::chrono::steady_clock::now() < deadline) {
        const auto poll = connection.getEventLoopPollData();
        if (!(poll.events & POLLOUT)) return;
        pollfd fd{poll.fd, POLLOUT, 0};
        ::poll(&fd, 1, 100);
        // Also dispatches incoming calls; receive() drops them now.
        connection.processPendingRequest();
    }
}

void DbusListener::receive(const Operation& operation, sdbus::MethodCall message) {
    if (invalidated_) return;  // the bus answers the caller once we are gone
    auto call = std::make_shared<Call>(Call{bus_, std::move(message)});
    const std::string name = call->message.getSender();

    std::shared_ptr<Client> client;
    {
        std::lock_guard lock(clientsMutex_);
        auto& slot = clients_[name];
        if (!slot) slot = std::make_shared<Client>(name, pool_);
        client = slot;
    }
    const std::size_t bytes = dbus::receivedBodySize(call->message);

    std::unique_lock lock(client->mutex);
    switch (client->decision) {
    case Client::Refused:
        // Answered at once, so that a refused client's requests never pile up.
        lock.unlock();
        sendError(*call, kErrorAccessDenied, kAccessDeniedMessage);
        return;
    case Client::Accepted:
        lock.unlock();
        if (client->waiting >= limits_.maximumQueuedPerClient ||
            client->waitingBytes + bytes > limits_.maximumQueuedBytesPerClient) {
            sendError(*call, kErrorLimitsExceeded, "Too many requests of this client are waiting; try again later.");
            return;
        }
        requestStarted();
        dispatch(client, operation, call, bytes);
        return;
    case Client::Undecided:
        break;
    }
    if (!holdWhileJudged(*client, operation, call, bytes)) {
        lock.unlock();
        sendError(*call, kErrorLimitsExceeded,
                  "The helper is still checking this client; it takes more requests once the client is accepted.");
        return;
    }
    if (!client->judging) {
        client->judging = true;
        requestStarted();
        acceptanceQueue_->async([this, client] {
            judge(client);
            requestFinished();
        });
    }
}

// Called by the bus thread alone, with the client's lock held.
bool DbusListener::holdWhileJudged(Client& client, const Operation& operation, const std::shared_ptr<Call>& call,
                                   std::size_t bytes) {
    if (client.held.size() >= limits_.maximumPendingPerClient ||
        client.heldBytes + bytes > limits_.maximumPendingBytesPerClient ||
        pendingBytes_ + bytes > limits_.maximumPendingBytes) {
        return false;
    }
    client.held.push_back({&operation, call, bytes});
    client.heldBytes += bytes;
    pendingBytes_ += bytes;
    requestStarted();
    return true;
}

void DbusListener::judge(const std::shared_ptr<Client>& client) {
    const bool accepted = !invalidated_ && decideAcceptance(*client);
    std::vector<Client::Held> refused;
    {
        std::lock_guard lock(client->mutex);
        client->decision = accepted ? Client::Accepted : Client::Refused;
        pendingBytes_ -= client->heldBytes;
        client->heldBytes = 0;
        // Queued under the lock, so that a request received meanwhile runs
        // after the ones that were held.
        if (accepted) {
            for (const auto& held : client->held) dispatch(client, *held.operation, held.call, held.bytes);
            client->held.clear();
        } else {
            refused = std::exchange(client->held, {});
        }
    }
    for (const auto& held : refused) {
        if (!invalidated_) sendError(*held.call, kErrorAccessDenied, kAccessDeniedMessage);
        requestFinished();
    }
}

// Queues a request that has been counted as started on the accepted
// client's queue.
void DbusListener::dispatch(const std::shared_ptr<Client>& client, const Operation& operation,
                            const std::shared_ptr<Call>& call, std::size_t bytes) {
    ++client->waiting;
    client->waitingBytes += bytes;
    client->queue.async([this, client, &operation, call, bytes] {
        --client->waiting;
        client->waitingBytes -= bytes;
        serve(client->identity, operation, call);
        requestFinished();
    });
}

void DbusListener::requestStarted() {
    std::lock_guard lock(inFlightMutex_);
    ++inFlight_;
}

void DbusListener::requestFinished() {
    std::lock_guard lock(inFlightMutex_);
    if (--inFlight_ == 0) allRequestsFinished_.notify_all();
}

void DbusListener::serve(const ServiceConnection& caller, const Operation& operation,
                         const std::shared_ptr<Call>& call) {
    if (invalidated_) return;
    dbus::DecodedDictionary decoded;
    try {
        decoded = dbus::readDictionary(call->message);
    } catch (const sdbus::Error& e) {
        sendError(*call, kErrorInvalidArgs, e.getMessage());
        return;
    }
    for (const auto& argument : operation.arguments) {
        if (decoded.undecodableKeys.count(argument.key) != 0) {
            sendError(*call, kErrorInvalidArgs,
                      "Argument '" + argument.key + "' of " + operation.name + " holds a value of an unusable type.");
            return;
        }
    }
    if (auto problem = invalidArgumentMessage(operation, decoded.values)) {
        sendError(*call, kErrorInvalidArgs, *problem);
        return;
    }

    auto pending = std::make_shared<PendingReply>(call, operation.name, replyTypes(operation.reply));
    delegate_.performOperation(caller, operation, declaredArguments(operation, decoded.values),
                               [pending](Dictionary reply) { pending->send(reply); });
}

bool DbusListener::decideAcceptance(Client& client) {
    ServiceConnection connection{client.name, std::nullopt, std::nullopt, {}};
    try {
        std::map<std::string, sdbus::Variant> credentials;
        queryProxy_->callMethod("GetConnectionCredentials")
            .onInterface(kBusDaemonInterface)
            .withTimeout(kBusDaemonTimeout)
            .withArguments(client.name)
            .storeResultsTo(credentials);
        if (auto it = credentials.find("ProcessID");
            it != credentials.end() && it->second.containsValueOfType<std::uint32_t>()) {
            connection.processIdentifier = static_cast<pid_t>(it->second.get<std::uint32_t>());
        }
        if (auto it = credentials.find("UnixUserID");
            it != credentials.end() && it->second.containsValueOfType<std::uint32_t>()) {
            connection.userIdentifier = static_cast<uid_t>(it->second.get<std::uint32_t>());
        }
        // The effective and supplementary groups of the client when it
        // connected, as the kernel froze them (SO_PEERCRED, SO_PEERGROUPS).
        if (auto it = credentials.find("UnixGroupIDs");
            it != credentials.end() && it->second.containsValueOfType<std::vector<std::uint32_t>>()) {
            for (const auto gid : it->second.get<std::vector<std::uint32_t>>()) {
                connection.groupIdentifiers.push_back(static_cast<gid_t>(gid));
            }
        }
    } catch (const sdbus::Error&) {
        // The client has left the bus already; it stays unidentified.
    }

    if (!delegate_.shouldAcceptNewConnection(*this, connection)) return false;
    client.identity = connection;

    // The code was pinned by process identifier after the bus named that
    // process. Had the client exited in between, another program could hold
    // the identifier now; the client's connection would then be gone, since
    // the bus drops a connection when its process ends.
    try {
        bool connected = false;
        queryProxy_->callMethod("NameHasOwner")
            .onInterface(kBusDaemonInterface)
            .withTimeout(kBusDaemonTimeout)
            .withArguments(client.name)
            .storeResultsTo(connected);
        return connected;
    } catch (const sdbus::Error&) {
        return false;
    }
}

void DbusListener::clientLeft(const std::string& name) {
    std::lock_guard lock(clientsMutex_);
    clients_.erase(name);
}

}  // namespace korvo::platform
