#include "support/HelperFixture.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <thread>

#include <sdbus-c++/sdbus-c++.h>

#include "KorvoClient.h"

extern char** environ;

namespace korvo::test {
namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kHelperBusName = "com.tallowmar.korvo.utility";

// A pipe whose ends close themselves.
struct Pipe {
    int read = -1;
    int write = -1;
    Pipe() {
        int fds[2];
        if (::pipe2(fds, O_CLOEXEC) == 0) {
            read = fds[0];
            write = fds[1];
        }
    }
    ~Pipe() {
        closeRead();
        closeWrite();
    }
    void closeRead() {
        if (read >= 0) ::close(read);
        read = -1;
    }
    void closeWrite() {
        if (write >= 0) ::close(write);
        write = -1;
    }
};

std::vector<std::string> environmentWith(const std::map<std::string, std::string>& additions) {
    std::vector<std::string> env;
    for (char** e = environ; *e != nullptr; ++e) {
        const std::string entry = *e;
        const auto key = entry.substr(0, entry.find('='));
        if (additions.count(key) == 0) env.push_back(entry);
    }
    for (const auto& [key, value] : additions) env.push_back(key + "=" + value);
    return env;
}

// Starts argv with its standard output and error on outFd and errFd (-1:
// /dev/null) and the given environment; -1 when it could not be started.
pid_t spawn(const std::vector<std::string>& argv, const std::vector<std::string>& env, int outFd, int errFd,
            int keepFd = -1) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    if (outFd >= 0) {
        posix_spawn_file_actions_adddup2(&actions, outFd, STDOUT_FILENO);
    } else {
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    }
    if (errFd >= 0) {
        posix_spawn_file_actions_adddup2(&actions, errFd, STDERR_FILENO);
    } else {
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    }
    // dup2 onto itself would keep close-on-exec; go through another number.
    if (keepFd >= 0) posix_spawn_file_actions_adddup2(&actions, keepFd, 3);

    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    std::vector<char*> envp;
    for (const auto& e : env) envp.push_back(const_cast<char*>(e.c_str()));
    envp.push_back(nullptr);

