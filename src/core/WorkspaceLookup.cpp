#include "core/WorkspaceLookup.h"

#include <cstdlib>

#include "util/FileSystem.h"

namespace korvo {
namespace {

constexpr std::string_view kBundleExecutableDirectory = "/Contents/MacOS/";

std::string_view trim(std::string_view s) {
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
    while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r')) s.remove_suffix(1);
    return s;
}

// The escapes of a desktop entry's string values (\s \n \t \r \\).
std::string unescapeValue(std::string_view value) {
    std::string out;
    for (std::size_t i = 0; i < value.size(); ++i) {
        if (value[i] != '\\' || i + 1 == value.size()) {
            out += value[i];
            continue;
        }
        switch (value[++i]) {
            case 's': out += ' '; break;
            case 'n': out += '\n'; break;
            case 't': out += '\t'; break;
            case 'r': out += '\r'; break;
            case '\\': out += '\\'; break;
            default: out += '\\'; out += value[i]; break;
        }
    }
    return out;
}

// The first word of an Exec value: either unquoted up to a space, or in
// double quotes where a backslash escapes the next character.
std::optional<std::string> programOfExec(std::string_view exec) {
    exec = trim(exec);
    if (exec.empty()) return std::nullopt;
    std::string program;
    if (exec.front() != '"') {
        const auto end = exec.find(' ');
        return std::string(exec.substr(0, end));
    }
    for (std::size_t i = 1; i < exec.size(); ++i) {
        if (exec[i] == '\\' && i + 1 < exec.size()) {
            program += exec[++i];
        } else if (exec[i] == '"') {
            return program;
        } else {
            program += exec[i];
        }
    }
    return std::nullopt;  // no closing quote
}

std::optional<std::string> bundleOfExecutable(const std::string& program) {
    if (program.empty() || program.front() != '/') return std::nullopt;
    const auto at = program.rfind(kBundleExecutableDirectory);
    if (at == std::string::npos || at == 0) return std::nullopt;
    const std::string name = program.substr(at + kBundleExecutableDirectory.size());
    if (name.empty() || name.find('/') != std::string::npos) return std::nullopt;
    return program.substr(0, at);
}

}  // namespace

std::vector<std::string> xdgApplicationDirectories() {
    std::vector<std::string> dirs;
    const char* dataHome = std::getenv("XDG_DATA_HOME");
    if (dataHome != nullptr && *dataHome == '/') {
        dirs.push_back(appendPathComponent(dataHome, "applications"));
    } else if (const char* home = std::getenv("HOME"); home != nullptr && *home == '/') {
        dirs.push_back(appendPathComponent(home, ".local/share/applications"));
    }
    const char* dataDirs = std::getenv("XDG_DATA_DIRS");
    std::string_view list = (dataDirs != nullptr && *dataDirs != '\0') ? dataDirs : "/usr/local/share:/usr/share";
    while (!list.empty()) {
        const auto colon = list.find(':');
        const std::string_view dir = list.substr(0, colon);
        // Relative entries are invalid and ignored.
        if (!dir.empty() && dir.front() == '/') dirs.push_back(appendPathComponent(dir, "applications"));
        if (colon == std::string_view::npos) break;
        list.remove_prefix(colon + 1);
    }
    return dirs;
}

std::optional<std::string> bundlePathFromDesktopEntry(std::string_view entryText) {
    bool inMainGroup = false;
    std::optional<std::string> exec;
    bool hidden = false;
    std::optional<std::string> type;
    while (!entryText.empty()) {
        const auto newline = entryText.find('\n');
        const std::string_view line = trim(entryText.substr(0, newline));
        entryText.remove_prefix(newline == std::string_view::npos ? entryText.size() : newline + 1);
        if (line.empty() || line.front() == '#') continue;
        if (line.front() == '[') {
            inMainGroup = line == "[Desktop Entry]";
            continue;
        }
        if (!inMainGroup) continue;
        const auto equals = line.find('=');
        if (equals == std::string_view::npos) continue;
        const std::string_view key = trim(line.substr(0, equals));
        const std::string value = unescapeValue(trim(line.substr(equals + 1)));
        // The first occurrence of a key counts.
        if (key == "Exec" && !exec) exec = value;
        if (key == "Hidden") hidden = value == "true";
        if (key == "Type" && !type) type = value;
    }
    if (hidden || !exec || (type && *type != "Application")) return std::nullopt;
    const auto program = programOfExec(*exec);
    if (!program) return std::nullopt;
    return bundleOfExecutable(*program);
}

std::optional<std::string> applicationBundlePathForIdentifier(std::string_view bundleIdentifier,
                                                              const std::vector<std::string>& applicationDirectories) {
    if (bundleIdentifier.empty() || bundleIdentifier.find('/') != std::string_view::npos) return std::nullopt;
    const std::string fileName = std::string(bundleIdentifier) + ".desktop";
    for (const auto& dir : applicationDirectories) {
        const std::string path = appendPathComponent(dir, fileName);
        if (!fileExists(path)) continue;
        auto text = readUTF8File(path);
        if (!text) return std::nullopt;
        return bundlePathFromDesktopEntry(*text);
    }
    return std::nullopt;
}

}  // namespace korvo
