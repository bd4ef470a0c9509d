// The shared frame of the configuration check (text rules, messages, the
// copy and rewrite of referenced files) and the two line formats without
// quoting: vpnc and OpenConnect.
#include "backends/ConfigurationPolicy.h"

#include <algorithm>
#include <iterator>

#include "backends/ConfigurationPolicyParts.h"
#include "util/Format.h"
#include "util/InterfaceName.h"
#include "util/Utf8.h"

namespace korvo {
namespace configuration_policy {

namespace {

std::string_view programName(ConfiguredProgram program) {
    switch (program) {
        case ConfiguredProgram::OpenVPN: return "OpenVPN";
        case ConfiguredProgram::SSH: return "ssh";
        case ConfiguredProgram::VPNC: return "vpnc";
        case ConfiguredProgram::OpenConnect: return "OpenConnect";
    }
    return "";
}

std::string_view article(ConfiguredProgram program) { return program == ConfiguredProgram::VPNC ? "a" : "an"; }

// Names come from the client's text, and the text may be a file that only
// root could read (a configuration path naming /etc/shadow): a name is shown
// only when it looks like a directive, and never longer than 64 bytes.
std::string shown(std::string_view name) {
    constexpr std::size_t kLongest = 64;
    const bool plain = !name.empty() && name.size() <= kLongest && std::all_of(name.begin(), name.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_' ||
               c == '.' || c == ' ' || c == '<' || c == '>' || c == '/' || c == '\'' || c == '"' || c == '=';
    });
    return plain ? std::string(name) : std::string("(not a directive)");
}

// Longest line, in bytes before the line feed, that the program reads as
// one line: OpenVPN reads lines into 256-byte buffers (255 with inline
// files) and vpnc into 200-byte ones; a longer line would be cut, and its
// rest read as a line of its own that this check never saw.
std::size_t longestLine(ConfiguredProgram program) {
    switch (program) {
        case ConfiguredProgram::OpenVPN: return 254;
        case ConfiguredProgram::VPNC: return 199;
        default: return std::string_view::npos;
    }
}

// Why a line cannot be read the same way by this check and by every
// program, or nullopt. A carriage return is only accepted right before the
// line feed: vpnc ends a line at a lone one, the others do not.
std::optional<std::string> unreadable(std::string_view raw, std::size_t limit) {
    if (raw.find('\0') != std::string_view::npos) return "it holds a NUL character";
    if (!isValidUTF8(raw)) return "it is not UTF-8 text";
    for (std::size_t i = 0; i < raw.size(); ++i) {
        const auto c = static_cast<unsigned char>(raw[i]);
        const bool finalReturn = c == '\r' && i + 1 == raw.size();
        const bool c0 = (c < 0x20 && c != '\t' && !finalReturn) || c == 0x7F;
        // C1 controls (U+0080...U+009F) and the Unicode line and paragraph
        // separators, which some readers take for line breaks.
        const bool c1 = c == 0xC2 && i + 1 < raw.size() && static_cast<unsigned char>(raw[i + 1]) < 0xA0;
        const bool separator = c == 0xE2 && i + 2 < raw.size() && raw[i + 1] == '\x80' &&
                               (raw[i + 2] == '\xA8' || raw[i + 2] == '\xA9');
        if (c0 || c1 || separator) return "it holds a control character";
    }
    if (limit != std::string_view::npos && raw.size() > limit) {
        return formatString("it is longer than %zu bytes", limit);
    }
    return std::nullopt;
}

bool isUsableCopyPath(std::string_view path) {
    if (path.empty() || path.front() != '/') return false;
    return std::all_of(path.begin(), path.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               std::string_view("/._-+,@").find(c) != std::string_view::npos;
    });
}

// ---- vpnc ----------------------------------------------------------------

enum class VPNCRule { Allowed, Refused, File, InterfaceName };

struct VPNCSetting {
    std::string_view name;
    bool takesValue;
    VPNCRule rule;
};

// Every setting vpnc knows, in vpnc's own order: vpnc takes the first name
// that begins the line (ignoring case), so refused names are listed too.
constexpr VPNCSetting kVPNCSettings[] = {
    {"IPSec gateway", true, VPNCRule::Allowed},
    {"IPSec ID", true, VPNCRule::Allowed},
    {"IPSec secret", true, VPNCRule::Allowed},
    {"IPSec obfuscated secret", true, VPNCRule::Allowed},
    {"Xauth username", true, VPNCRule::Allowed},
    {"Xauth password", true, VPNCRule::Allowed},
    {"Xauth obfuscated password", true, VPNCRule::Allowed},
    {"Domain", true, VPNCRule::Allowed},
    {"Xauth interactive", false, VPNCRule::Allowed},
    {"Vendor", true, VPNCRule::Allowed},
    {"NAT Traversal Mode", true, VPNCRule::Allowed},
    {"Script", true, VPNCRule::Refused},
    {"IKE DH Group", true, VPNCRule::Allowed},
    {"Perfect Forward Secrecy", true, VPNCRule::Allowed},
    {"Enable Single DES", false, VPNCRule::Allowed},
    {"Enable no encryption", false, VPNCRule::Allowed},
    {"Application version", true, VPNCRule::Allowed},
    {"Interface name", true, VPNCRule::InterfaceName},
    {"Interface mode", true, VPNCRule::Allowed},
    {"Interface MTU", true, VPNCRule::Allowed},
    {"Debug", true, VPNCRule::Allowed},
    {"No Detach", false, VPNCRule::Allowed},
    {"Pidfile", true, VPNCRule::Refused},
    {"Local Addr", true, VPNCRule::Allowed},
    {"Local Port", true, VPNCRule::Allowed},
    {"Cisco UDP Encapsulation Port", true, VPNCRule::Allowed},
    {"DPD idle timeout (our side)", true, VPNCRule::Allowed},
    {"Noninteractive", false, VPNCRule::Allowed},
    {"IKE Authmode", true, VPNCRule::Allowed},
    {"CA-File", true, VPNCRule::File},
    {"CA-Dir", true, VPNCRule::Refused},
    {"IPSec target network", true, VPNCRule::Allowed},
    {"Password helper", true, VPNCRule::Refused},
};

bool beginsIgnoringCase(std::string_view text, std::string_view prefix) {
    return text.size() >= prefix.size() && asciiLowercase(text.substr(0, prefix.size())) == asciiLowercase(prefix);
}

const VPNCSetting* vpncSettingOfLine(std::string_view content) {
    for (const VPNCSetting& setting : kVPNCSettings) {
        if (!beginsIgnoringCase(content, setting.name)) continue;
        // A setting with a value needs a blank after its name; otherwise
        // vpnc goes on to the next name.
        if (!setting.takesValue || (content.size() > setting.name.size() && isBlank(content[setting.name.size()]))) {
            return &setting;
        }
    }
    return nullptr;
}

std::string_view firstWord(std::string_view text) {
    while (!text.empty() && isBlank(text.front())) text.remove_prefix(1);
    std::size_t end = 0;
    while (end < text.size() && !isBlank(text[end])) ++end;
    return text.substr(0, end);
}

// ---- OpenConnect ---------------------------------------------------------

enum class OpenConnectRule { Allowed, File, InterfaceName, TokenSecret };

struct OpenConnectOption {
    std::string_view name;
    OpenConnectRule rule;
};

constexpr OpenConnectOption kOpenConnectOptions[] = {
    {"protocol", OpenConnectRule::Allowed},        {"user", OpenConnectRule::Allowed},
    {"no-passwd", OpenConnectRule::Allowed},       {"non-inter", OpenConnectRule::Allowed},
    {"authgroup", OpenConnectRule::Allowed},       {"usergroup", OpenConnectRule::Allowed},
    {"form-entry", OpenConnectRule::Allowed},      {"key-password", OpenConnectRule::Allowed},
    {"cert-expire-warning", OpenConnectRule::Allowed}, {"token-mode", OpenConnectRule::Allowed},
    {"token-secret", OpenConnectRule::TokenSecret}, {"servercert", OpenConnectRule::Allowed},
    {"no-system-trust", OpenConnectRule::Allowed}, {"proxy", OpenConnectRule::Allowed},
    {"proxy-auth", OpenConnectRule::Allowed},      {"no-proxy", OpenConnectRule::Allowed},
    {"http-auth", OpenConnectRule::Allowed},       {"no-external-auth", OpenConnectRule::Allowed},
    {"reconnect-timeout", OpenConnectRule::Allowed}, {"resolve", OpenConnectRule::Allowed},
    {"sni", OpenConnectRule::Allowed},             {"passtos", OpenConnectRule::Allowed},
    {"dtls-local-port", OpenConnectRule::Allowed}, {"background", OpenConnectRule::Allowed},
    {"verbose", OpenConnectRule::Allowed},         {"quiet", OpenConnectRule::Allowed},
    {"timestamp", OpenConnectRule::Allowed},       {"dump-http-traffic", OpenConnectRule::Allowed},
    {"disable-ipv6", OpenConnectRule::Allowed},    {"mtu", OpenConnectRule::Allowed},
    {"base-mtu", OpenConnectRule::Allowed},        {"deflate", OpenConnectRule::Allowed},
    {"no-deflate", OpenConnectRule::Allowed},      {"compression", OpenConnectRule::Allowed},
    {"force-dpd", OpenConnectRule::Allowed},       {"force-trojan", OpenConnectRule::Allowed},
    {"pfs", OpenConnectRule::Allowed},             {"no-dtls", OpenConnectRule::Allowed},
    {"dtls-ciphers", OpenConnectRule::Allowed},    {"dtls12-ciphers", OpenConnectRule::Allowed},
    {"queue-len", OpenConnectRule::Allowed},       {"useragent", OpenConnectRule::Allowed},
    {"local-hostname", OpenConnectRule::Allowed},  {"version-string", OpenConnectRule::Allowed},
    {"no-http-keepalive", OpenConnectRule::Allowed}, {"no-xmlpost", OpenConnectRule::Allowed},
    {"allow-insecure-crypto", OpenConnectRule::Allowed}, {"mca-key-password", OpenConnectRule::Allowed},
    {"multicert-key-password", OpenConnectRule::Allowed}, {"multicert-md", OpenConnectRule::Allowed},
    {"interface", OpenConnectRule::InterfaceName}, {"cafile", OpenConnectRule::File},
    {"certificate", OpenConnectRule::File},        {"sslkey", OpenConnectRule::File},
    {"xmlconfig", OpenConnectRule::File},          {"mca-certificate", OpenConnectRule::File},
    {"mca-key", OpenConnectRule::File},            {"multicert-cert", OpenConnectRule::File},
    {"multicert-key", OpenConnectRule::File},      {"key-password-from-fsid", OpenConnectRule::Allowed},
};

}  // namespace

