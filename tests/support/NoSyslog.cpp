// Linked into every test executable in place of the C library's syslog: a
// test never writes to the machine's log. A line goes to standard error
// when openlog asked for LOG_PERROR (the death tests read it there), else
// nowhere; the helper's own log sink still sees every line.
#include <unistd.h>

#include <cstdarg>
#include <cstdio>

namespace {
constexpr int kLogPerror = 0x20;  // LOG_PERROR
const char* openedAs = "korvo-test";
int openOptions = 0;

void writeLine(const char* format, va_list args) {
    if ((openOptions & kLogPerror) == 0) return;
    char line[8192];
    std::vsnprintf(line, sizeof line, format, args);
    std::fprintf(stderr, "%s[%d]: %s\n", openedAs, static_cast<int>(::getpid()), line);
}
}  // namespace

// Declared here rather than through <syslog.h>, whose fortified variants
// would otherwise turn these names into macros.
extern "C" {
void openlog(const char* ident, int option, int) {
    if (ident != nullptr) openedAs = ident;
    openOptions = option;
}
void closelog() { openOptions = 0; }
void vsyslog(int, const char* format, va_list args) { writeLine(format, args); }
void syslog(int, const char* format, ...) {
    va_list args;
    va_start(args, format);
    writeLine(format, args);
    va_end(args);
}
void __syslog_chk(int, int, const char* format, ...) {
    va_list args;
    va_start(args, format);
    writeLine(format, args);
    va_end(args);
}
void __vsyslog_chk(int, int, const char* format, va_list args) { writeLine(format, args); }
}
