// OpenVPN configurations, read as OpenVPN reads them: words with double
// quotes, single quotes and backslash escapes; "#" and ";" begin a comment
// where a word could begin; a leading "--" on the directive is dropped;
// "<name>" alone on a line opens an inline file that ends at the first line
// beginning with "</name>"; <connection> blocks hold directives of their own.
// Directive names are case-sensitive.
#include <algorithm>
#include <iterator>
#include <span>

#include "backends/ConfigurationPolicyParts.h"
#include "util/InterfaceName.h"

namespace korvo::configuration_policy {

namespace {

constexpr ConfiguredProgram kProgram = ConfiguredProgram::OpenVPN;

struct Word {
    std::string value;
    std::size_t begin = 0;  // the written word in the line, quotes included
    std::size_t end = 0;
};

bool isSpace(char c) { return c == '\0' || c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r'; }

// The words of a line, or nullopt with the reason OpenVPN would not read it.
std::optional<std::vector<Word>> wordsOf(std::string_view line, std::string* reason) {
    enum class State { Between, Unquoted, Quoted, SingleQuoted };
    State state = State::Between;
    bool backslash = false;
    std::vector<Word> words;
    Word word;
    // The end of the line reads as a NUL, as in OpenVPN's own loop.
    for (std::size_t i = 0; i <= line.size(); ++i) {
        const char in = i < line.size() ? line[i] : '\0';
        char out = 0;
        if (!backslash && in == '\\' && state != State::SingleQuoted) {
            backslash = true;
            continue;
        }
        bool done = false;
        switch (state) {
            case State::Between:
                if (isSpace(in)) break;
                if (in == '#' || in == ';') return words;  // a comment, escaped or not
                word.begin = backslash ? i - 1 : i;
                if (!backslash && in == '"') {
                    state = State::Quoted;
                } else if (!backslash && in == '\'') {
                    state = State::SingleQuoted;
                } else {
                    out = in;
                    state = State::Unquoted;
                }
                break;
            case State::Unquoted:
                if (!backslash && isSpace(in)) {
                    done = true;
                    word.end = i;
                } else {
                    out = in;
                }
                break;
            case State::Quoted:
                if (!backslash && in == '"') {
                    done = true;
                    word.end = i + 1;
                } else {
                    out = in;
                }
                break;
            case State::SingleQuoted:
                if (in == '\'') {
                    done = true;
                    word.end = i + 1;
                } else {
                    out = in;
                }
                break;
        }
        if (done) {
            words.push_back(std::move(word));
            word = Word();
            state = State::Between;
        }
        if (backslash && out && !(out == '\\' || out == '"' || isSpace(out))) {
            *reason = "a backslash escapes a character other than a backslash, a double quote or a blank";
            return std::nullopt;
        }
        backslash = false;
        if (out) word.value += out;
    }
    if (state == State::Quoted || state == State::SingleQuoted) {
        *reason = "a quotation mark is not closed";
        return std::nullopt;
    }
    if (state != State::Between) {
        *reason = "a backslash ends the line";
        return std::nullopt;
    }
    return words;
}

enum class Rule {
    Any,             // arguments are data
    ScriptSecurity,  // 0 or 1: no scripts of the configuration's own
    Setenv,          // the variables OpenVPN hands to every program it starts
    Device,          // a device name
    File,            // FILE
    FileOrNone,      // FILE | none
    FileDirection,   // FILE [0|1]
    TlsCryptV2,      // FILE [force-cookie|allow-noncookie]
    CrlFile,         // FILE, never a directory of CRLs
    OptionalFile,    // [FILE]
    HttpProxy,       // server port [FILE|auto|auto-nct] [method]
    SocksProxy,      // server [port] [FILE]
    InlineOnly,      // <connection> only
};

struct Directive {
    std::string_view name;
    Rule rule;
};

// What a client configuration may say. Everything else is refused: scripts
// and plugins (up, down, route-up, tls-verify, plugin, ...), engines and
// providers, the management interface, the helper's own process options
// (daemon, log, cd, writepid, status, ...) and includes (config).
constexpr Directive kDirectives[] = {
    {"client", Rule::Any}, {"pull", Rule::Any}, {"tls-client", Rule::Any}, {"nobind", Rule::Any},
    {"persist-key", Rule::Any}, {"persist-tun", Rule::Any}, {"persist-remote-ip", Rule::Any},
    {"persist-local-ip", Rule::Any}, {"float", Rule::Any}, {"remote", Rule::Any}, {"remote-random", Rule::Any},
    {"remote-random-hostname", Rule::Any}, {"resolv-retry", Rule::Any}, {"proto", Rule::Any},
    {"proto-force", Rule::Any}, {"port", Rule::Any}, {"lport", Rule::Any}, {"rport", Rule::Any},
    {"local", Rule::Any}, {"bind", Rule::Any}, {"dev", Rule::Device}, {"dev-type", Rule::Any},
    {"topology", Rule::Any}, {"tun-ipv6", Rule::Any}, {"ifconfig", Rule::Any}, {"ifconfig-ipv6", Rule::Any},
    {"ifconfig-nowarn", Rule::Any}, {"ifconfig-noexec", Rule::Any}, {"route", Rule::Any},
    {"route-ipv6", Rule::Any}, {"route-gateway", Rule::Any}, {"route-ipv6-gateway", Rule::Any},
    {"route-metric", Rule::Any}, {"route-delay", Rule::Any}, {"route-nopull", Rule::Any},
    {"route-noexec", Rule::Any}, {"allow-pull-fqdn", Rule::Any}, {"redirect-gateway", Rule::Any},
    {"redirect-private", Rule::Any}, {"block-ipv6", Rule::Any}, {"dhcp-option", Rule::Any}, {"dns", Rule::Any},
    {"pull-filter", Rule::Any}, {"push-peer-info", Rule::Any}, {"client-nat", Rule::Any}, {"lladdr", Rule::Any},
    {"connect-retry", Rule::Any}, {"connect-retry-max", Rule::Any}, {"connect-timeout", Rule::Any},
    {"server-poll-timeout", Rule::Any}, {"http-proxy", Rule::HttpProxy}, {"http-proxy-option", Rule::Any},
    {"http-proxy-retry", Rule::Any}, {"http-proxy-timeout", Rule::Any}, {"socks-proxy", Rule::SocksProxy},
    {"socks-proxy-retry", Rule::Any}, {"explicit-exit-notify", Rule::Any}, {"keepalive", Rule::Any},
    {"ping", Rule::Any}, {"ping-restart", Rule::Any}, {"ping-exit", Rule::Any}, {"ping-timer-rem", Rule::Any},
    {"inactive", Rule::Any}, {"session-timeout", Rule::Any}, {"tun-mtu", Rule::Any}, {"tun-mtu-extra", Rule::Any},
    {"link-mtu", Rule::Any}, {"mssfix", Rule::Any}, {"fragment", Rule::Any}, {"mtu-disc", Rule::Any},
    {"mtu-test", Rule::Any}, {"sndbuf", Rule::Any}, {"rcvbuf", Rule::Any}, {"txqueuelen", Rule::Any},
    {"socket-flags", Rule::Any}, {"fast-io", Rule::Any}, {"passtos", Rule::Any}, {"comp-lzo", Rule::Any},
    {"comp-noadapt", Rule::Any}, {"compress", Rule::Any}, {"allow-compression", Rule::Any}, {"cipher", Rule::Any},
    {"data-ciphers", Rule::Any}, {"data-ciphers-fallback", Rule::Any}, {"ncp-ciphers", Rule::Any},
    {"ncp-disable", Rule::Any}, {"auth", Rule::Any}, {"tls-cipher", Rule::Any}, {"tls-ciphersuites", Rule::Any},
    {"tls-groups", Rule::Any}, {"ecdh-curve", Rule::Any}, {"tls-version-min", Rule::Any},
    {"tls-version-max", Rule::Any}, {"tls-cert-profile", Rule::Any}, {"key-direction", Rule::Any},
    {"key-method", Rule::Any}, {"remote-cert-tls", Rule::Any}, {"remote-cert-ku", Rule::Any},
    {"remote-cert-eku", Rule::Any}, {"ns-cert-type", Rule::Any}, {"verify-x509-name", Rule::Any},
    {"verify-hash", Rule::Any}, {"peer-fingerprint", Rule::Any}, {"hand-window", Rule::Any},
    {"tran-window", Rule::Any}, {"tls-timeout", Rule::Any}, {"tls-exit", Rule::Any}, {"single-session", Rule::Any},
    {"reneg-sec", Rule::Any}, {"reneg-bytes", Rule::Any}, {"reneg-pkts", Rule::Any}, {"replay-window", Rule::Any},
    {"no-replay", Rule::Any}, {"mute-replay-warnings", Rule::Any}, {"auth-nocache", Rule::Any},
    {"auth-retry", Rule::Any}, {"static-challenge", Rule::Any}, {"remap-usr1", Rule::Any}, {"verb", Rule::Any},
    {"mute", Rule::Any}, {"suppress-timestamps", Rule::Any}, {"machine-readable-output", Rule::Any},
    {"disable-occ", Rule::Any}, {"disable-dco", Rule::Any}, {"ignore-unknown-option", Rule::Any},
    // Windows-only settings that profiles carry for every platform.
    {"block-outside-dns", Rule::Any}, {"register-dns", Rule::Any}, {"ip-win32", Rule::Any},
    {"route-method", Rule::Any}, {"tap-sleep", Rule::Any},
    {"script-security", Rule::ScriptSecurity}, {"setenv", Rule::Setenv},
    {"ca", Rule::File}, {"cert", Rule::File}, {"key", Rule::File}, {"extra-certs", Rule::File},
    {"pkcs12", Rule::File}, {"tls-crypt", Rule::File}, {"dh", Rule::FileOrNone}, {"tls-auth", Rule::FileDirection},
    {"secret", Rule::FileDirection}, {"tls-crypt-v2", Rule::TlsCryptV2}, {"crl-verify", Rule::CrlFile},
    {"auth-user-pass", Rule::OptionalFile}, {"askpass", Rule::OptionalFile}, {"connection", Rule::InlineOnly},
};

// Directives whose argument may be given as an inline block of data.
constexpr std::string_view kInlineBlocks[] = {
    "ca", "cert", "key", "extra-certs", "pkcs12", "tls-crypt", "dh", "tls-auth", "secret", "tls-crypt-v2",
    "crl-verify", "auth-user-pass", "askpass", "peer-fingerprint", "http-proxy-user-pass", "connection",
};

// Variables that no program or loader gives a meaning: peer information
// sent to the server (UV_, IV_) and the profile markers OpenVPN Access
// Server writes. Anything else (LD_PRELOAD, PATH, ...) would reach the
// route and interface tools that OpenVPN runs as root.
bool isHarmlessVariable(std::string_view name) {
    return name.starts_with("UV_") || name.starts_with("IV_") || name == "FORWARD_COMPATIBLE" ||
           name == "CLIENT_CERT" || name == "PUSH_PEER_INFO";
}

class Checker {
public:
    explicit Checker(const std::vector<Line>& lines) : lines_(lines) {}

    Findings run() {
        checkLines(0, lines_.size(), false);
        return std::move(findings_);
    }

private:
    void refuse(std::string message) {
        if (!findings_.refusal) findings_.refusal = std::move(message);
    }

    // Lines [first, last); inside a <connection> block when `inConnection`.
    void checkLines(std::size_t first, std::size_t last, bool inConnection) {
        for (std::size_t index = first; index < last && !findings_.refusal; ++index) {
            const Line& line = lines_[index];
            std::string_view content = line.content;
            std::size_t skipped = 0;
            if (line.number == 1 && content.starts_with("\xEF\xBB\xBF")) skipped = 3;  // a byte order mark
            std::string reason;
            auto words = wordsOf(content.substr(skipped), &reason);
            if (!words) {
                refuse(notValid(kProgram, line.number, reason));
                return;
            }
            if (words->empty()) continue;
            for (Word& word : *words) {
                word.begin += skipped;
                word.end += skipped;
            }
            std::string& name = words->front().value;
            if (name.size() >= 3 && name.starts_with("--")) name.erase(0, 2);
            if (words->size() == 1 && name.size() >= 2 && name.front() == '<' && name.back() == '>') {
                index = checkInlineBlock(index, last, name.substr(1, name.size() - 2), inConnection);
                continue;
            }
            checkDirective(*words, 0, line);
        }
    }

    // The inline block opened on line `open`; returns the index of its
    // closing line.
    std::size_t checkInlineBlock(std::size_t open, std::size_t last, const std::string& tag, bool inConnection) {
        const Line& line = lines_[open];
        const bool known =
            std::find(std::begin(kInlineBlocks), std::end(kInlineBlocks), tag) != std::end(kInlineBlocks);
        // Blocks inside a <connection> are refused: OpenVPN ends the outer
        // block at the first "</connection>", whatever it is nested in.
        if (!known || inConnection) {
            refuse(notAllowed(kProgram, tag, line.number));
            return last;
        }
        const std::string closing = "</" + tag + ">";
        for (std::size_t index = open + 1; index < last; ++index) {
            std::string_view content = lines_[index].content;
            while (!content.empty() && isSpace(content.front())) content.remove_prefix(1);
            if (!content.starts_with(closing)) continue;
            if (tag == "connection") checkLines(open + 1, index, true);
            return index;
        }
        refuse(notValid(kProgram, line.number, "the inline block <" + tag + "> is not closed"));
        return last;
    }

    // words[at] is the directive, the words after it its arguments.
    void checkDirective(const std::vector<Word>& words, std::size_t at, const Line& line) {
        const std::string& name = words[at].value;
        const std::span<const Word> arguments(words.begin() + static_cast<std::ptrdiff_t>(at) + 1, words.end());
        const auto directive = std::find_if(std::begin(kDirectives), std::end(kDirectives),
                                            [&](const Directive& d) { return d.name == name; });
        if (directive == std::end(kDirectives) || directive->rule == Rule::InlineOnly) {
            refuse(notAllowed(kProgram, name, line.number));
            return;
        }
        const auto argument = [&](std::size_t i) -> std::string_view {
            return i < arguments.size() ? std::string_view(arguments[i].value) : std::string_view();
        };
        const std::size_t count = arguments.size();
        // Which arguments name files, and whether the arguments are acceptable.
        std::vector<std::size_t> files;
        bool acceptable = true;
        switch (directive->rule) {
            case Rule::Any:
            case Rule::InlineOnly: break;
            case Rule::ScriptSecurity: acceptable = count == 1 && (argument(0) == "0" || argument(0) == "1"); break;
            case Rule::Setenv:
                // "setenv opt X ..." is directive X, with OpenVPN's errors
                // about it lowered to warnings: X is checked as a directive.
                if (argument(0) == "opt") {
                    acceptable = count >= 2;
                    if (!acceptable) break;
                    checkDirective(words, at + 2, line);
                    return;
                }
                acceptable = count >= 1 && isHarmlessVariable(argument(0));
                break;
            case Rule::Device: acceptable = count == 1 && isUsableInterfaceName(argument(0)); break;
            case Rule::File:
                acceptable = count == 1;
                files = {0};
                break;
            case Rule::FileOrNone:
                acceptable = count == 1;
                if (argument(0) != "none") files = {0};
                break;
            case Rule::FileDirection:
                acceptable = count == 1 || (count == 2 && (argument(1) == "0" || argument(1) == "1"));
                files = {0};
                break;
            case Rule::TlsCryptV2:
                acceptable = count == 1 ||
                             (count == 2 && (argument(1) == "force-cookie" || argument(1) == "allow-noncookie"));
                files = {0};
                break;
            case Rule::CrlFile:
                acceptable = count == 1;
                files = {0};
                break;
            case Rule::OptionalFile:
                acceptable = count <= 1;
                if (count == 1) files = {0};
                break;
            case Rule::HttpProxy:
                acceptable = count >= 2 && count <= 4;
                if (count >= 3 && argument(2) != "auto" && argument(2) != "auto-nct") files = {2};
                break;
            case Rule::SocksProxy:
                acceptable = count >= 1 && count <= 3;
                if (count == 3) files = {2};
                break;
        }
        if (!acceptable) {
            refuse(valueNotAllowed(kProgram, name, line.number));
            return;
        }
        for (const std::size_t i : files) {
            const Word& word = arguments[i];
            addFile(findings_, name, word.value, line, word.begin, word.end - word.begin);
        }
    }

    const std::vector<Line>& lines_;
    Findings findings_;
};

}  // namespace

Findings checkOpenVPN(const std::vector<Line>& lines) { return Checker(lines).run(); }

}  // namespace korvo::configuration_policy
