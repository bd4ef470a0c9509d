// The network around a WireGuard tunnel under test, built inside the test's
// own namespaces (tests/support/isolated): a peer network namespace joined to
// the test's by a veth pair with a wireguard-go peer in it, bind mounts, and
// checks on the processes of the PID namespace.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace korvo {
class ChildProcess;
}

namespace korvo::test {

// Our end of the veth pair is 192.168.77.1/24, the peer's 192.168.77.2/24;
// inside the tunnel the peer is 10.77.0.1 and we are 10.77.0.2.
inline constexpr const char* kPeerAddress = "192.168.77.2";

struct ShellResult {
    int exitStatus = -1;
    std::string output;  // standard output and standard error together
};

// Runs a command line with /bin/sh and collects its output.
ShellResult shell(const std::string& command);

// True inside tests/support/isolated; nothing here may touch the machine's
// own network or files otherwise.
bool runningIsolated();

struct KeyPair {
    std::string privateKey;
    std::string publicKey;
};
KeyPair generateKeyPair();

// `source` mounted over `target` (a directory target is created first), in
// this mount namespace only, until the object goes.
class BindMount {
public:
    BindMount(const std::string& source, const std::string& target);
    ~BindMount();
    BindMount(const BindMount&) = delete;
    BindMount& operator=(const BindMount&) = delete;
    bool ok() const { return mounted_; }

private:
    std::string target_;
    bool mounted_ = false;
};

// The peer's network namespace, removed with the object.
class PeerNamespace {
public:
    PeerNamespace() = default;
    ~PeerNamespace();
    PeerNamespace(const PeerNamespace&) = delete;
    PeerNamespace& operator=(const PeerNamespace&) = delete;

    // Each returns an empty string on success, else what failed.
    std::string create();
    // wireguard-go as `interfaceName`, listening on `listenPort`, accepting
    // the helper's key from 10.77.0.2/32, with a route back to it.
    std::string startWireGuard(const std::string& interfaceName, const KeyPair& keys, int listenPort,
                               const std::string& helperPublicKey, const std::string& workDirectory);

    ShellResult exec(const std::string& command) const;

private:
    bool created_ = false;
    std::shared_ptr<ChildProcess> wireGuard_;
};

// Processes of this PID namespace whose command name is `name`, and zombies.
std::vector<pid_t> processesNamed(const std::string& name);
std::vector<pid_t> zombieProcesses();

// Polls until the condition holds; false when it still does not after timeout.
bool eventually(const std::function<bool()>& condition,
                std::chrono::milliseconds timeout = std::chrono::milliseconds(3000));

}  // namespace korvo::test
