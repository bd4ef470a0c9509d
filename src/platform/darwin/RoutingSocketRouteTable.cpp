// macOS routing table: gateway routes through a PF_ROUTE socket, interface
// routes through "/sbin/route ... -interface NAME".
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
#include "process/ChildProcess.h"
#include "process/ProcessProbe.h"
#include "util/Format.h"
#include "util/Utf8.h"

namespace korvo::platform {
namespace {

using darwin::RouteReply;

constexpr double kRouteCommandTimeoutSeconds = 10.0;
constexpr const char* kRouteCommandPath = "/sbin/route";
// A reply the kernel never sends would otherwise block the request forever.
constexpr time_t kRouteReplyTimeoutSeconds = 10;

KorvoError routeError(const std::string& message) { return errorWithKorvoErrorCode(kRoutingErrorCode, message); }

class Descriptor {
public:
    explicit Descriptor(int fd = -1) : fd_(fd) {}
    ~Descriptor() { reset(); }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return fd_; }
    void reset() {
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
    }

private:
    int fd_;
};

std::string readToEnd(int fd) {
    std::string output;
    char buffer[4096];
    for (;;) {
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        output.append(buffer, static_cast<std::size_t>(n));
    }
    return output;
}

class RoutingSocketRouteTable final : public RouteTable {
public:
    MaybeError sendRouteMessage(std::uint8_t type, const RouteSocketAddress& destination,
                                std::uint32_t destinationLength, const RouteSocketAddress& gateway,
                                std::uint32_t gatewayLength, const RouteSocketAddress& netmask,
                                std::uint32_t netmaskLength, bool hostRoute) override {
        const Descriptor socket(::socket(PF_ROUTE, SOCK_RAW, 0));
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

    MaybeError changeInterfaceRoute(bool add, const std::string& destination, const std::string& interfaceName,
                                    bool isIPv6) override {
        ChildProcess::Options options;
        options.executable = kRouteCommandPath;
        options.arguments = {"-n", add ? "add" : "delete"};
        if (isIPv6) options.arguments.push_back("-inet6");
        options.arguments.push_back(destination);
        options.arguments.push_back("-interface");
        options.arguments.push_back(interfaceName);

        int pipeEnds[2];
        if (::pipe(pipeEnds) != 0) {
            return routeError(formatString("Could not launch route command: %s", std::strerror(errno)));
        }
        const Descriptor readEnd(pipeEnds[0]);
        Descriptor writeEnd(pipeEnds[1]);
        ::fcntl(readEnd.get(), F_SETFD, FD_CLOEXEC);
        ::fcntl(writeEnd.get(), F_SETFD, FD_CLOEXEC);
        // Output and errors in one stream, in the order the tool writes them.
        options.standardOutput = writeEnd.get();
        options.standardError = writeEnd.get();

        int launchError = 0;
        const std::shared_ptr<ChildProcess> task = ChildProcess::launch(options, &launchError);
        writeEnd.reset();  // the child holds the only write end now, so the read below ends with it
        if (!task) {
            return routeError(formatString("Could not launch route command: %s", std::strerror(launchError)));
        }

        const bool exited = waitForTaskExitWithTimeout(*task, kRouteCommandTimeoutSeconds);
        std::string output = readToEnd(readEnd.get());
        if (!isValidUTF8(output)) output.clear();

        if (!exited) {
            return routeError(formatString("Route command timed out after %.0fs.", kRouteCommandTimeoutSeconds));
        }
        if (task->terminationStatus() == 0) return std::nullopt;
        if (!add && output.find("not in table") != std::string::npos) return std::nullopt;
        return routeError("Route command failed: " + output);
    }
};

}  // namespace

std::shared_ptr<RouteTable> makeSystemRouteTable() { return std::make_shared<RoutingSocketRouteTable>(); }

}  // namespace korvo::platform
