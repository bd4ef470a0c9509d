#include "support/TestSupport.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "util/Log.h"

extern char** environ;

namespace korvo::test {

namespace {

std::string withoutTrailingNewlines(std::string text) {
    while (!text.empty() && text.back() == '\n') text.pop_back();
    return text;
}

// The specific message of a helper error's description: after the code's
// own text and the blank line.
std::string specificMessage(const std::string& description) {
    const auto separator = description.find("\n\n");
    return separator == std::string::npos ? description : description.substr(separator + 2);
}

}  // namespace

std::string fileText(const std::string& path) {
    std::ostringstream out;
    out << std::ifstream(path, std::ios::binary).rdbuf();
    return out.str();
}

std::size_t occurrences(const std::string& text, const std::string& needle) {
    std::size_t count = 0;
    for (auto at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) ++count;
    return count;
}

Array strings(const std::vector<std::string>& items) { return Array(items.begin(), items.end()); }

void endChild(const std::shared_ptr<ChildProcess>& child, int signal) {
    if (!child) return;
    child->sendSignal(signal);
    if (!child->waitForExit(5.0)) {
        child->sendSignal(SIGKILL);
        child->waitUntilExit();
    }
}

ShellResult shell(const std::string& command) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) return {};
    UniqueFd readEnd(fds[0]);
    UniqueFd writeEnd(fds[1]);
    ChildProcess::Options options;
    options.executable = "/bin/sh";
    options.arguments = {"-c", command};
    options.standardOutput = writeEnd.get();
    options.standardError = writeEnd.get();
    int error = 0;
    auto child = ChildProcess::launch(options, &error);
    writeEnd.reset();
    if (!child) return {};
    ShellResult result;
    char buffer[4096];
    ssize_t n;
    while ((n = ::read(readEnd.get(), buffer, sizeof buffer)) > 0) result.output.append(buffer, static_cast<std::size_t>(n));
    result.exitStatus = child->waitUntilExit();
    return result;
}

bool runningIsolated() {
    const char* flag = std::getenv("KORVO_ISOLATED");
    // PID 1 of our PID namespace is the isolating shell, not the machine's init.
    return flag && std::string(flag) == "1" && fileText("/proc/1/cmdline").find("isolated") != std::string::npos;
}

TempDir::TempDir(const std::string& base, mode_t mode) {
    std::string pattern = base + "/korvo-test-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp in " + base);
    path_ = pattern;
    ::chmod(path_.c_str(), mode);
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string TempDir::write(const std::string& name, const std::string& text) const {
    const std::string path = file(name);
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
    return path;
}

ComPortListener::ComPortListener()
    : listener_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)), stop_(::eventfd(0, EFD_CLOEXEC)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (::bind(listener_.get(), reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        ::listen(listener_.get(), 4) != 0 ||
        ::getsockname(listener_.get(), reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        return;
    }
    port_ = ntohs(address.sin_port);
    reader_ = std::thread([this] {
        pollfd waitAccept[2] = {{listener_.get(), POLLIN, 0}, {stop_.get(), POLLIN, 0}};
        if (::poll(waitAccept, 2, -1) <= 0 || waitAccept[1].revents) return;
        UniqueFd connection(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (!connection) return;
        const int fd = connection.get();
        {
            std::lock_guard lock(mutex_);
            connection_ = std::move(connection);
            connected_ = true;
        }
        changed_.notify_all();
        char buffer[4096];
        for (;;) {
            pollfd waitData[2] = {{fd, POLLIN, 0}, {stop_.get(), POLLIN, 0}};
            if (::poll(waitData, 2, -1) <= 0 || waitData[1].revents) return;
            const ssize_t n = ::read(fd, buffer, sizeof buffer);
            {
                std::lock_guard lock(mutex_);
                if (n <= 0) ended_ = true;
                else text_.append(buffer, static_cast<std::size_t>(n));
            }
            changed_.notify_all();
            if (n <= 0) return;
        }
    });
}

ComPortListener::~ComPortListener() {
    const std::uint64_t one = 1;
    if (::write(stop_.get(), &one, sizeof one) != sizeof one) return;
    if (reader_.joinable()) reader_.join();
}

bool ComPortListener::connected(std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return connected_; });
}

bool ComPortListener::send(const std::string& text) {
    if (!connected(std::chrono::seconds(20))) return false;
    std::lock_guard lock(mutex_);
    return ::write(connection_.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

bool ComPortListener::waitFor(const std::string& needle, std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return text_.find(needle) != std::string::npos; });
}

bool ComPortListener::waitForEnd(std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return ended_; });
}

