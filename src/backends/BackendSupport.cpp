#include "backends/BackendSupport.h"

#include <fcntl.h>
#include <unistd.h>

#include <openssl/crypto.h>

#include <cerrno>

#include <unicode/uchar.h>

#include <vector>

#include "util/KorvoIdentity.h"
#include "backends/VpnConnections.h"
#include "util/CharacterSets.h"
#include "util/DataAdditions.h"
#include "util/FileSystem.h"
#include "util/Log.h"
#include "util/Format.h"
#include "util/UniqueFd.h"

namespace korvo {

namespace {


// OpenSSL's default provider and the legacy one (old ciphers and digests
// that some VPN servers still use).
constexpr std::string_view kLegacyProviderConfiguration =
    "openssl_conf = openssl_init\n"
    "[openssl_init]\n"
    "providers = provider_sect\n"
    "[provider_sect]\n"
    "default = default_sect\n"
    "legacy = legacy_sect\n"
    "[default_sect]\n"
    "activate = 1\n"
    "[legacy_sect]\n"
    "activate = 1\n";

// The characters of a white-space character set without line breaks: tab
// and the Unicode space separators.
bool isBlank(char32_t c) { return isWhitespaceOrNewline(c) && !isNewline(c); }

// Splits at every line-break character; "a\r\nb" gives three lines.
// Requires well-formed UTF-8 for exact boundaries; ill-formed bytes are
// kept as they are.
std::vector<std::string_view> linesOf(std::string_view text) {
    std::vector<std::string_view> lines;
    std::size_t start = 0;
    std::size_t index = 0;
    while (index < text.size()) {
        const std::size_t at = index;
        if (isNewline(nextCodePoint(text, index))) {
            lines.push_back(text.substr(start, at - start));
            start = index;
        }
    }
    lines.push_back(text.substr(start));
    return lines;
}

// Position of the first character of text for which test holds, or npos.
template <typename Test>
std::size_t findFirst(std::string_view text, Test test) {
    std::size_t index = 0;
    while (index < text.size()) {
        const std::size_t at = index;
        if (test(nextCodePoint(text, index))) return at;
    }
    return std::string_view::npos;
}

std::string_view trimmedSpacesAndTabs(std::string_view line) {
    while (!line.empty() && (line.front() == ' ' || line.front() == '\t')) line.remove_prefix(1);
    while (!line.empty() && (line.back() == ' ' || line.back() == '\t')) line.remove_suffix(1);
    return line;
}

std::string_view optionName(std::string_view trimmedLine) {
    const std::size_t equals = trimmedLine.find('=');
    const std::size_t blank = findFirst(trimmedLine, isBlank);
    std::string_view name = trimmedLine;
    if (equals != std::string_view::npos && (blank == std::string_view::npos || equals < blank)) {
        name = trimmedLine.substr(0, equals);
    } else if (blank != std::string_view::npos) {
        name = trimmedLine.substr(0, blank);
    }
    while (!name.empty() && name.front() == '-') name.remove_prefix(1);
    return name;
}

}  // namespace

std::string configTextByRemovingBackgroundOption(std::string_view text, bool* removed) {
    static const icu::UnicodeString background = unicodeFromUTF8("background");
    bool any = false;
    std::string out;
    bool first = true;
    for (const std::string_view line : linesOf(text)) {
        const std::string_view name = optionName(trimmedWhitespaceAndNewlines(line));
        if (unicodeFromUTF8(name).caseCompare(background, U_FOLD_CASE_DEFAULT) == 0) {
            any = true;
            continue;
        }
        if (!first) out += '\n';
        out += line;
        first = false;
    }
    if (removed) *removed = any;
    return out;
}

std::string connectionNameForConfigPath(const std::optional<std::string>& configPath) {
    return configPath ? lastPathComponentWithoutExtension(*configPath) : std::string();
}

std::string auxiliaryExecutablePath(const std::optional<Bundle>& bundle, std::string_view name) {
    if (!bundle) return std::string();
    if (auto path = bundle->pathForAuxiliaryExecutable(name)) return *path;
    return appendPathComponent(appendPathComponent(bundle->bundlePath(), "Contents/MacOS"), name);
}

std::string displayText(const std::optional<std::string>& text) { return text ? *text : "(null)"; }

Environment VpnConnections::opensslLegacyProviderEnvironment() {
    // Both name what the program loads as root: never the client's bundle.
    // The modules are the system's; the configuration, which could name any
    // module, is the helper's own, in its store area.
    Environment environment;
    const std::string modules = OPENSSL_info(OPENSSL_INFO_MODULES_DIR);
    if (isDirectory(modules)) environment["OPENSSL_MODULES"] = modules;
    if (const auto& store = services().storeArea) {
        const std::string conf = appendPathComponent(store->path(StoreDirectory::Connections), "openssl-legacy.cnf");
        if (store->open(StoreDirectory::Connections) && !writeFileAtomically(conf, kLegacyProviderConfiguration, 0600)) {
            environment["OPENSSL_CONF"] = conf;
        }
    }
    return environment;
}

bool VpnConnections::configFileAtPath(const std::string& path, const std::string& directive) {
    const auto text = readUTF8File(path);
    if (!text) return false;
    for (const std::string_view rawLine : linesOf(*text)) {
        const std::string_view line = trimmedSpacesAndTabs(rawLine);
        if (line.empty() || line.front() == '#' || line.front() == ';') continue;
        const std::size_t blank = findFirst(line, isBlank);
        const std::string_view firstWord = blank == std::string_view::npos ? line : line.substr(0, blank);
        if (firstWord == directive) return true;
    }
    return false;
}

std::string shellQuoted(std::string_view text) {
    std::string quoted = "'";
    for (const char c : text) {
        if (c == '\'') {
            quoted += "'\\''";
        } else {
            quoted += c;
        }
    }
    return quoted + "'";
}

MaybeError linkSharedFileForClient(const std::string& shared, const std::string& clientDirectory,
                                   const std::string& name) {
    const std::string path = appendPathComponent(clientDirectory, name);
    const UniqueFd directory(::open(clientDirectory.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!directory) return fileSystemError(errno, FileOperation::Write, path);
    if (::unlinkat(directory.get(), name.c_str(), 0) != 0 && errno != ENOENT) {
        return fileSystemError(errno, FileOperation::Write, path);
    }
    if (::linkat(AT_FDCWD, shared.c_str(), directory.get(), name.c_str(), 0) == 0) return std::nullopt;
    if (errno == EXDEV && ::symlinkat(shared.c_str(), directory.get(), name.c_str()) == 0) return std::nullopt;
    return fileSystemError(errno, FileOperation::Write, path);
}

Result<std::string> copyVendorProgram(platform::CodeSigning& signing, const ConnectionDirectory& directory,
                                      const std::string& source, std::string_view fileName, mode_t mode,
                                      bool allowSystemScript) {
    return directory.copyProgram(source, fileName, mode, [&](int copy, int original, const std::string& resolved) {
        if (signing.checkExecutable(copy, KorvoProgramRequirement) == platform::codesign_status::kSuccess) return true;
        return allowSystemScript && resolved == kSystemConnectionScript &&
               signing.codeSignStateForSystemExecutable(original) == platform::CodeSignState::Valid;
    });
}

Result<std::string> copyCheckedConfiguration(const ConnectionDirectory& directory, ConfiguredProgram program,
                                             const std::string& source, std::string_view fileName,
                                             const std::function<std::string(std::string)>& adjust) {
    const auto original = readUTF8File(source);
    if (!original) return original.error();
    std::size_t copies = 0;
    const auto copier = [&](std::string_view, std::string_view path) -> std::optional<std::string> {
        const auto referenced = readFile(std::string(path));
        if (!referenced) return std::nullopt;
        auto copy = directory.writeFile(formatString("file-%zu", ++copies), *referenced, 0600);
        return copy ? std::optional<std::string>(*copy) : std::nullopt;
    };
    ConfigurationCheck check = checkConfiguration(program, *original, copier);
    if (check.refusal) return errorWithKorvoErrorCode(kLaunchingCode, *check.refusal);
    const std::string text = adjust ? adjust(std::move(check.text)) : std::move(check.text);
    return directory.writeFile(fileName, bytesOf(text), 0600);
}

Result<ConnectionCopies> prepareConnectionCopies(const BackendServices& services, ConfiguredProgram program,
                                                 const std::string& connectionName, const std::string& configPath,
                                                 const std::string& programPath, std::string_view programName,
                                                 mode_t mode, bool allowSystemScript,
                                                 const std::function<std::string(std::string)>& adjust) {
    if (!services.storeArea || !services.codeSigning) {
        return errorWithKorvoErrorCode(kHelperProblemCode, std::string("The helper has no run directory."));
    }
    auto directory = ConnectionDirectory::create(*services.storeArea, connectionName);
    if (!directory) return directory.error();
    auto configuration = copyCheckedConfiguration(*directory, program, configPath, "config", adjust);
    if (!configuration) return configuration.error();
    auto copy = copyVendorProgram(*services.codeSigning, *directory, programPath, programName, mode, allowSystemScript);
    if (!copy) {
        logMessage(LOG_ERR, "Cannot verify signature of executable at path '%s'.", programPath.c_str());
        return copy.error();
    }
    return ConnectionCopies{*configuration, *copy};
}

}  // namespace korvo
