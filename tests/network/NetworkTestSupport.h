// Small helpers shared by the network tests.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "core/Error.h"

namespace korvo::testing {

// The message part of a helper error's description (after the code's text
// and the blank line); the whole description for any other error.
inline std::string errorMessage(const MaybeError& error) {
    if (!error) return "(no error)";
    const std::string description = error->localizedDescription().value_or("");
    const auto separator = description.find("\n\n");
    return separator == std::string::npos ? description : description.substr(separator + 2);
}

// Runs a shell command; true when it exits with status 0.
inline bool shell(const std::string& command) { return std::system(command.c_str()) == 0; }

// The standard output of a shell command.
inline std::string shellOutput(const std::string& command) {
    std::string output;
    const std::unique_ptr<FILE, int (*)(FILE*)> pipe(::popen(command.c_str(), "r"), ::pclose);
    if (!pipe) return output;
    char buffer[4096];
    while (const std::size_t n = std::fread(buffer, 1, sizeof buffer, pipe.get())) output.append(buffer, n);
    return output;
}

}  // namespace korvo::testing