std::string ComPortListener::text() const {
    std::lock_guard lock(mutex_);
    return text_;
}

platform::CodeSignState FakeCodeSigning::codeSignStateForExecutable(const std::string& path) {
    const auto it = states.find(path);
    return it == states.end() ? platform::CodeSignState::Valid : it->second;
}

int FakeCodeSigning::checkExecutable(int fd, std::string_view requirementText) {
    requirement = requirementText;
    const auto state = codeSignStateForSystemExecutable(fd);
    if (duringCheck) duringCheck();
    return state == platform::CodeSignState::Valid ? 0 : platform::codesign_status::kRequirementFailed;
}

platform::CodeSignState FakeCodeSigning::codeSignStateForSystemExecutable(int fd) {
    std::error_code error;
    return codeSignStateForExecutable(std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd), error));
}

namespace {
struct FakeGuest : platform::GuestCode {
    explicit FakeGuest(pid_t p) : p_(p) {}
    pid_t pid() const override { return p_; }
    pid_t p_;
};
struct FakeRequirement : platform::CodeRequirement {};
}  // namespace

int FakeCodeSigning::copyGuestWithPid(pid_t pid, std::unique_ptr<platform::GuestCode>& guest) {
    lookedUp.push_back(pid);
    if (guestStatus == 0) guest = std::make_unique<FakeGuest>(pid);
    return guestStatus;
}

int FakeCodeSigning::createRequirement(std::string_view text, std::unique_ptr<platform::CodeRequirement>& made) {
    requirement = text;
    if (requirementStatus == 0) made = std::make_unique<FakeRequirement>();
    return requirementStatus;
}

int FakeCodeSigning::checkValidity(const platform::GuestCode&, const platform::CodeRequirement&) {
    return validityStatus;
}

LogCapture::LogCapture() {
    setLogSink([this](int priority, std::string_view line) {
        std::lock_guard lock(mutex_);
        lines_.emplace_back(priority, std::string(line));
    });
}

LogCapture::~LogCapture() { setLogSink(nullptr); }

std::vector<std::string> LogCapture::linesAt(std::optional<int> priority) const {
    std::lock_guard lock(mutex_);
    std::vector<std::string> out;
    for (const auto& [linePriority, line] : lines_) {
        if (!priority || linePriority == *priority) out.push_back(line);
    }
    return out;
}

std::vector<std::string> LogCapture::lines() const { return linesAt(std::nullopt); }

std::vector<std::string> LogCapture::errors() const { return linesAt(LOG_ERR); }

bool LogCapture::contains(const std::string& line) const {
    const auto all = lines();
    return std::find(all.begin(), all.end(), line) != all.end();
}

void LogCapture::clear() {
    std::lock_guard lock(mutex_);
    lines_.clear();
}

std::string errorMessage(const MaybeError& error) {
    return error ? specificMessage(error->localizedDescription().value_or("")) : "(no error)";
}

KeyPair generateKeyPair() {
    KeyPair keys;
    keys.privateKey = withoutTrailingNewlines(shell("wg genkey").output);
    keys.publicKey = withoutTrailingNewlines(shell("echo '" + keys.privateKey + "' | wg pubkey").output);
    return keys;
}

PeerNamespace::PeerNamespace(std::string name, std::string hostAddress, std::string peerAddress)
    : name_(std::move(name)), hostAddress_(std::move(hostAddress)), peerAddress_(std::move(peerAddress)) {
    if (!runningIsolated()) {
        problem_ = "not inside tests/support/isolated";
        return;
    }
    const std::string hostLink = "vh-" + name_;
    const std::string peerLink = "vp-" + name_;
    const auto setup = shell("set -e; ip netns add " + name_ + "; ip -n " + name_ + " link set lo up; " +
                             "ip link add " + hostLink + " type veth peer name " + peerLink + " netns " + name_ +
                             "; ip addr add " + hostAddress_ + "/24 dev " + hostLink + "; ip link set " + hostLink +
                             " up; ip -n " + name_ + " addr add " + peerAddress_ + "/24 dev " + peerLink +
                             "; ip -n " + name_ + " link set " + peerLink + " up");
    if (setup.exitStatus != 0) problem_ = "peer namespace: " + setup.output + " ";
}

PeerNamespace::~PeerNamespace() {
    wireGuard_.reset();
    if (runningIsolated()) shell("ip link del vh-" + name_ + " 2>/dev/null; ip netns del " + name_ + " 2>/dev/null");
}

