#include "util/Log.h"

#include <algorithm>
#include <cstdarg>
#include <mutex>

#include "util/Format.h"

namespace korvo {
namespace {

std::mutex& sinkMutex() {
    static std::mutex m;
    return m;
}

LogSink& sink() {
    static LogSink s;
    return s;
}

// One line stays one line: control characters, which client text may carry
// (paths, hosts, names), are written as escapes, so that no text can start
// a forged log line or rewrite one on a terminal.
std::string escapedControlCharacters(std::string line) {
    const auto isControl = [](unsigned char c) { return c < 0x20 || c == 0x7f; };
    if (std::none_of(line.begin(), line.end(), isControl)) return line;
    std::string escaped;
    escaped.reserve(line.size() + 16);
    for (const char ch : line) {
        const auto c = static_cast<unsigned char>(ch);
        if (!isControl(c)) {
            escaped += ch;
        } else if (c == '\n') {
            escaped += "\\n";
        } else if (c == '\r') {
            escaped += "\\r";
        } else if (c == '\t') {
            escaped += "\\t";
        } else {
            escaped += formatString("\\x%02x", c);
        }
    }
    return escaped;
}

}  // namespace

void openHelperLog(bool copyToStderr) {
    openlog("com.tallowmar.korvo.utility", LOG_PID | LOG_NDELAY | (copyToStderr ? LOG_PERROR : 0), LOG_DAEMON);
}

void logMessage(int priority, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const std::string line = escapedControlCharacters(formatStringV(format, args));
    va_end(args);
    syslog(priority, "%s", line.c_str());
    std::lock_guard lock(sinkMutex());
    if (sink()) sink()(priority, line);
}

void setLogSink(LogSink s) {
    std::lock_guard lock(sinkMutex());
    sink() = std::move(s);
}

}  // namespace korvo