    pid_t pid = -1;
    const int rc = ::posix_spawn(&pid, args[0], &actions, nullptr, args.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    return rc == 0 ? pid : -1;
}

std::optional<int> waitForExit(pid_t pid, std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    for (;;) {
        int status = 0;
        const pid_t r = ::waitpid(pid, &status, WNOHANG);
        if (r == pid) return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        if (r < 0 && errno != EINTR) return -1;
        if (Clock::now() >= deadline) return std::nullopt;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

void endProcess(pid_t pid) {
    if (pid <= 0) return;
    ::kill(pid, SIGTERM);
    if (!waitForExit(pid, std::chrono::seconds(5))) {
        ::kill(pid, SIGKILL);
        waitForExit(pid, std::chrono::seconds(5));
    }
}

std::string busConfiguration(const std::string& socketPath) {
    return "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-BUS Bus Configuration 1.0//EN\"\n"
           " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
           "<busconfig>\n"
           "  <type>system</type>\n"
           "  <listen>unix:path=" + socketPath + "</listen>\n"
           "  <auth>EXTERNAL</auth>\n"
           "  <policy context=\"default\">\n"
           "    <allow user=\"*\"/>\n"
           "    <deny own=\"*\"/>\n"
           "    <deny send_type=\"method_call\"/>\n"
           "    <allow send_type=\"signal\"/>\n"
           "    <allow send_requested_reply=\"true\" send_type=\"method_return\"/>\n"
           "    <allow send_requested_reply=\"true\" send_type=\"error\"/>\n"
           "    <allow receive_type=\"method_call\"/>\n"
           "    <allow receive_type=\"method_return\"/>\n"
           "    <allow receive_type=\"error\"/>\n"
           "    <allow receive_type=\"signal\"/>\n"
           "    <allow send_destination=\"org.freedesktop.DBus\" send_interface=\"org.freedesktop.DBus\"/>\n"
           "    <allow send_destination=\"org.freedesktop.DBus\" "
           "send_interface=\"org.freedesktop.DBus.Introspectable\"/>\n"
           "  </policy>\n"
           "  <include ignore_missing=\"no\">" KORVO_BUS_POLICY_FILE "</include>\n"
           "</busconfig>\n";
}

}  // namespace

struct HelperFixture::State {
    Options options;
    std::filesystem::path directory;
    std::string busAddress;
    pid_t busPid = -1;
    pid_t helperPid = -1;
    std::optional<int> helperExitStatus;
    std::unique_ptr<KorvoClient> client;

    mutable std::mutex logMutex;
    mutable std::condition_variable logGrew;
    std::string log;
    std::thread logReader;
    std::atomic<bool> stopReading{false};
};

HelperFixture::HelperFixture() : HelperFixture(Options{}) {}

HelperFixture::HelperFixture(Options options) : state_(std::make_unique<State>()) {
    state_->options = std::move(options);
}

HelperFixture::~HelperFixture() { stop(); }

std::string HelperFixture::defaultHelperPath() { return KORVO_HELPER_BINARY_PATH; }
std::string HelperFixture::korvoctlPath() { return KORVOCTL_BINARY_PATH; }

std::optional<std::string> HelperFixture::start() {
    auto& s = *state_;
    char directoryTemplate[] = "/tmp/korvo-bus-XXXXXX";
    if (::mkdtemp(directoryTemplate) == nullptr) return std::string("mkdtemp: ") + std::strerror(errno);
    s.directory = directoryTemplate;

    const auto configPath = s.directory / "bus.conf";
    std::ofstream(configPath) << busConfiguration((s.directory / "system_bus_socket").string());

    // The bus writes its address to descriptor 3 once it is listening.
    Pipe address;
    s.busPid = spawn({"/usr/bin/dbus-daemon", "--config-file=" + configPath.string(), "--nofork", "--nopidfile",
                      "--print-address=3"},
                     environmentWith({}), -1, -1, address.write);
    if (s.busPid < 0) return std::string("cannot start dbus-daemon");
    address.closeWrite();
    pollfd fd{address.read, POLLIN, 0};
    if (::poll(&fd, 1, 10000) <= 0) return std::string("dbus-daemon printed no address");
    char buffer[512];
    const auto n = ::read(address.read, buffer, sizeof buffer - 1);
    if (n <= 0) return std::string("dbus-daemon printed no address");
    s.busAddress.assign(buffer, static_cast<std::size_t>(n));
    while (!s.busAddress.empty() && (s.busAddress.back() == '\n' || s.busAddress.back() == '\0')) s.busAddress.pop_back();
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", s.busAddress.c_str(), 1);
    if (!s.options.startHelper) return std::nullopt;

    Pipe output;
    auto env = s.options.environment;
    env["DBUS_SYSTEM_BUS_ADDRESS"] = s.busAddress;
    const std::string helperPath = s.options.helperPath.empty() ? defaultHelperPath() : s.options.helperPath;
    s.helperPid = spawn({helperPath}, environmentWith(env), output.write, output.write);
    if (s.helperPid < 0) return "cannot start " + helperPath;
    output.closeWrite();
    s.logReader = std::thread([state = state_.get(), fd = ::dup(output.read)] {
        char chunk[4096];
        for (;;) {
            // Programs the helper started may hold the pipe open after the
            // helper has gone; stop() then ends the reading.
            pollfd p{fd, POLLIN, 0};
            const int ready = ::poll(&p, 1, 100);
            if (ready < 0 && errno != EINTR) break;
            if (ready <= 0) {
                if (state->stopReading) break;
                continue;
            }
            const auto got = ::read(fd, chunk, sizeof chunk);
            if (got < 0 && errno == EINTR) continue;
            if (got <= 0) break;
            std::lock_guard lock(state->logMutex);
            state->log.append(chunk, static_cast<std::size_t>(got));
            state->logGrew.notify_all();
        }
        ::close(fd);
    });

    // Ready once the helper owns its name.
    try {
        auto connection = sdbus::createSessionBusConnectionWithAddress(s.busAddress);
        auto daemon = sdbus::createProxy(*connection, "org.freedesktop.DBus", "/org/freedesktop/DBus");
        const auto deadline = Clock::now() + std::chrono::seconds(15);
        for (;;) {
            bool owned = false;
            daemon->callMethod("NameHasOwner").onInterface("org.freedesktop.DBus").withArguments(std::string(kHelperBusName)).storeResultsTo(owned);
            if (owned) break;
            if (auto status = waitForHelperExit(std::chrono::milliseconds(0))) {
                return "the helper exited with status " + std::to_string(*status) + "; its log:\n" + helperLog();
            }
            if (Clock::now() >= deadline) return "the helper did not take its bus name; its log:\n" + helperLog();
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    } catch (const sdbus::Error& e) {
        return std::string("private bus: ") + e.what();
    }
    return std::nullopt;
}

Dictionary HelperFixture::call(const std::string& operation, const Dictionary& arguments,
                               std::chrono::milliseconds timeout) {
    auto& s = *state_;
    if (!s.client) s.client = std::make_unique<KorvoClient>(s.busAddress);
    auto outcome = s.client->call(operation, arguments, timeout);
    if (outcome.busError) return {{"busError", outcome.busError->name}, {"busMessage", outcome.busError->message}};
    return outcome.reply;
}

std::string HelperFixture::helperLog() const {
    std::lock_guard lock(state_->logMutex);
    return state_->log;
}

bool HelperFixture::waitForLog(const std::string& text, std::chrono::milliseconds timeout,
                               std::size_t occurrences) const {
    std::unique_lock lock(state_->logMutex);
    return state_->logGrew.wait_for(lock, timeout, [&] {
        std::size_t found = 0;
        for (auto at = state_->log.find(text); at != std::string::npos && found < occurrences;
             at = state_->log.find(text, at + 1)) {
            ++found;
        }
        return found >= occurrences;
    });
}

pid_t HelperFixture::helperPid() const { return state_->helperPid; }

std::string HelperFixture::busAddress() const { return state_->busAddress; }

CommandResult HelperFixture::runClient(const std::vector<std::string>& argv, std::chrono::milliseconds timeout) const {
    CommandResult result;
    Pipe out, err;
    const pid_t pid = spawn(argv, environmentWith({{"DBUS_SYSTEM_BUS_ADDRESS", state_->busAddress}}), out.write, err.write);
    out.closeWrite();
    err.closeWrite();
    if (pid < 0) return result;
    const auto deadline = Clock::now() + timeout;
    pollfd fds[2] = {{out.read, POLLIN, 0}, {err.read, POLLIN, 0}};
    int open = 2;
    while (open > 0) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left <= 0 || ::poll(fds, 2, static_cast<int>(left)) <= 0) {
            ::kill(pid, SIGKILL);
            break;
        }
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || fds[i].revents == 0) continue;
            char chunk[4096];
            const auto got = ::read(fds[i].fd, chunk, sizeof chunk);
            if (got <= 0) {
                fds[i].fd = -1;
                --open;
                continue;
            }
            (i == 0 ? result.standardOutput : result.standardError).append(chunk, static_cast<std::size_t>(got));
        }
    }
    result.exitStatus = waitForExit(pid, std::chrono::seconds(10)).value_or(-1);
    return result;
}

std::optional<int> HelperFixture::waitForHelperExit(std::chrono::milliseconds timeout) {
    auto& s = *state_;
    if (s.helperExitStatus) return s.helperExitStatus;
    if (s.helperPid <= 0) return std::nullopt;
    s.helperExitStatus = waitForExit(s.helperPid, timeout);
    return s.helperExitStatus;
}

void HelperFixture::stop() {
    auto& s = *state_;
    s.client.reset();
    if (s.helperPid > 0 && !s.helperExitStatus) {
        endProcess(s.helperPid);
        s.helperExitStatus = -1;
    }
    s.stopReading = true;
    if (s.logReader.joinable()) s.logReader.join();
    if (s.busPid > 0) endProcess(s.busPid);
    s.busPid = -1;
    if (!s.directory.empty()) {
        std::error_code ignored;
        std::filesystem::remove_all(s.directory, ignored);
        s.directory.clear();
    }
}

}  // namespace korvo::test
