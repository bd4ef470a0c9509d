// macOS routing table: gateway routes through a PF_ROUTE socket, interface
// routes through "/sbin/route ... -interface NAME", run by the helper's
// process runner.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "platform/RouteTable.h"
#include "platform/darwin/RouteMessage.h"
#include "util/Format.h"
#include "util/UniqueFd.h"

namespace korvo::platform {
namespace {

using darwin::RouteReply;

constexpr const char* kRouteCommandPath = "/sbin/route";
// A reply the kernel never sends would otherwise block the request forever.
constexpr time_t kRouteReplyTimeoutSeconds = 10;

KorvoError routeError(const std::string& message) { return errorWithKorvoErrorCode(kRoutingErrorCode, message); }

class RoutingSocketRouteTable final : public RouteTable {
public:
    MaybeError sendRouteMessage(std::uint8_t type, const RouteSocketAddress& destination,
                                std::uint32_t destinationLength, const RouteSocketAddress& gateway,
                                std::uint32_t gatewayLength, const RouteSocketAddress& netmask,
                                std::uint32_t netmaskLength, bool hostRoute) override {
        const UniqueFd socket(::socket(PF_ROUTE, SOCK_RAW, 0));
        if (socket.get() < 0) return routeError(formatString("Could not open routing socket: %s", std::strerror(errno)));
        ::fcntl(socket.get(), F_SETFD, FD_CLOEXEC);
        const timeval replyTimeout{kRouteReplyTimeoutSeconds, 0};
        ::setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &replyTimeout, sizeof replyTimeout);

        darwin::RouteSequenceCounter& sequence = darwin::processRouteSequenceCounter();
        const std::int32_t pid = ::getpid();
        darwin::RouteMessage message =
            darwin::encodeRouteMessage(type, destination, destinationLength, gateway, gatewayLength, netmask,
                                       netmaskLength, hostRoute, pid, sequence.increment());

        if (::write(socket.get(), message.bytes.data(), message.length) < 0) {
            const int error = errno;
            if (darwin::routeWriteErrorMeansAbsent(type, error)) return std::nullopt;
            return routeError(formatString("Could not write route message: %s", std::strerror(error)));
        }

        for (;;) {
            const ssize_t n = ::read(socket.get(), message.bytes.data(), message.bytes.size());
            if (n < 0) {
                if (errno == EINTR) continue;
                return routeError(formatString("Could not read route response: %s", std::strerror(errno)));
            }
            const RouteReply reply = darwin::evaluateRouteReply(
                std::span<const std::uint8_t>(message.bytes.data(), static_cast<std::size_t>(n)), type, pid,
                sequence.current());
            switch (reply.kind) {
            case RouteReply::Kind::NotOurs: continue;
            case RouteReply::Kind::Succeeded: return std::nullopt;
            case RouteReply::Kind::Failed:
                return routeError(formatString("Route operation failed: %s", std::strerror(reply.error)));
            }
        }
    }

    explicit RoutingSocketRouteTable(SystemToolRunner runTool) : runTool_(std::move(runTool)) {}

    MaybeError changeInterfaceRoute(bool add, const std::string& destination, const std::string& interfaceName,
                                    bool isIPv6) override {
        std::vector<std::string> arguments = {"-n", add ? "add" : "delete"};
        if (isIPv6) arguments.push_back("-inet6");
        arguments.push_back(destination);
        arguments.push_back("-interface");
        arguments.push_back(interfaceName);
        if (!runTool_) return routeError("Could not launch route command: no process runner");
        const MaybeError failure = runTool_(kRouteCommandPath, arguments);
        if (!failure) return std::nullopt;
        // The runner's error carries the tool's output.
        const std::string output = failure->displayText();
        if (!add && output.find("not in table") != std::string::npos) return std::nullopt;
        return routeError("Route command failed: " + output);
    }

private:
    SystemToolRunner runTool_;
};

}  // namespace

std::shared_ptr<RouteTable> makeSystemRouteTable(SystemToolRunner runTool) {
    return std::make_shared<RoutingSocketRouteTable>(std::move(runTool));
}

}  // namespace korvo::platform
