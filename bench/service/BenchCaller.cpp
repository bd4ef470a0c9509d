// The refusal benchmark's own client of the helper (RefusalBench.cpp installs
// unsigned copies of it):
//
//   call ADDRESS OPERATION [KEY=VALUE ...]
//       sends one request with string arguments; prints "reply" or
//       "error NAME: MESSAGE", then "microseconds N" for the request alone.
//   flood ADDRESS OPERATION KEY COUNT BYTES
//       sends COUNT requests, each with KEY set to a string of BYTES bytes,
//       before it reads any answer; then prints each kind of answer with its
//       count.
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include <systemd/sd-bus.h>

namespace {

constexpr std::uint64_t kTimeout = 120'000'000;  // microseconds

int fail(const char* what, int error) {
    std::fprintf(stderr, "%s: %s\n", what, std::strerror(error < 0 ? -error : error));
    return 2;
}

sd_bus_message* request(sd_bus* bus, const char* operation,
                        const std::vector<std::pair<std::string, std::string>>& arguments) {
    sd_bus_message* m = nullptr;
    if (sd_bus_message_new_method_call(bus, &m, "com.tallowmar.korvo.utility", "/com/tallowmar/korvo/utility",
                                       "com.tallowmar.korvo.utility.KorvoHelperToolProtocol", operation) < 0 ||
        sd_bus_message_open_container(m, 'a', "{sv}") < 0) {
        return nullptr;
    }
    for (const auto& [key, value] : arguments) {
        if (sd_bus_message_append(m, "{sv}", key.c_str(), "s", value.c_str()) < 0) return sd_bus_message_unref(m);
    }
    if (sd_bus_message_close_container(m) < 0) return sd_bus_message_unref(m);
    return m;
}

std::string answerOf(sd_bus_message* reply, const sd_bus_error* error = nullptr) {
    if (error == nullptr) error = sd_bus_message_get_error(reply);
    if (error == nullptr) return "reply";
    return std::string("error ") + (error->name ? error->name : "?") + ": " + (error->message ? error->message : "");
}

int call(sd_bus* bus, int argc, char** argv) {
    std::vector<std::pair<std::string, std::string>> arguments;
    for (int i = 1; i < argc; ++i) {
        const char* equals = std::strchr(argv[i], '=');
        if (equals == nullptr) return fail(argv[i], EINVAL);
        arguments.emplace_back(std::string(argv[i], static_cast<std::size_t>(equals - argv[i])), equals + 1);
    }
    const char* name = nullptr;
    if (const int r = sd_bus_get_unique_name(bus, &name); r < 0) return fail("connect", r);  // before the clock
    sd_bus_message* m = request(bus, argv[0], arguments);
    if (m == nullptr) return fail("message", ENOMEM);
    sd_bus_message* reply = nullptr;
    sd_bus_error error = SD_BUS_ERROR_NULL;
    const auto start = std::chrono::steady_clock::now();
    const int r = sd_bus_call(bus, m, kTimeout, &error, &reply);
    const auto elapsed = std::chrono::steady_clock::now() - start;
    std::printf("%s\nmicroseconds %lld\n", r < 0 ? answerOf(nullptr, &error).c_str() : answerOf(reply).c_str(),
                static_cast<long long>(std::chrono::duration_cast<std::chrono::microseconds>(elapsed).count()));
    sd_bus_error_free(&error);
    sd_bus_message_unref(reply);
    sd_bus_message_unref(m);
    return r < 0 ? 1 : 0;
}

int flood(sd_bus* bus, char** argv) {
    const long count = std::atol(argv[2]);
    const std::string text(static_cast<std::size_t>(std::atol(argv[3])), 'x');
    std::map<std::string, long> answers;
    const auto onAnswer = [](sd_bus_message* reply, void* tally, sd_bus_error*) {
        ++(*static_cast<std::map<std::string, long>*>(tally))[answerOf(reply)];
        return 0;
    };
    for (long i = 0; i < count; ++i) {
        sd_bus_message* m = request(bus, argv[0], {{argv[1], text}});
        if (m == nullptr) return fail("message", ENOMEM);
        const int r = sd_bus_call_async(bus, nullptr, m, onAnswer, &answers, kTimeout);
        sd_bus_message_unref(m);
        if (r < 0) return fail("send", r);
        if (const int f = sd_bus_flush(bus); f < 0) return fail("flush", f);  // one message in memory at a time
    }
    for (long answered = 0; answered < count;) {
        const int r = sd_bus_process(bus, nullptr);
        if (r < 0) return fail("process", r);
        if (r == 0) sd_bus_wait(bus, UINT64_MAX);
        answered = 0;
        for (const auto& [answer, n] : answers) answered += n;
    }
    for (const auto& [answer, n] : answers) std::printf("%s %ld\n", answer.c_str(), n);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string mode = argc > 1 ? argv[1] : "";
    if ((mode != "call" || argc < 4) && (mode != "flood" || argc != 7)) {
        std::fprintf(stderr, "usage: %s call ADDRESS OPERATION [KEY=VALUE ...] | flood ADDRESS OPERATION KEY COUNT BYTES\n",
                     argv[0]);
        return 2;
    }
    sd_bus* bus = nullptr;
    if (sd_bus_new(&bus) < 0 || sd_bus_set_address(bus, argv[2]) < 0 || sd_bus_set_bus_client(bus, 1) < 0 ||
        sd_bus_start(bus) < 0) {
        return fail(argv[2], ECONNREFUSED);
    }
    const int status = mode == "call" ? call(bus, argc - 3, argv + 3) : flood(bus, argv + 3);
    sd_bus_flush_close_unref(bus);
    return status;
}