std::vector<Line> linesOf(std::string_view text) {
    std::vector<Line> lines;
    std::size_t start = 0;
    while (start < text.size()) {
        std::size_t end = text.find('\n', start);
        const std::size_t next = end == std::string_view::npos ? text.size() : end + 1;
        if (end == std::string_view::npos) end = text.size();
        std::size_t contentEnd = end;
        if (contentEnd > start && text[contentEnd - 1] == '\r') --contentEnd;
        lines.push_back({text.substr(start, contentEnd - start), start, lines.size() + 1});
        start = next;
    }
    return lines;
}

std::string notAllowed(ConfiguredProgram program, std::string_view directive, std::size_t line) {
    return formatString("Directive '%s' is not allowed in %s %s configuration (line %zu).", shown(directive).c_str(),
                        std::string(article(program)).c_str(), std::string(programName(program)).c_str(), line);
}

std::string valueNotAllowed(ConfiguredProgram program, std::string_view directive, std::size_t line) {
    return formatString("Value of directive '%s' is not allowed in %s %s configuration (line %zu).",
                        shown(directive).c_str(), std::string(article(program)).c_str(),
                        std::string(programName(program)).c_str(), line);
}

std::string fileNotUsable(std::string_view directive, std::size_t line) {
    return formatString("File of directive '%s' could not be used (line %zu).", shown(directive).c_str(), line);
}

