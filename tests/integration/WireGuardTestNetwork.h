// The network around a WireGuard tunnel under test, built inside the test's
// own namespaces (tests/support/isolated): a peer network namespace joined to
// the test's by a veth pair, a wireguard-go peer in it, a private /etc/hosts,
// and checks on the processes of the namespace.
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

struct ShellResult {
    int exitStatus = -1;
    std::string output;  // standard output and standard error together
};

// Runs a command line with /bin/sh and collects its output.
ShellResult shell(const std::string& command);

// True when this process runs in the namespaces tests/support/isolated made;
// nothing here may touch the machine's own network or files otherwise.
bool runningIsolated();

// A fresh WireGuard key pair made with wg.
struct KeyPair {
    std::string privateKey;
    std::string publicKey;
};
KeyPair generateKeyPair();

// Replaces /etc/hosts, in this mount namespace only, by a file holding lines.
// Undone when the object goes.
class PrivateHosts {
public:
    PrivateHosts(const std::string& directory, const std::string& lines);
    ~PrivateHosts();
    PrivateHosts(const PrivateHosts&) = delete;
    PrivateHosts& operator=(const PrivateHosts&) = delete;
    bool ok() const { return mounted_; }

private:
    bool mounted_ = false;
};

// Makes `mountPoint` show the contents of `source` (both created when
// missing), in this mount namespace only. Undone when the object goes.
class DirectoryAlias {
public:
    DirectoryAlias(const std::string& source, const std::string& mountPoint);
    ~DirectoryAlias();
    DirectoryAlias(const DirectoryAlias&) = delete;
    DirectoryAlias& operator=(const DirectoryAlias&) = delete;
    bool ok() const { return mounted_; }

private:
    std::string mountPoint_;
    bool mounted_ = false;
};

// A network namespace joined to the test's by a veth pair
// (localAddress/24 here, peerAddress/24 there), with a wireguard-go peer.
class PeerNamespace {
public:
    struct Options {
        std::string name = "korvo-peer";
        std::string localVeth = "kveth0";
        std::string peerVeth = "kveth1";
        std::string localAddress = "192.168.77.1";
        std::string peerAddress = "192.168.77.2";
    };
    explicit PeerNamespace(Options options);
    PeerNamespace() : PeerNamespace(Options{}) {}
    ~PeerNamespace();
    PeerNamespace(const PeerNamespace&) = delete;
    PeerNamespace& operator=(const PeerNamespace&) = delete;

    // Empty on success, else what failed.
    std::string create();

    // Starts wireguard-go as interface `interfaceName` in the namespace, with
    // the private key, listening on `listenPort`, accepting the helper's
    // public key from `allowedIPs`, with tunnel address `tunnelAddress`/32
    // and a route to `routeTo` through the tunnel. Empty on success.
    std::string startWireGuard(const std::string& interfaceName, const KeyPair& keys, int listenPort,
                               const std::string& helperPublicKey, const std::string& allowedIPs,
                               const std::string& tunnelAddress, const std::string& routeTo,
                               const std::string& workDirectory);

    // Runs a command inside the namespace.
    ShellResult exec(const std::string& command) const;

    pid_t wireGuardPid() const;
    const Options& options() const { return options_; }

private:
    Options options_;
    bool created_ = false;
    std::shared_ptr<ChildProcess> wireGuard_;
};

// Process identifiers of the processes whose command name is `name`.
std::vector<pid_t> processesNamed(const std::string& name);
// Process identifiers of zombies in this PID namespace.
std::vector<pid_t> zombieProcesses();
// Waits until the condition holds; false when it still does not after timeout.
bool eventually(const std::function<bool()>& condition,
                std::chrono::milliseconds timeout = std::chrono::milliseconds(3000));

// Waits until a file exists; false after timeout.
bool waitForFile(const std::string& path, std::chrono::milliseconds timeout = std::chrono::milliseconds(5000));

}  // namespace korvo::test
