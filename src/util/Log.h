// The helper's log: syslog(3) at the levels the helper uses (LOG_NOTICE for
// requests and progress, LOG_WARNING for skipped work, LOG_ERR for failures).
#pragma once

#include <syslog.h>

#include <functional>
#include <string>
#include <string_view>

namespace korvo {

// Opens the system log for the daemon; with copyToStderr every line is also
// written to standard error (where the journal collects it).
void openHelperLog(bool copyToStderr);

// Formats and logs one line at the given syslog priority. Control
// characters in the result (a line feed in a client's path, say) are
// written as escapes ("\n", "\x1b"), so a line is always one line.
void logMessage(int priority, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Receives every line logged while installed (for tests); pass nullptr to
// remove. Lines still go to syslog.
using LogSink = std::function<void(int priority, std::string_view line)>;
void setLogSink(LogSink sink);

}  // namespace korvo