UniqueFd PeerNamespace::socketInside(int type, int protocol) const {
    UniqueFd result;
    // Only the calling thread changes namespace; a socket keeps the one it
    // was made in.
    std::thread([&] {
        UniqueFd ns(::open(("/run/netns/" + name_).c_str(), O_RDONLY | O_CLOEXEC));
        if (ns && ::setns(ns.get(), CLONE_NEWNET) == 0) result.reset(::socket(AF_INET, type | SOCK_CLOEXEC, protocol));
    }).join();
    return result;
}

ShellResult PeerNamespace::exec(const std::string& command) const {
    return shell("ip netns exec " + name_ + " " + command);
}

std::string PeerNamespace::startWireGuard(const std::string& interfaceName, const KeyPair& keys, int listenPort,
                                          const std::string& helperPublicKey, const std::string& workDirectory) {
    wireGuard_ = std::make_unique<BackgroundProgram>(
        name_, std::vector<std::string>{"/usr/bin/wireguard-go", interfaceName}, workDirectory + "/peer-wireguard-go.log",
        std::map<std::string, std::string>{{"PATH", "/usr/sbin:/usr/bin:/sbin:/bin"}, {"WG_PROCESS_FOREGROUND", "1"}});
    const std::string socket = "/var/run/wireguard/" + interfaceName + ".sock";
    if (!eventually([&] { return std::filesystem::exists(socket); })) {
        return "peer wireguard-go made no control socket: " + wireGuard_->log();
    }
    const std::string keyPath = workDirectory + "/peer.key";
    std::ofstream(keyPath) << keys.privateKey << "\n";
    const std::string ipn = "ip -n " + name_ + " ";
    const ShellResult result =
        shell("set -e\nwg set " + interfaceName + " listen-port " + std::to_string(listenPort) + " private-key " +
              keyPath + " peer " + helperPublicKey + " allowed-ips 10.77.0.2/32\n" + ipn +
              "addr add 10.77.0.1/32 dev " + interfaceName + "\n" + ipn + "link set " + interfaceName + " up\n" + ipn +
              "route add 10.77.0.2/32 dev " + interfaceName + "\n");
    return result.exitStatus == 0 ? "" : "peer wireguard: " + result.output;
}

std::unique_ptr<BackgroundProgram> startDnsServer(const PeerNamespace& peer, const std::string& listenAddress,
                                                  const std::string& host, const std::string& hostAddress,
                                                  const std::string& domain, const std::string& logPath) {
    return std::make_unique<BackgroundProgram>(
        peer.name(),
        std::vector<std::string>{"/usr/sbin/dnsmasq", "-k", "--conf-file=/dev/null", "--no-resolv", "--no-hosts",
                                 "--bind-interfaces", "--listen-address=" + listenAddress,
                                 "--address=/" + host + "/" + hostAddress, "--local=/" + domain + "/",
                                 "--pid-file=/run/dnsmasq-" + listenAddress + ".pid", "--log-facility=-"},
        logPath);
}

std::string lookUpHost(const std::string& name) {
    const auto result = shell("getent hosts " + name);
    if (result.exitStatus != 0) return "";
    return result.output.substr(0, result.output.find_first_of(" \t"));
}

BindMount::BindMount(const std::string& source, const std::string& target) : target_(target) {
    if (!runningIsolated()) return;
    std::error_code ignored;
    if (std::filesystem::is_directory(source)) std::filesystem::create_directories(target, ignored);
    mounted_ = ::mount(source.c_str(), target.c_str(), nullptr, MS_BIND, nullptr) == 0;
}

BindMount::~BindMount() {
    if (mounted_) ::umount2(target_.c_str(), MNT_DETACH);
}

OverlayMount::OverlayMount(const std::string& target) : target_(target) {
    if (!runningIsolated()) return;
    layers_ = std::make_unique<TempDir>();
    const std::string upper = layers_->file("upper");
    const std::string work = layers_->file("work");
    if (::mkdir(upper.c_str(), 0755) != 0 || ::mkdir(work.c_str(), 0755) != 0) return;
    const std::string options = "lowerdir=" + target + ",upperdir=" + upper + ",workdir=" + work;
    mounted_ = ::mount("overlay", target.c_str(), "overlay", 0, options.c_str()) == 0;
}

OverlayMount::~OverlayMount() {
    if (mounted_) ::umount2(target_.c_str(), MNT_DETACH);
}

