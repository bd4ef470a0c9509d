// The real helper daemon on a private system bus, with the test process as
// its signed client (link korvo_test_support; sign the test with SIGNED).
// Only for tests run inside tests/support/isolated; the bus and helper die
// with the fixture, or with the namespace at the latest.
//
// call() sends the arguments typed as the operation table says and returns
// the helper's reply dictionary ("error", "pid", "result", or empty); a
// refusal by the bus itself comes back as {"busError": name, "busMessage":
// text}.
//
// For tests of who may call: the bus policy as installed or open to all, a
// group "korvo" in the namespace, clients run as user nobody, and copies of
// the test caller (TestCaller.cpp) installed with the owner and mode a test
// needs.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "util/Value.h"

namespace korvo::test {

// What a command run against the private bus printed and how it ended.
struct CommandResult {
    int exitStatus = -1;  // -1: killed by a signal or not started
    std::string standardOutput;
    std::string standardError;
};

class HelperFixture {
public:
    struct Options {
        // Added to the helper's environment (e.g. XDG_DATA_DIRS to let it
        // find a test application bundle, TMPDIR for its initial tmpDirPath).
        std::map<std::string, std::string> environment;
        // The daemon to start; empty: the one this build made.
        std::string helperPath;
        // false: start only the bus (for tests that serve on it themselves).
        bool startHelper = true;
        // Installed: the system bus's default policy (method calls denied)
        // with the installed policy file of the helper included. Open: root
        // owns the helper's name and anyone may call it, so that only the
        // helper's own check refuses a caller.
        enum class BusPolicy { Installed, Open } busPolicy = BusPolicy::Installed;
        // Gives the namespace a group "korvo" with an unused gid and no
        // members before the bus and the helper start: a copy of /etc/group
        // bind-mounted over it. Only inside tests/support/isolated.
        bool korvoGroup = false;
        // More bus policy, added as it is (for other services a test runs on
        // the private bus, such as systemd-resolved).
        std::string extraBusPolicy;
    };

    HelperFixture();
    explicit HelperFixture(Options options);
    ~HelperFixture();
    HelperFixture(const HelperFixture&) = delete;
    HelperFixture& operator=(const HelperFixture&) = delete;

    // Starts the bus, then the helper, and waits until the helper owns its
    // name. nullopt on success, else what went wrong (with the helper's log).
    // The bus's address is also put into this process's
    // DBUS_SYSTEM_BUS_ADDRESS, so that system-bus code under test finds it.
    std::optional<std::string> start();

    // One request as the signed client; waits up to timeout for the reply.
    Dictionary call(const std::string& operation, const Dictionary& arguments = {},
                    std::chrono::milliseconds timeout = std::chrono::seconds(30));

    // As the client does for a connection: opens the network transaction
    // "tx-SERVICE" (sparing the transactions "tx-" + active from its sweep),
    // then publishes the service's DNS server on interfaceName (IPv4 address
    // 192.168.77.1). The first reply that is not empty, else empty.
    Dictionary publishDns(const std::string& service, const std::string& server,
                          const std::vector<std::string>& searchDomains, const std::string& interfaceName,
                          const std::vector<std::string>& active);

    // Everything the helper has written to standard error so far (its log).
    std::string helperLog() const;
    // Waits until the log holds text (at least that many times); false after
    // timeout. The log arrives through a pipe: a reply can come before the
    // lines logged ahead of it.
    bool waitForLog(const std::string& text, std::chrono::milliseconds timeout = std::chrono::seconds(10),
                    std::size_t occurrences = 1) const;

    pid_t helperPid() const;
    // The private bus, as DBUS_SYSTEM_BUS_ADDRESS would name it.
    std::string busAddress() const;

    // Runs argv[0] with DBUS_SYSTEM_BUS_ADDRESS set to the private bus (for
    // korvoctl and other clients) and collects its output.
    CommandResult runClient(const std::vector<std::string>& argv,
                            std::chrono::milliseconds timeout = std::chrono::seconds(30)) const;
    // The same as user nobody (uid 65534, gid nogroup, no supplementary
    // groups), with the environment additions. A setgid program ignores
    // DBUS_SYSTEM_BUS_ADDRESS: give it busAddress() itself.
    CommandResult runClientAsNobody(const std::vector<std::string>& argv,
                                    const std::map<std::string, std::string>& environment = {},
                                    std::chrono::milliseconds timeout = std::chrono::seconds(30)) const;

    // The gid of the group "korvo" made for Options::korvoGroup; -1 without.
    gid_t korvoGroupId() const;

    // Waits for the helper to exit on its own; its exit status, -1 when a
    // signal ended it, nullopt when it is still running after timeout.
    std::optional<int> waitForHelperExit(std::chrono::milliseconds timeout = std::chrono::seconds(10));

    // Ends the helper (SIGTERM, then SIGKILL) and the bus. Idempotent.
    void stop();

    // The korvoctl binary of this build.
    static std::string korvoctlPath();
    // The test caller signed as the client application, the same program
    // unsigned, and a library for LD_PRELOAD that creates the file named by
    // KORVO_PAYLOAD_MARKER when it is loaded.
    static std::string signedCallerPath();
    static std::string unsignedCallerPath();
    static std::string payloadLibraryPath();

    // Copies source to destination, owned by root and group, with mode
    // (setgid bits included), extended to extendTo bytes when that is larger
    // (sparse). Returns destination; throws std::runtime_error on failure.
    static std::string installProgram(const std::string& source, const std::string& destination, gid_t group,
                                      mode_t mode, off_t extendTo = 0);

private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace korvo::test
