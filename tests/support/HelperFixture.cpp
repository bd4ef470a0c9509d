#include "support/HelperFixture.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <thread>

#include <sdbus-c++/sdbus-c++.h>

#include "KorvoClient.h"
#include "process/ChildProcess.h"
#include "support/TestSupport.h"
#include "util/UniqueFd.h"

namespace korvo::test {
namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kHelperBusName = "com.tallowmar.korvo.utility";

// A fixed environment plus the additions: neither the bus, the helper nor
// a client sees the caller's (XDG_DATA_DIRS, TMPDIR, HOME would change what
// the helper finds).
std::map<std::string, std::string> environmentWith(const std::map<std::string, std::string>& additions) {
    std::map<std::string, std::string> env = {{"PATH", "/usr/sbin:/usr/bin:/sbin:/bin"}, {"LANG", "C"}};
    for (const auto& [key, value] : additions) env[key] = value;
    return env;
}

// Starts argv with its standard output and error on outFd and errFd (-1:
// /dev/null) and the given environment; nullptr when it could not be started.
std::shared_ptr<ChildProcess> spawn(const std::vector<std::string>& argv, const std::map<std::string, std::string>& env,
                                    int outFd, int errFd) {
    const UniqueFd null(::open("/dev/null", O_RDWR | O_CLOEXEC));
    ChildProcess::Options options;
    options.executable = argv[0];
    options.arguments.assign(argv.begin() + 1, argv.end());
    options.environment = env;
    options.standardInput = null.get();
    options.standardOutput = outFd >= 0 ? outFd : null.get();
    options.standardError = errFd >= 0 ? errFd : null.get();
    int error = 0;
    return ChildProcess::launch(options, &error);
}

// The exit status, -1 when a signal ended the child, nullopt at the timeout.
std::optional<int> waitForExit(ChildProcess& child, std::chrono::milliseconds timeout) {
    if (!child.waitForExit(static_cast<double>(timeout.count()) / 1000.0)) return std::nullopt;
    return child.terminatedBySignal() ? -1 : child.terminationStatus().value_or(-1);
}

// Both ends of a new pipe, close-on-exec.
std::pair<UniqueFd, UniqueFd> makePipe() {
    int fds[2] = {-1, -1};
    if (::pipe2(fds, O_CLOEXEC) != 0) return {};
    return {UniqueFd(fds[0]), UniqueFd(fds[1])};
}

std::string busConfiguration(const std::string& socketPath, HelperFixture::Options::BusPolicy policy,
                             const std::string& extraPolicy) {
    const std::string helperPolicy =
        policy == HelperFixture::Options::BusPolicy::Open
            ? std::string("  <policy user=\"root\">\n"
                          "    <allow own=\"") + kHelperBusName + "\"/>\n"
                          "  </policy>\n"
                          "  <policy context=\"default\">\n"
                          "    <allow send_destination=\"" + kHelperBusName + "\"/>\n"
                          "  </policy>\n"
            : "  <include ignore_missing=\"no\">" KORVO_BUS_POLICY_FILE "</include>\n";
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
           "  </policy>\n" +
           helperPolicy + extraPolicy + "</busconfig>\n";
}

// Writes a copy of /etc/group with a group "korvo" of an unused gid (below
// 1000) and no members to copyPath and mounts it over /etc/group, only inside
// tests/support/isolated, whose mount namespace keeps it from the machine.
std::unique_ptr<BindMount> mountGroupFileWithKorvo(const std::filesystem::path& copyPath, gid_t& gid) {
    std::set<gid_t> used;
    std::string kept;
    for (const auto& [file, gidField] : {std::pair<const char*, int>{"/etc/group", 2}, {"/etc/passwd", 3}}) {
        std::ifstream in(file);
        for (std::string line; std::getline(in, line);) {
            std::vector<std::string> fields;
            std::istringstream split(line);
            for (std::string field; std::getline(split, field, ':');) fields.push_back(field);
            if (static_cast<int>(fields.size()) > gidField) used.insert(static_cast<gid_t>(std::atol(fields[gidField].c_str())));
            if (std::string(file) == "/etc/group" && !fields.empty() && fields[0] != "korvo") kept += line + "\n";
        }
    }
    for (gid = 999; gid > 100 && used.count(gid) != 0;) --gid;
    std::ofstream(copyPath) << kept << "korvo:x:" << gid << ":\n";
    ::chmod(copyPath.c_str(), 0644);
    return std::make_unique<BindMount>(copyPath.string(), "/etc/group");
}

// Runs argv with the bus's address and the environment additions, its output
// collected in files in directory.
CommandResult runCommand(const std::filesystem::path& directory, const std::string& busAddress,
                         const std::vector<std::string>& argv, std::map<std::string, std::string> environment,
                         std::chrono::milliseconds timeout) {
    static std::atomic<int> runs{0};
    const std::string base = (directory / ("client" + std::to_string(runs++))).string();
    const auto open = [](const std::string& path) {
        return UniqueFd(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    };
    CommandResult result;
    environment["DBUS_SYSTEM_BUS_ADDRESS"] = busAddress;
    const auto child = spawn(argv, environmentWith(environment), open(base + ".out").get(), open(base + ".err").get());
    if (!child) return result;
    if (!child->waitForExit(static_cast<double>(timeout.count()) / 1000.0)) child->sendSignal(SIGKILL);
    result.exitStatus = waitForExit(*child, std::chrono::seconds(10)).value_or(-1);
    result.standardOutput = fileText(base + ".out");
    result.standardError = fileText(base + ".err");
    return result;
}

}  // namespace

struct HelperFixture::State {
    Options options;
    std::unique_ptr<TempDir> workDirectory;
    std::filesystem::path directory;
    std::string busAddress;
    std::shared_ptr<ChildProcess> bus, helper;
    std::optional<int> helperExitStatus;
    gid_t korvoGroupId = static_cast<gid_t>(-1);
    std::unique_ptr<BindMount> groupFile;
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

std::string HelperFixture::korvoctlPath() { return KORVOCTL_BINARY_PATH; }
std::string HelperFixture::signedCallerPath() { return KORVO_TEST_CALLER_PATH; }
std::string HelperFixture::unsignedCallerPath() { return KORVO_TEST_CALLER_UNSIGNED_PATH; }
std::string HelperFixture::payloadLibraryPath() { return KORVO_TEST_PAYLOAD_PATH; }

std::string HelperFixture::installProgram(const std::string& source, const std::string& destination, gid_t group,
                                          mode_t mode, off_t extendTo) {
    namespace fs = std::filesystem;
    fs::create_directories(fs::path(destination).parent_path());
    fs::copy_file(source, destination, fs::copy_options::overwrite_existing);
    if (static_cast<std::uintmax_t>(extendTo) > fs::file_size(destination) && ::truncate(destination.c_str(), extendTo) != 0) {
        throw std::runtime_error("truncate " + destination + ": " + std::strerror(errno));
    }
    // chown clears the setgid bit: the mode comes after it.
    if (::chown(destination.c_str(), 0, group) != 0 || ::chmod(destination.c_str(), mode) != 0) {
        throw std::runtime_error("chown/chmod " + destination + ": " + std::strerror(errno));
    }
    return destination;
}

std::optional<std::string> HelperFixture::start() {
    auto& s = *state_;
    // Clients run as nobody reach the bus's socket in here.
    s.workDirectory = std::make_unique<TempDir>("/tmp", 0711);
    s.directory = s.workDirectory->path();
    if (s.options.korvoGroup) {
        s.groupFile = mountGroupFileWithKorvo(s.directory / "group", s.korvoGroupId);
        if (!s.groupFile->ok()) return std::string("a group \"korvo\" is made only inside tests/support/isolated");
    }

    const auto configPath = s.directory / "bus.conf";
    std::ofstream(configPath) << busConfiguration((s.directory / "system_bus_socket").string(), s.options.busPolicy,
                                                   s.options.extraBusPolicy);

    // The bus prints its address once it is listening.
    auto [addressRead, addressWrite] = makePipe();
    s.bus = spawn({"/usr/bin/dbus-daemon", "--config-file=" + configPath.string(), "--nofork", "--nopidfile",
                   "--print-address"},
                  environmentWith({}), addressWrite.get(), -1);
    if (!s.bus) return std::string("cannot start dbus-daemon");
    addressWrite.reset();
    pollfd fd{addressRead.get(), POLLIN, 0};
    char buffer[512];
    const auto n = ::poll(&fd, 1, 10000) > 0 ? ::read(addressRead.get(), buffer, sizeof buffer - 1) : 0;
    if (n <= 0) return std::string("dbus-daemon printed no address");
    s.busAddress.assign(buffer, static_cast<std::size_t>(n));
    while (!s.busAddress.empty() && (s.busAddress.back() == '\n' || s.busAddress.back() == '\0')) s.busAddress.pop_back();
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", s.busAddress.c_str(), 1);
    if (!s.options.startHelper) return std::nullopt;

    auto [outputRead, outputWrite] = makePipe();
    auto env = s.options.environment;
    env["DBUS_SYSTEM_BUS_ADDRESS"] = s.busAddress;
    const std::string helperPath = s.options.helperPath.empty() ? KORVO_HELPER_BINARY_PATH : s.options.helperPath;
    s.helper = spawn({helperPath}, environmentWith(env), outputWrite.get(), outputWrite.get());
    if (!s.helper) return "cannot start " + helperPath;
    outputWrite.reset();
    s.logReader = std::thread([state = state_.get(), fd = std::move(outputRead)] {
        char chunk[4096];
        for (;;) {
            // Programs the helper started may hold the pipe open after the
            // helper has gone; stop() then ends the reading.
            pollfd p{fd.get(), POLLIN, 0};
            const int ready = ::poll(&p, 1, 100);
            if (ready < 0 && errno != EINTR) break;
            if (ready <= 0) {
                if (state->stopReading) break;
                continue;
            }
            const auto got = ::read(fd.get(), chunk, sizeof chunk);
            if (got < 0 && errno == EINTR) continue;
            if (got <= 0) break;
            std::lock_guard lock(state->logMutex);
            state->log.append(chunk, static_cast<std::size_t>(got));
            state->logGrew.notify_all();
        }
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

Dictionary HelperFixture::publishDns(const std::string& service, const std::string& server,
                                     const std::vector<std::string>& searchDomains, const std::string& interfaceName,
                                     const std::vector<std::string>& active) {
    std::vector<std::string> spared;
    for (const auto& other : active) spared.push_back("tx-" + other);
    const Dictionary request{{"identifier", "tx-" + service},
                             {"action", "reset-network"},
                             {"activeTransactionIdentifiers", strings(spared)}};
    if (auto reply = call("applyNetworkTransaction", {{"request", request}}); !reply.empty()) return reply;
    return call("updateNameServerAddresses", {{"nameServerAddresses", strings({server})},
                                              {"searchDomains", strings(searchDomains)},
                                              {"serviceIdentifier", service},
                                              {"interfaceName", interfaceName},
                                              {"IPv4Addresses", strings({"192.168.77.1"})},
                                              {"transactionIdentifier", "tx-" + service}});
}

std::string HelperFixture::helperLog() const {
    std::lock_guard lock(state_->logMutex);
    return state_->log;
}

bool HelperFixture::waitForLog(const std::string& text, std::chrono::milliseconds timeout,
                               std::size_t occurrences) const {
    std::unique_lock lock(state_->logMutex);
    return state_->logGrew.wait_for(lock, timeout, [&] { return test::occurrences(state_->log, text) >= occurrences; });
}

pid_t HelperFixture::helperPid() const { return state_->helper ? state_->helper->pid() : -1; }

std::string HelperFixture::busAddress() const { return state_->busAddress; }

CommandResult HelperFixture::runClient(const std::vector<std::string>& argv, std::chrono::milliseconds timeout) const {
    return runCommand(state_->directory, state_->busAddress, argv, {}, timeout);
}

CommandResult HelperFixture::runClientAsNobody(const std::vector<std::string>& argv,
                                               const std::map<std::string, std::string>& environment,
                                               std::chrono::milliseconds timeout) const {
    std::vector<std::string> command = {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "--"};
    command.insert(command.end(), argv.begin(), argv.end());
    return runCommand(state_->directory, state_->busAddress, command, environment, timeout);
}

gid_t HelperFixture::korvoGroupId() const { return state_->korvoGroupId; }

std::optional<int> HelperFixture::waitForHelperExit(std::chrono::milliseconds timeout) {
    auto& s = *state_;
    if (!s.helperExitStatus && s.helper) s.helperExitStatus = waitForExit(*s.helper, timeout);
    return s.helperExitStatus;
}

void HelperFixture::stop() {
    auto& s = *state_;
    s.client.reset();
    if (s.helper && !s.helperExitStatus) {
        endChild(s.helper);
        s.helperExitStatus = -1;
    }
    s.stopReading = true;
    if (s.logReader.joinable()) s.logReader.join();
    endChild(s.bus);
    s.bus.reset();
    s.groupFile.reset();
    s.workDirectory.reset();
    s.directory.clear();
}

}  // namespace korvo::test
