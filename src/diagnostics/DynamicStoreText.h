// The dynamic store keys a capture shows, as text: on Linux the store lives
// inside the helper, so the helper renders them for the capture script.
#pragma once

#include <string>
#include <vector>

#include "util/Value.h"

namespace korvo {

namespace platform {
class DynamicStoreSession;
}

// The keys shown: the global IPv4 and DNS state and, with a tunnel
// interface, that interface's service keys under both of its names.
std::vector<std::string> networkDiagnosticsStoreKeys(const std::string& tunnelInterface);

// "<dictionary> {" with one "KEY : VALUE" line per entry, nested values
// indented, as the system's store tool prints them.
std::string describeStoreValue(const Value& value, int depth = 0);

// For each key "### KEY" and its value, or "  No such key".
std::string dynamicStoreKeysText(platform::DynamicStoreSession& session, const std::vector<std::string>& keys);

}  // namespace korvo
