#include "WireGuardTestNetwork.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
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

constexpr const char* kNamespace = "korvo-peer";

std::string withoutTrailingNewlines(std::string text) {
    while (!text.empty() && text.back() == '\n') text.pop_back();
    return text;
}

std::string readWholeFile(const std::string& path) {
    std::ostringstream out;
    out << std::ifstream(path, std::ios::binary).rdbuf();
    return out.str();
}

// Identifiers of the processes whose /proc/PID/FILE satisfies the test.
std::vector<pid_t> processesWhere(const char* file, const std::function<bool(const std::string&)>& test) {
    std::vector<pid_t> found;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator("/proc", error)) {
        const std::string pid = entry.path().filename().string();
        if (pid.find_first_not_of("0123456789") != std::string::npos) continue;
        if (test(readWholeFile(entry.path().string() + "/" + file))) found.push_back(std::stoi(pid));
    }
    return found;
}

}  // namespace

ShellResult shell(const std::string& command) {
    ShellResult result;
    FILE* pipe = popen(("exec 2>&1; " + command).c_str(), "r");
    if (!pipe) return result;
    char buffer[4096];
    for (size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) result.output.append(buffer, n);
    const int status = pclose(pipe);
    result.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

bool runningIsolated() {
    const char* flag = std::getenv("KORVO_ISOLATED");
    // PID 1 of our PID namespace is the isolating shell, not the machine's init.
    return flag && std::string(flag) == "1" && readWholeFile("/proc/1/cmdline").find("isolated") != std::string::npos;
}

KeyPair generateKeyPair() {
    KeyPair keys;
    keys.privateKey = withoutTrailingNewlines(shell("wg genkey").output);
    keys.publicKey = withoutTrailingNewlines(shell("echo '" + keys.privateKey + "' | wg pubkey").output);
    return keys;
}

BindMount::BindMount(const std::string& source, const std::string& target) : target_(target) {
    if (!runningIsolated()) return;
    std::error_code ignored;
    if (std::filesystem::is_directory(source)) std::filesystem::create_directories(target, ignored);
    mounted_ = mount(source.c_str(), target.c_str(), nullptr, MS_BIND, nullptr) == 0;
}

BindMount::~BindMount() {
    if (mounted_) umount2(target_.c_str(), MNT_DETACH);
}

PeerNamespace::~PeerNamespace() {
    if (wireGuard_) {
        wireGuard_->sendSignal(SIGINT);
        if (!wireGuard_->waitForExit(3.0)) wireGuard_->sendSignal(SIGKILL);
    }
    if (created_) shell(std::string("ip netns del ") + kNamespace);
}

std::string PeerNamespace::create() {
    if (!runningIsolated()) return "not inside tests/support/isolated";
    created_ = true;
    const std::string ipn = std::string("ip -n ") + kNamespace + " ";
    const ShellResult result = shell(
        std::string("set -e\nip netns add ") + kNamespace + "\nip link add kveth0 type veth peer name kveth1 netns " +
        kNamespace + "\nip addr add 192.168.77.1/24 dev kveth0\nip link set kveth0 up\n" + ipn + "link set lo up\n" +
        ipn + "addr add " + kPeerAddress + "/24 dev kveth1\n" + ipn + "link set kveth1 up\n");
    return result.exitStatus == 0 ? "" : "peer namespace: " + result.output;
}

std::string PeerNamespace::startWireGuard(const std::string& interfaceName, const KeyPair& keys, int listenPort,
                                          const std::string& helperPublicKey, const std::string& workDirectory) {
    std::map<std::string, std::string> environment;
    for (char** entry = environ; *entry; ++entry) {
        const std::string text = *entry;
        if (const auto equals = text.find('='); equals != std::string::npos)
            environment[text.substr(0, equals)] = text.substr(equals + 1);
    }
    environment["WG_PROCESS_FOREGROUND"] = "1";
    const std::string logPath = workDirectory + "/peer-wireguard-go.log";
    const int log = ::open(logPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    ChildProcess::Options launch;
    launch.executable = "/bin/ip";
    launch.arguments = {"netns", "exec", kNamespace, "/usr/bin/wireguard-go", interfaceName};
    launch.environment = environment;
    launch.standardOutput = launch.standardError = log;
    int launchError = 0;
    wireGuard_ = ChildProcess::launch(launch, &launchError);
    if (log >= 0) ::close(log);
    if (!wireGuard_) return "peer wireguard-go not started: " + std::to_string(launchError);
    const std::string socket = "/var/run/wireguard/" + interfaceName + ".sock";
    if (!eventually([&] { return std::filesystem::exists(socket); })) {
        return "peer wireguard-go made no control socket: " + readWholeFile(logPath);
    }

    const std::string keyPath = workDirectory + "/peer.key";
    std::ofstream(keyPath) << keys.privateKey << "\n";
    const std::string ipn = std::string("ip -n ") + kNamespace + " ";
    const ShellResult result =
        shell("set -e\nwg set " + interfaceName + " listen-port " + std::to_string(listenPort) + " private-key " +
              keyPath + " peer " + helperPublicKey + " allowed-ips 10.77.0.2/32\n" + ipn +
              "addr add 10.77.0.1/32 dev " + interfaceName + "\n" + ipn + "link set " + interfaceName + " up\n" + ipn +
              "route add 10.77.0.2/32 dev " + interfaceName + "\n");
    return result.exitStatus == 0 ? "" : "peer wireguard: " + result.output;
}

ShellResult PeerNamespace::exec(const std::string& command) const {
    return shell(std::string("ip netns exec ") + kNamespace + " " + command);
}

std::vector<pid_t> processesNamed(const std::string& name) {
    return processesWhere("comm", [&](const std::string& comm) { return withoutTrailingNewlines(comm) == name; });
}

std::vector<pid_t> zombieProcesses() {
    return processesWhere("stat", [](const std::string& stat) {
        const auto close = stat.rfind(')');
        return close != std::string::npos && close + 2 < stat.size() && stat[close + 2] == 'Z';
    });
}

bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

}  // namespace korvo::test
