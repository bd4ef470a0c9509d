#include "WireGuardTestNetwork.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <thread>

#include "process/ChildProcess.h"

extern char** environ;

namespace korvo::test {
namespace {

std::string trimmedTrailingNewlines(std::string text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
    return text;
}

std::string readWholeFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

std::map<std::string, std::string> environmentWith(const std::string& key, const std::string& value) {
    std::map<std::string, std::string> environment;
    for (char** entry = environ; *entry; ++entry) {
        const std::string text = *entry;
        const auto equals = text.find('=');
        if (equals != std::string::npos) environment[text.substr(0, equals)] = text.substr(equals + 1);
    }
    environment[key] = value;
    return environment;
}

}  // namespace

ShellResult shell(const std::string& command) {
    ShellResult result;
    FILE* pipe = popen(("exec 2>&1; " + command).c_str(), "r");
    if (!pipe) return result;
    char buffer[4096];
    size_t n;
    while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) result.output.append(buffer, n);
    const int status = pclose(pipe);
    result.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

bool runningIsolated() {
    const char* flag = std::getenv("KORVO_ISOLATED");
    if (!flag || std::string(flag) != "1") return false;
    // PID 1 of our PID namespace is the isolating shell, not the machine's init.
    return readWholeFile("/proc/1/cmdline").find("isolated") != std::string::npos;
}

KeyPair generateKeyPair() {
    KeyPair keys;
    keys.privateKey = trimmedTrailingNewlines(shell("wg genkey").output);
    keys.publicKey = trimmedTrailingNewlines(shell("printf '%s' '" + keys.privateKey + "' | wg pubkey").output);
    return keys;
}

PrivateHosts::PrivateHosts(const std::string& directory, const std::string& lines) {
    if (!runningIsolated()) return;
    const std::string path = directory + "/hosts";
    std::ofstream(path) << lines;
    mounted_ = mount(path.c_str(), "/etc/hosts", nullptr, MS_BIND, nullptr) == 0;
}

PrivateHosts::~PrivateHosts() {
    if (mounted_) umount2("/etc/hosts", MNT_DETACH);
}

DirectoryAlias::DirectoryAlias(const std::string& source, const std::string& mountPoint) : mountPoint_(mountPoint) {
    if (!runningIsolated()) return;
    std::error_code ignored;
    std::filesystem::create_directories(source, ignored);
    std::filesystem::create_directories(mountPoint, ignored);
    mounted_ = mount(source.c_str(), mountPoint.c_str(), nullptr, MS_BIND, nullptr) == 0;
}

DirectoryAlias::~DirectoryAlias() {
    if (mounted_) umount2(mountPoint_.c_str(), MNT_DETACH);
}

PeerNamespace::PeerNamespace(Options options) : options_(std::move(options)) {}

PeerNamespace::~PeerNamespace() {
    if (wireGuard_) {
        wireGuard_->sendSignal(SIGINT);
        if (!wireGuard_->waitForExit(3.0)) {
            wireGuard_->sendSignal(SIGKILL);
            wireGuard_->waitForExit(3.0);
        }
    }
    if (created_) shell("ip netns del " + options_.name);
}

std::string PeerNamespace::create() {
    if (!runningIsolated()) return "not inside tests/support/isolated";
    const Options& o = options_;
    const std::string script =
        "set -e\n"
        "ip netns add " + o.name + "\n"
        "ip link add " + o.localVeth + " type veth peer name " + o.peerVeth + " netns " + o.name + "\n"
        "ip addr add " + o.localAddress + "/24 dev " + o.localVeth + "\n"
        "ip link set " + o.localVeth + " up\n"
        "ip -n " + o.name + " link set lo up\n"
        "ip -n " + o.name + " addr add " + o.peerAddress + "/24 dev " + o.peerVeth + "\n"
        "ip -n " + o.name + " link set " + o.peerVeth + " up\n";
    const ShellResult result = shell(script);
    created_ = true;
    return result.exitStatus == 0 ? "" : "peer namespace: " + result.output;
}

std::string PeerNamespace::startWireGuard(const std::string& interfaceName, const KeyPair& keys, int listenPort,
                                          const std::string& helperPublicKey, const std::string& allowedIPs,
                                          const std::string& tunnelAddress, const std::string& routeTo,
                                          const std::string& workDirectory) {
    const std::string logPath = workDirectory + "/peer-wireguard-go.log";
    const int log = ::open(logPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    ChildProcess::Options launch;
    launch.executable = "/bin/ip";
    launch.arguments = {"netns", "exec", options_.name, "/usr/bin/wireguard-go", interfaceName};
    launch.environment = environmentWith("WG_PROCESS_FOREGROUND", "1");
    launch.standardOutput = log;
    launch.standardError = log;
    int launchError = 0;
    wireGuard_ = ChildProcess::launch(launch, &launchError);
    if (log >= 0) ::close(log);
    if (!wireGuard_) return "peer wireguard-go could not be started: " + std::to_string(launchError);
    if (!waitForFile("/var/run/wireguard/" + interfaceName + ".sock")) {
        return "peer wireguard-go created no control socket: " + readWholeFile(logPath);
    }

    const std::string keyPath = workDirectory + "/peer.key";
    std::ofstream(keyPath) << keys.privateKey << "\n";
    const std::string ipn = "ip -n " + options_.name + " ";
    const ShellResult result = shell("set -e\n"
                                     "wg set " + interfaceName + " listen-port " + std::to_string(listenPort) +
                                     " private-key " + keyPath + " peer " + helperPublicKey + " allowed-ips " +
                                     allowedIPs + "\n" +
                                     ipn + "addr add " + tunnelAddress + "/32 dev " + interfaceName + "\n" +
                                     ipn + "link set " + interfaceName + " up\n" +
                                     ipn + "route add " + routeTo + " dev " + interfaceName + "\n");
    return result.exitStatus == 0 ? "" : "peer wireguard: " + result.output;
}

ShellResult PeerNamespace::exec(const std::string& command) const {
    return shell("ip netns exec " + options_.name + " " + command);
}

pid_t PeerNamespace::wireGuardPid() const { return wireGuard_ ? wireGuard_->pid() : -1; }

std::vector<pid_t> processesNamed(const std::string& name) {
    std::vector<pid_t> found;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator("/proc", error)) {
        const std::string pid = entry.path().filename().string();
        if (pid.find_first_not_of("0123456789") != std::string::npos) continue;
        if (trimmedTrailingNewlines(readWholeFile(entry.path().string() + "/comm")) == name) {
            found.push_back(static_cast<pid_t>(std::stol(pid)));
        }
    }
    return found;
}

std::vector<pid_t> zombieProcesses() {
    std::vector<pid_t> found;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator("/proc", error)) {
        const std::string pid = entry.path().filename().string();
        if (pid.find_first_not_of("0123456789") != std::string::npos) continue;
        const std::string stat = readWholeFile(entry.path().string() + "/stat");
        const auto close = stat.rfind(')');
        if (close != std::string::npos && close + 2 < stat.size() && stat[close + 2] == 'Z') {
            found.push_back(static_cast<pid_t>(std::stol(pid)));
        }
    }
    return found;
}

bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        if (condition()) return true;
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

bool waitForFile(const std::string& path, std::chrono::milliseconds timeout) {
    return eventually([&] { return std::filesystem::exists(path); }, timeout);
}

}  // namespace korvo::test