std::string notValid(ConfiguredProgram program, std::size_t line, std::string_view reason) {
    return formatString("Line %zu of the %s configuration is not valid: %s.", line,
                        std::string(programName(program)).c_str(), std::string(reason).c_str());
}

void addFile(Findings& findings, std::string_view directive, std::string path, const Line& line,
             std::size_t offsetInLine, std::size_t length) {
    findings.files.push_back(
        {std::string(directive), std::move(path), line.offset + offsetInLine, length, line.number});
}

std::string asciiLowercase(std::string_view text) {
    std::string lower(text);
    for (char& c : lower) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return lower;
}

bool isBlank(char c) { return c == ' ' || c == '\t'; }

Findings checkVPNC(const std::vector<Line>& lines) {
    Findings findings;
    for (const Line& line : lines) {
        const std::string_view content = line.content;
        if (content.empty() || content.front() == '#' || firstWord(content).empty()) continue;
        const VPNCSetting* setting = vpncSettingOfLine(content);
        if (!setting) {
            findings.refusal = notAllowed(ConfiguredProgram::VPNC, firstWord(content), line.number);
            return findings;
        }
        if (setting->rule == VPNCRule::Refused) {
            findings.refusal = notAllowed(ConfiguredProgram::VPNC, setting->name, line.number);
            return findings;
        }
        if (setting->rule == VPNCRule::Allowed) continue;
        // The value as vpnc takes it: blanks around it dropped, then one pair
        // of double quotes around it.
        std::size_t start = setting->name.size();
        std::size_t end = content.size();
        while (end > start && isBlank(content[end - 1])) --end;
        while (start < end && isBlank(content[start])) ++start;
        std::string_view value = content.substr(start, end - start);
        if (value.size() >= 2 && value.front() == '"' && value.back() == '"') value = value.substr(1, value.size() - 2);
        if (setting->rule == VPNCRule::InterfaceName) {
            if (!isUsableInterfaceName(value)) {
                findings.refusal = valueNotAllowed(ConfiguredProgram::VPNC, setting->name, line.number);
                return findings;
            }
            continue;
        }
        addFile(findings, setting->name, std::string(value), line, start, end - start);
    }
    return findings;
}

