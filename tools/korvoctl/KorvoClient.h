// A client of the helper's request interface on the system bus: sends one
// operation with named arguments, typed as the operation table declares, and
// returns the helper's reply dictionary.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "util/Value.h"

namespace sdbus {
class IConnection;
class IProxy;
}  // namespace sdbus

namespace korvo {

// An error of the bus itself (no helper, AccessDenied, InvalidArgs, ...), as
// opposed to an error reply of the helper.
struct BusError {
    std::string name;
    std::string message;
};

struct CallOutcome {
    Dictionary reply;                // the helper's reply; empty with a bus error
    std::optional<BusError> busError;
};

class KorvoClient {
public:
    // The system bus (DBUS_SYSTEM_BUS_ADDRESS or the standard socket), or the
    // bus at busAddress.
    explicit KorvoClient(std::optional<std::string> busAddress = std::nullopt);
    ~KorvoClient();
    KorvoClient(const KorvoClient&) = delete;
    KorvoClient& operator=(const KorvoClient&) = delete;

    // Sends the operation and waits up to timeout for the reply. Keys the
    // table declares are sent with their declared types, others with their
    // natural ones. Without expectReply the call is sent with
    // NO_REPLY_EXPECTED and returns at once with an empty reply.
    CallOutcome call(const std::string& operation, const Dictionary& arguments,
                     std::chrono::milliseconds timeout = std::chrono::seconds(30), bool expectReply = true);

    // This client's unique name on the bus (connects first when needed);
    // nullopt when there is no bus.
    std::optional<std::string> uniqueName();

private:
    std::optional<BusError> connect();

    std::optional<std::string> busAddress_;
    std::unique_ptr<sdbus::IConnection> connection_;
    std::unique_ptr<sdbus::IProxy> proxy_;
};

}  // namespace korvo
