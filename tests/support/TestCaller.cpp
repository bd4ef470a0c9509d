// A client of the helper for the tests of who may call it. They install
// copies of it as the client application is installed (signed, root:korvo
// 2755) and in the forms the helper must refuse.
//
//   call ADDRESS OPERATION [KEY=VALUE ...]
//       sends one request with string arguments (KEY:b=true and KEY:x=5 send
//       a boolean and a 64-bit integer); prints "reply [KEY ...]" or
//       "error NAME: MESSAGE".
//   wait
//       waits until its standard input ends.
//   share ADDRESS CLIENT OPERATION [KEY=VALUE ...]
//       connects to the bus and forks; the connecting process executes
//       "CLIENT wait" with the bus socket left open, and once it has, the
//       other process speaks on that socket and sends the request as "call".
//
// ADDRESS is given on the command line: a setgid program ignores
// DBUS_SYSTEM_BUS_ADDRESS.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <systemd/sd-bus.h>

namespace {

constexpr const char* kService = "com.tallowmar.korvo.utility";
constexpr const char* kPath = "/com/tallowmar/korvo/utility";
constexpr const char* kInterface = "com.tallowmar.korvo.utility.KorvoHelperToolProtocol";
constexpr std::uint64_t kTimeout = 120'000'000;  // microseconds

int fail(const char* what, int error) {
    std::fprintf(stderr, "%s: %s\n", what, std::strerror(error < 0 ? -error : error));
    return 2;
}

sd_bus_message* request(sd_bus* bus, const char* operation, const std::vector<std::pair<std::string, std::string>>& arguments) {
    sd_bus_message* m = nullptr;
    if (sd_bus_message_new_method_call(bus, &m, kService, kPath, kInterface, operation) < 0 ||
        sd_bus_message_open_container(m, 'a', "{sv}") < 0) {
        return nullptr;
    }
    for (const auto& [key, value] : arguments) {
        // KEY:b and KEY:x send a boolean ("true") or a 64-bit integer.
        const auto colon = key.rfind(':');
        const std::string name = key.substr(0, colon);
        const std::string type = colon == std::string::npos ? "s" : key.substr(colon + 1);
        int r = -EINVAL;
        if (type == "s") {
            r = sd_bus_message_append(m, "{sv}", name.c_str(), "s", value.c_str());
        } else if (type == "b") {
            r = sd_bus_message_append(m, "{sv}", name.c_str(), "b", static_cast<int>(value == "true"));
        } else if (type == "x") {
            r = sd_bus_message_append(m, "{sv}", name.c_str(), "x", static_cast<std::int64_t>(std::atoll(value.c_str())));
        }
        if (r < 0) return sd_bus_message_unref(m);
    }
    if (sd_bus_message_close_container(m) < 0) return sd_bus_message_unref(m);
    return m;
}

std::string errorText(const sd_bus_error& error) {
    return std::string("error ") + (error.name ? error.name : "?") + ": " + (error.message ? error.message : "");
}

std::string answerOf(sd_bus_message* reply) {
    if (const sd_bus_error* error = sd_bus_message_get_error(reply)) return errorText(*error);
    std::string text = "reply";
    if (sd_bus_message_enter_container(reply, 'a', "{sv}") < 0) return text + " (not a{sv})";
    while (sd_bus_message_enter_container(reply, 'e', "sv") > 0) {
        const char* key = nullptr;
        sd_bus_message_read(reply, "s", &key);
        text += std::string(" ") + key;
        sd_bus_message_skip(reply, "v");
        sd_bus_message_exit_container(reply);
    }
    return text;
}

int call(sd_bus* bus, int argc, char** argv) {
    std::vector<std::pair<std::string, std::string>> arguments;
    for (int i = 1; i < argc; ++i) {
        const char* equals = std::strchr(argv[i], '=');
        if (equals == nullptr) return fail(argv[i], EINVAL);
        arguments.emplace_back(std::string(argv[i], static_cast<std::size_t>(equals - argv[i])), equals + 1);
    }
    sd_bus_message* m = request(bus, argv[0], arguments);
    if (m == nullptr) return fail("message", ENOMEM);
    sd_bus_message* reply = nullptr;
    sd_bus_error error = SD_BUS_ERROR_NULL;
    const int r = sd_bus_call(bus, m, kTimeout, &error, &reply);
    std::printf("%s\n", r < 0 ? errorText(error).c_str() : answerOf(reply).c_str());
    sd_bus_error_free(&error);
    sd_bus_message_unref(reply);
    sd_bus_message_unref(m);
    return r < 0 ? 1 : 0;
}

sd_bus* openBus(const char* address, int fd) {
    sd_bus* bus = nullptr;
    if (sd_bus_new(&bus) < 0) return nullptr;
    const int r = fd >= 0 ? sd_bus_set_fd(bus, fd, fd) : sd_bus_set_address(bus, address);
    if (r < 0 || sd_bus_set_bus_client(bus, 1) < 0 || sd_bus_start(bus) < 0) return sd_bus_unref(bus);
    return bus;
}

int share(int argc, char** argv) {
    std::string path = argv[0];
    if (path.rfind("unix:path=", 0) != 0) return fail(argv[0], EINVAL);
    path = path.substr(10, path.find(',') - 10);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (socket < 0 || ::connect(socket, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        return fail("connect", errno);
    }
    int executed[2], hold[2];
    if (::pipe2(executed, O_CLOEXEC) != 0 || ::pipe2(hold, O_CLOEXEC) != 0) return fail("pipe", errno);
    const pid_t pid = ::fork();
    if (pid < 0) return fail("fork", errno);
    if (pid > 0) {
        // The process the bus knows as the connection's becomes the client.
        ::dup2(hold[0], STDIN_FILENO);
        ::fcntl(socket, F_SETFD, 0);
        ::execl(argv[1], argv[1], "wait", static_cast<char*>(nullptr));
        std::_Exit(fail(argv[1], errno));
    }
    ::close(executed[1]);
    ::close(hold[0]);
    char byte;
    while (::read(executed[0], &byte, 1) > 0) {
    }
    sd_bus* bus = openBus(nullptr, socket);
    if (bus == nullptr) return fail("bus on the shared socket", EPROTO);
    const int status = call(bus, argc - 2, argv + 2);
    sd_bus_flush_close_unref(bus);
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "wait" && argc == 2) {
        char buffer[256];
        while (::read(STDIN_FILENO, buffer, sizeof buffer) > 0) {
        }
        return 0;
    }
    if (mode == "share" && argc >= 5) return share(argc - 2, argv + 2);
    if (mode == "call" && argc >= 4) {
        sd_bus* bus = openBus(argv[2], -1);
        if (bus == nullptr) return fail(argv[2], ECONNREFUSED);
        const int status = call(bus, argc - 3, argv + 3);
        sd_bus_flush_close_unref(bus);
        return status;
    }
    std::fprintf(stderr,
                 "usage: %s call ADDRESS OPERATION [KEY=VALUE ...] | wait | share ADDRESS CLIENT OPERATION [KEY=VALUE ...]\n",
                 argv[0]);
    return 2;
}