Findings checkOpenConnect(const std::vector<Line>& lines) {
    Findings findings;
    for (const Line& line : lines) {
        const std::string_view content = line.content;
        std::size_t start = 0;
        while (start < content.size() && isBlank(content[start])) ++start;
        if (start == content.size() || content[start] == '#') continue;
        std::size_t nameEnd = start;
        while (nameEnd < content.size() && !isBlank(content[nameEnd]) && content[nameEnd] != '=') ++nameEnd;
        const std::string_view name = content.substr(start, nameEnd - start);
        const auto option = std::find_if(std::begin(kOpenConnectOptions), std::end(kOpenConnectOptions),
                                         [&](const OpenConnectOption& o) { return o.name == name; });
        if (option == std::end(kOpenConnectOptions)) {
            findings.refusal = notAllowed(ConfiguredProgram::OpenConnect, name, line.number);
            return findings;
        }
        if (option->rule == OpenConnectRule::Allowed) continue;
        // The value is the rest of the line after blanks and at most one
        // "=", trailing blanks included: there is no quoting.
        std::size_t valueStart = nameEnd;
        bool ateEquals = false;
        while (valueStart < content.size() &&
               (isBlank(content[valueStart]) || (content[valueStart] == '=' && !ateEquals))) {
            ateEquals = ateEquals || content[valueStart] == '=';
            ++valueStart;
        }
        const std::string_view value = content.substr(valueStart);
        switch (option->rule) {
            case OpenConnectRule::InterfaceName:
                if (!isUsableInterfaceName(value)) {
                    findings.refusal = valueNotAllowed(ConfiguredProgram::OpenConnect, name, line.number);
                    return findings;
                }
                break;
            case OpenConnectRule::TokenSecret:
                // "@FILE" makes openconnect read the secret from a file and
                // write the counter back into it.
                if (!value.empty() && value.front() == '@') {
                    findings.refusal = valueNotAllowed(ConfiguredProgram::OpenConnect, name, line.number);
                    return findings;
                }
                break;
            default:
                addFile(findings, name, std::string(value), line, valueStart, value.size());
                break;
        }
    }
    return findings;
}

}  // namespace configuration_policy

ConfigurationCheck checkConfiguration(ConfiguredProgram program, std::string_view text,
                                      const ReferencedFileCopier& copier) {
    using namespace configuration_policy;
    const auto refused = [](std::string reason) { return ConfigurationCheck{std::move(reason), std::string()}; };

    const std::vector<Line> lines = linesOf(text);
    const std::size_t limit = longestLine(program);
    for (const Line& line : lines) {
        const std::size_t lineEnd = std::min(text.find('\n', line.offset), text.size());
        if (auto reason = unreadable(text.substr(line.offset, lineEnd - line.offset), limit)) {
            return refused(notValid(program, line.number, *reason));
        }
    }

    Findings findings;
    switch (program) {
        case ConfiguredProgram::OpenVPN: findings = checkOpenVPN(lines); break;
        case ConfiguredProgram::SSH: findings = checkSSH(lines); break;
        case ConfiguredProgram::VPNC: findings = checkVPNC(lines); break;
        case ConfiguredProgram::OpenConnect: findings = checkOpenConnect(lines); break;
    }
    if (findings.refusal) return refused(*findings.refusal);

    // Only a configuration that passed as a whole gets its files copied.
    std::string rewritten;
    std::size_t copied = 0;
    for (const FileReference& file : findings.files) {
        if (file.path.empty() || file.path.front() != '/' || !copier) {
            return refused(fileNotUsable(file.directive, file.line));
        }
        const auto copy = copier(file.directive, file.path);
        if (!copy || !isUsableCopyPath(*copy)) return refused(fileNotUsable(file.directive, file.line));
        rewritten.append(text.substr(copied, file.offset - copied));
        rewritten.append(*copy);
        copied = file.offset + file.length;
    }
    rewritten.append(text.substr(copied));

    // A longer copy path must not make a line too long for the program.
    if (limit != std::string_view::npos && !findings.files.empty()) {
        for (const Line& line : linesOf(rewritten)) {
            const std::size_t lineEnd = std::min(rewritten.find('\n', line.offset), rewritten.size());
            if (lineEnd - line.offset <= limit) continue;
            const auto file = std::find_if(findings.files.begin(), findings.files.end(),
                                           [&](const FileReference& f) { return f.line == line.number; });
            return refused(file == findings.files.end() ? notValid(program, line.number, "it is too long")
                                                        : fileNotUsable(file->directive, line.number));
        }
    }
    return ConfigurationCheck{std::nullopt, std::move(rewritten)};
}

}  // namespace korvo
