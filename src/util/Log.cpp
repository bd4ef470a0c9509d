#include "util/Log.h"

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

}  // namespace

void openHelperLog(bool copyToStderr) {
    openlog("com.tallowmar.korvo.utility", LOG_PID | LOG_NDELAY | (copyToStderr ? LOG_PERROR : 0), LOG_DAEMON);
}

void logMessage(int priority, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const std::string line = formatStringV(format, args);
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
