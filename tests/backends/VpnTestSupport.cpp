#include "VpnTestSupport.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace korvo::test {

CommandOutput runCommand(const std::string& command) {
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
    CommandOutput result;
    char buffer[4096];
    ssize_t n;
    while ((n = ::read(readEnd.get(), buffer, sizeof buffer)) > 0) result.output.append(buffer, static_cast<std::size_t>(n));
    result.status = child->waitUntilExit();
    return result;
}

bool runningIsolated() {
    const char* flag = std::getenv("KORVO_ISOLATED");
    return flag && std::string(flag) == "1";
}

TestDirectory::TestDirectory() {
    char dirTemplate[] = "/tmp/korvo-vpn-XXXXXX";
    if (::mkdtemp(dirTemplate)) path_ = dirTemplate;
    ::chmod(path_.c_str(), 0755);
}

TestDirectory::~TestDirectory() {
    std::error_code ignored;
    if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
}

std::string TestDirectory::write(const std::string& name, const std::string& text) const {
    const std::string path = file(name);
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
    return path;
}

PeerNamespace::PeerNamespace(std::string name, std::string hostAddress, std::string peerAddress)
    : name_(std::move(name)), hostAddress_(std::move(hostAddress)), peerAddress_(std::move(peerAddress)) {
    if (!runningIsolated()) return;
    const std::string hostLink = "vh-" + name_;
    const std::string peerLink = "vp-" + name_;
    const auto setup = runCommand("set -e; ip netns add " + name_ + "; ip -n " + name_ + " link set lo up; " +
                                  "ip link add " + hostLink + " type veth peer name " + peerLink + " netns " + name_ +
                                  "; ip addr add " + hostAddress_ + "/24 dev " + hostLink + "; ip link set " +
                                  hostLink + " up; ip -n " + name_ + " addr add " + peerAddress_ + "/24 dev " +
                                  peerLink + "; ip -n " + name_ + " link set " + peerLink + " up");
    ok_ = setup.status == 0;
}

PeerNamespace::~PeerNamespace() {
    if (runningIsolated()) runCommand("ip link del vh-" + name_ + " 2>/dev/null; ip netns del " + name_ + " 2>/dev/null");
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

BackgroundProgram::BackgroundProgram(const std::string& netns, std::vector<std::string> argv, std::string logPath)
    : logPath_(std::move(logPath)) {
    UniqueFd log(::open(logPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    ChildProcess::Options options;
    options.executable = "/usr/sbin/ip";
    options.arguments = {"netns", "exec", netns};
    options.arguments.insert(options.arguments.end(), argv.begin(), argv.end());
    options.standardOutput = log.get();
    options.standardError = log.get();
    int error = 0;
    child_ = ChildProcess::launch(options, &error);
}

BackgroundProgram::~BackgroundProgram() {
    if (!child_) return;
    child_->terminate();
    if (!child_->waitForExit(5.0)) {
        child_->sendSignal(SIGKILL);
        child_->waitUntilExit();
    }
}

std::string BackgroundProgram::log() const {
    std::ifstream in(logPath_);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

ComPort::ComPort() : listener_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)), stop_(::eventfd(0, EFD_CLOEXEC)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (::bind(listener_.get(), reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        ::listen(listener_.get(), 1) != 0 ||
        ::getsockname(listener_.get(), reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        return;
    }
    port_ = ntohs(address.sin_port);
    reader_ = std::thread([this] {
        pollfd waitAccept[2] = {{listener_.get(), POLLIN, 0}, {stop_.get(), POLLIN, 0}};
        if (::poll(waitAccept, 2, -1) <= 0 || waitAccept[1].revents) return;
        UniqueFd connection(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (!connection) return;
        {
            std::lock_guard lock(mutex_);
            connected_ = true;
        }
        char buffer[4096];
        for (;;) {
            pollfd waitData[2] = {{connection.get(), POLLIN, 0}, {stop_.get(), POLLIN, 0}};
            if (::poll(waitData, 2, -1) <= 0 || waitData[1].revents) return;
            const ssize_t n = ::read(connection.get(), buffer, sizeof buffer);
            if (n <= 0) return;
            {
                std::lock_guard lock(mutex_);
                text_.append(buffer, static_cast<std::size_t>(n));
            }
            changed_.notify_all();
        }
    });
}

ComPort::~ComPort() {
    const std::uint64_t one = 1;
    if (::write(stop_.get(), &one, sizeof one) != sizeof one) return;
    if (reader_.joinable()) reader_.join();
}

bool ComPort::waitFor(const std::string& needle, std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return text_.find(needle) != std::string::npos; });
}

bool ComPort::connected() const {
    std::lock_guard lock(mutex_);
    return connected_;
}

std::string ComPort::text() const {
    std::lock_guard lock(mutex_);
    return text_;
}

namespace {

// Every process, with the text after "(comm) " of its /proc/PID/stat.
std::vector<std::pair<pid_t, std::string>> allProcesses() {
    std::vector<std::pair<pid_t, std::string>> found;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator("/proc", error)) {
        const std::string name = entry.path().filename();
        if (name.find_first_not_of("0123456789") != std::string::npos) continue;
        std::ifstream stat(entry.path() / "stat");
        std::string line;
        if (std::getline(stat, line) && line.rfind(')') != std::string::npos) {
            found.emplace_back(std::stoi(name), line.substr(line.rfind(')') + 2));
        }
    }
    return found;
}

}  // namespace

std::vector<pid_t> zombieChildrenOf(pid_t parent) {
    std::vector<pid_t> zombies;
    for (const auto& [pid, stat] : allProcesses()) {
        char state = 0;
        pid_t ppid = 0;
        std::istringstream(stat) >> state >> ppid;
        if (ppid == parent && state == 'Z') zombies.push_back(pid);
    }
    return zombies;
}

std::vector<pid_t> processesRunningFrom(const std::string& directory) {
    std::vector<pid_t> found;
    for (const auto& [pid, stat] : allProcesses()) {
        std::error_code error;
        const auto exe = std::filesystem::read_symlink("/proc/" + std::to_string(pid) + "/exe", error).string();
        if (!error && exe.rfind(directory + "/", 0) == 0) found.push_back(pid);
    }
    return found;
}

std::vector<std::string> commandLineOf(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/cmdline", std::ios::binary);
    std::vector<std::string> argv;
    for (std::string arg; std::getline(in, arg, '\0');) argv.push_back(arg);
    return argv;
}

bool waitUntilGone(pid_t pid, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        if (::kill(pid, 0) != 0 && errno == ESRCH) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
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
    const std::string description = error ? stringForKey(*error, "description").value_or("") : "";
    const auto split = description.find("\n\n");
    return split == std::string::npos ? description : description.substr(split + 2);
}

std::int64_t pidOf(const Dictionary& reply) {
    const auto it = reply.find("pid");
    return it == reply.end() ? 0 : it->second.integerValue().value_or(0);
}

}  // namespace korvo::test