BackgroundProgram::BackgroundProgram(const std::string& netns, std::vector<std::string> argv, std::string logPath,
                                     std::optional<std::map<std::string, std::string>> environment)
    : logPath_(std::move(logPath)) {
    UniqueFd log(::open(logPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    ChildProcess::Options options;
    if (netns.empty()) {
        options.executable = argv.at(0);
        options.arguments.assign(argv.begin() + 1, argv.end());
    } else {
        options.executable = "/usr/sbin/ip";
        options.arguments = {"netns", "exec", netns};
        options.arguments.insert(options.arguments.end(), argv.begin(), argv.end());
    }
    options.environment = std::move(environment);
    options.standardOutput = log.get();
    options.standardError = log.get();
    child_ = ChildProcess::launch(options, nullptr);
}

BackgroundProgram::~BackgroundProgram() { endChild(child_); }

std::string BackgroundProgram::log() const { return fileText(logPath_); }

namespace {

// The processes for which the test holds, given the fields of their
// /proc/PID/stat: the command name, the state and the parent.
std::vector<pid_t> processesWhere(const std::function<bool(pid_t, const std::string&, char, pid_t)>& test) {
    std::vector<pid_t> found;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator("/proc", error)) {
        const std::string name = entry.path().filename();
        if (name.find_first_not_of("0123456789") != std::string::npos) continue;
        const std::string line = fileText(entry.path() / "stat");
        const auto open = line.find('('), close = line.rfind(')');
        if (open == std::string::npos || close == std::string::npos) continue;
        char state = 0;
        pid_t parent = 0;
        std::istringstream(line.substr(close + 2)) >> state >> parent;
        const pid_t pid = std::stoi(name);
        if (test(pid, line.substr(open + 1, close - open - 1), state, parent)) found.push_back(pid);
    }
    return found;
}

}  // namespace

std::vector<pid_t> zombieChildrenOf(pid_t parent) {
    return processesWhere([&](pid_t, const std::string&, char state, pid_t ppid) { return state == 'Z' && ppid == parent; });
}

std::vector<pid_t> zombieProcesses() {
    return processesWhere([](pid_t, const std::string&, char state, pid_t) { return state == 'Z'; });
}

std::vector<pid_t> processesNamed(const std::string& name) {
    return processesWhere([&](pid_t, const std::string& command, char, pid_t) { return command == name; });
}

std::vector<pid_t> processesRunningFrom(const std::string& directory) {
    return processesWhere([&](pid_t pid, const std::string&, char, pid_t) {
        std::error_code error;
        const auto exe = std::filesystem::read_symlink("/proc/" + std::to_string(pid) + "/exe", error).string();
        return !error && exe.rfind(directory + "/", 0) == 0;
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

std::vector<std::string> commandLineOf(pid_t pid) {
    // A child started with vfork semantics lets its parent go on while the
    // kernel still builds its arguments: an empty line is read again.
    for (int attempt = 0; attempt < 100; ++attempt) {
        std::ifstream in("/proc/" + std::to_string(pid) + "/cmdline", std::ios::binary);
        std::vector<std::string> argv;
        for (std::string arg; std::getline(in, arg, '\0');) argv.push_back(arg);
        if (!argv.empty() || ::kill(pid, 0) != 0) return argv;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return {};
}

bool waitUntilGone(pid_t pid, std::chrono::milliseconds timeout) {
    return eventually([pid] { return ::kill(pid, 0) != 0 && errno == ESRCH; }, timeout);
}

namespace {
const Dictionary* errorOf(const Dictionary& reply) {
    const auto it = reply.find("error");
    return it == reply.end() ? nullptr : it->second.asDictionary();
}
}  // namespace

std::int64_t errorCodeOf(const Dictionary& reply) {
    const Dictionary* error = errorOf(reply);
    if (!error) return 0;
    const auto it = error->find("code");
    return it == error->end() ? 0 : it->second.integerValue().value_or(0);
}

std::string errorDomainOf(const Dictionary& reply) {
    const Dictionary* error = errorOf(reply);
    return error ? stringForKey(*error, "domain").value_or("") : "";
}

std::string errorMessageOf(const Dictionary& reply) {
    const Dictionary* error = errorOf(reply);
    return specificMessage(error ? stringForKey(*error, "description").value_or("") : "");
}

std::int64_t pidOf(const Dictionary& reply) {
    const auto it = reply.find("pid");
    return it == reply.end() ? 0 : it->second.integerValue().value_or(0);
}

}  // namespace korvo::test
