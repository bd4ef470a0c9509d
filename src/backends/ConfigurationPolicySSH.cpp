// ssh client configurations (ssh -F), read as ssh reads them: the keyword,
// in any letter case, ends at white space or at one "=" and may be written
// in double quotes; the arguments are words with double or single quotes and
// backslash escapes, and a word beginning with "#" starts a comment. Host
// blocks are plain directives; Match criteria are checked one by one.
#include <algorithm>
#include <iterator>
#include <span>

#include "backends/ConfigurationPolicyParts.h"

namespace korvo::configuration_policy {

namespace {

constexpr ConfiguredProgram kProgram = ConfiguredProgram::SSH;
constexpr std::string_view kWhitespace = " \t\r\n";

struct Word {
    std::string value;
    std::size_t begin = 0;  // the written word in the line, quotes included
    std::size_t end = 0;
};

std::size_t whitespaceFrom(std::string_view s, std::size_t at) {
    const std::size_t end = s.find_first_not_of(kWhitespace, std::min(at, s.size()));
    return end == std::string_view::npos ? s.size() : end;
}

// ssh's strdelim: the word of s at *at, ending at white space, at one "="
// or after a double-quoted part. *at becomes npos after the last word.
// nullopt at the end, or with *unclosed set for a quote left open.
std::optional<std::string> strdelim(std::string_view s, std::size_t* at, bool* unclosed) {
    if (*at == std::string_view::npos) return std::nullopt;
    const std::size_t start = *at;
    const std::size_t stop = s.find_first_of(" \t\r\n\"=", start);
    if (stop == std::string_view::npos) {
        *at = std::string_view::npos;
        return std::string(s.substr(start));
    }
    if (s[stop] == '"') {
        const std::size_t close = s.find('"', stop + 1);
        if (close == std::string_view::npos) {
            *unclosed = true;
            return std::nullopt;
        }
        *at = whitespaceFrom(s, close + 1);
        return std::string(s.substr(start, stop - start)) + std::string(s.substr(stop + 1, close - stop - 1));
    }
    std::size_t next = whitespaceFrom(s, stop + 1);
    if (s[stop] != '=' && next < s.size() && s[next] == '=') next = whitespaceFrom(s, next + 1);
    *at = next;
    return std::string(s.substr(start, stop - start));
}

// ssh's argv_split with comments: the words of s; `base` is where s begins
// in its line. nullopt for a quote left open.
std::optional<std::vector<Word>> argvSplit(std::string_view s, std::size_t base) {
    std::vector<Word> words;
    for (std::size_t i = 0; i < s.size(); ++i) {
        if (s[i] == ' ' || s[i] == '\t') continue;
        if (s[i] == '#') break;
        Word word;
        word.begin = base + i;
        char quote = 0;
        for (; i < s.size(); ++i) {
            const char c = s[i];
            if (c == '\\') {
                const char next = i + 1 < s.size() ? s[i + 1] : '\0';
                if (next == '\'' || next == '"' || next == '\\' || (quote == 0 && next == ' ')) ++i;
                word.value += s[i];
            } else if (quote == 0 && (c == ' ' || c == '\t')) {
                break;
            } else if (quote == 0 && (c == '"' || c == '\'')) {
                quote = c;
            } else if (quote != 0 && c == quote) {
                quote = 0;
            } else {
                word.value += c;
            }
        }
        if (i >= s.size() && quote != 0) return std::nullopt;
        word.end = base + i;
        words.push_back(std::move(word));
    }
    return words;
}

enum class Rule {
    Any,             // arguments are data
    OnlyNo,          // "no": anything else uses root's agent, X11, Kerberos or host keys, or detaches
    OnlyNone,        // "none": anything else names a socket or a library
    Match,           // criteria other than exec
    TunnelDevice,    // any|N[:any|N]
    LocalForward,    // the local listener is a port, never a socket file
    RemoteForward,   // the local target is a host and port, never a socket file
    DynamicForward,  // the local listener is a port, never a socket file
    File,            // one FILE
    KnownHostsFiles, // FILE..., "none" and "/dev/null" as they are
};

struct Directive {
    std::string_view keyword;  // lower case
    Rule rule;
};

// What a tunnel configuration may say. Everything else is refused: commands
// (ProxyCommand, ProxyJump, LocalCommand, KnownHostsCommand, RemoteCommand),
// libraries (SecurityKeyProvider, XAuthLocation), Include, SendEnv and
// socket-file options.
constexpr Directive kDirectives[] = {
    {"host", Rule::Any}, {"match", Rule::Match}, {"hostname", Rule::Any}, {"port", Rule::Any}, {"user", Rule::Any},
    {"identitiesonly", Rule::Any}, {"stricthostkeychecking", Rule::Any}, {"serveraliveinterval", Rule::Any},
    {"serveralivecountmax", Rule::Any}, {"exitonforwardfailure", Rule::Any}, {"compression", Rule::Any},
    {"ciphers", Rule::Any}, {"macs", Rule::Any}, {"kexalgorithms", Rule::Any}, {"hostkeyalgorithms", Rule::Any},
    {"pubkeyacceptedalgorithms", Rule::Any}, {"pubkeyacceptedkeytypes", Rule::Any},
    {"casignaturealgorithms", Rule::Any}, {"tunnel", Rule::Any}, {"preferredauthentications", Rule::Any},
    {"pubkeyauthentication", Rule::Any}, {"passwordauthentication", Rule::Any},
    {"kbdinteractiveauthentication", Rule::Any}, {"challengeresponseauthentication", Rule::Any},
    {"batchmode", Rule::Any}, {"connecttimeout", Rule::Any}, {"connectionattempts", Rule::Any},
    {"loglevel", Rule::Any}, {"logverbose", Rule::Any}, {"syslogfacility", Rule::Any}, {"addressfamily", Rule::Any},
    {"bindaddress", Rule::Any}, {"bindinterface", Rule::Any}, {"hostkeyalias", Rule::Any},
    {"checkhostip", Rule::Any}, {"visualhostkey", Rule::Any}, {"updatehostkeys", Rule::Any},
    {"hashknownhosts", Rule::Any}, {"fingerprinthash", Rule::Any}, {"verifyhostkeydns", Rule::Any},
    {"nohostauthenticationforlocalhost", Rule::Any}, {"requiredrsasize", Rule::Any}, {"ipqos", Rule::Any},
    {"tcpkeepalive", Rule::Any}, {"rekeylimit", Rule::Any}, {"escapechar", Rule::Any}, {"requesttty", Rule::Any},
    {"sessiontype", Rule::Any}, {"stdinnull", Rule::Any}, {"setenv", Rule::Any},
    {"clearallforwardings", Rule::Any}, {"gatewayports", Rule::Any}, {"permitremoteopen", Rule::Any},
    {"numberofpasswordprompts", Rule::Any}, {"canonicalizehostname", Rule::Any},
    {"canonicaldomains", Rule::Any}, {"canonicalizemaxdots", Rule::Any},
    {"canonicalizefallbacklocal", Rule::Any}, {"canonicalizepermittedcnames", Rule::Any},
    {"ignoreunknown", Rule::Any}, {"usekeychain", Rule::Any}, {"channeltimeout", Rule::Any},
    {"obscurekeystroketiming", Rule::Any}, {"tag", Rule::Any},
    {"forwardagent", Rule::OnlyNo}, {"forwardx11", Rule::OnlyNo}, {"forwardx11trusted", Rule::OnlyNo},
    {"permitlocalcommand", Rule::OnlyNo}, {"controlmaster", Rule::OnlyNo}, {"controlpersist", Rule::OnlyNo},
    {"gssapiauthentication", Rule::OnlyNo}, {"gssapidelegatecredentials", Rule::OnlyNo},
    {"gssapikeyexchange", Rule::OnlyNo}, {"hostbasedauthentication", Rule::OnlyNo},
    {"enablesshkeysign", Rule::OnlyNo}, {"addkeystoagent", Rule::OnlyNo},
    {"forkafterauthentication", Rule::OnlyNo},
    {"controlpath", Rule::OnlyNone}, {"identityagent", Rule::OnlyNone}, {"pkcs11provider", Rule::OnlyNone},
    {"tunneldevice", Rule::TunnelDevice}, {"localforward", Rule::LocalForward},
    {"remoteforward", Rule::RemoteForward}, {"dynamicforward", Rule::DynamicForward},
    {"identityfile", Rule::File}, {"certificatefile", Rule::File}, {"revokedhostkeys", Rule::File},
    {"userknownhostsfile", Rule::KnownHostsFiles}, {"globalknownhostsfile", Rule::KnownHostsFiles},
};

bool isTunnelUnit(std::string_view unit) {
    return unit == "any" ||
           (!unit.empty() && std::all_of(unit.begin(), unit.end(), [](char c) { return c >= '0' && c <= '9'; }));
}

bool isTunnelDevice(std::string_view device) {
    const std::size_t colon = device.find(':');
    if (colon == std::string_view::npos) return isTunnelUnit(device);
    return isTunnelUnit(device.substr(0, colon)) && isTunnelUnit(device.substr(colon + 1));
}

// A forwarding end on this machine: a socket file if it holds a "/".
bool isLocalSocketFile(std::string_view end) { return end.find('/') != std::string_view::npos; }

// The first Match criterion that is refused, or nullopt. `criteria` is the
// list as one tokenizer split it; each criterion but all, canonical and
// final takes the next word as its argument.
std::optional<std::string> refusedCriterion(const std::vector<std::string>& criteria) {
    for (std::size_t i = 0; i < criteria.size(); ++i) {
        std::string_view criterion = criteria[i];
        if (criterion.empty() || criterion.front() == '#') break;
        if (criterion.front() == '!') criterion.remove_prefix(1);
        const std::string lower = asciiLowercase(criterion);
        if (lower == "all" || lower == "canonical" || lower == "final") continue;
        if (lower == "host" || lower == "originalhost" || lower == "user" || lower == "localuser" ||
            lower == "localnetwork" || lower == "tagged") {
            ++i;
            continue;
        }
        return "Match " + lower;
    }
    return std::nullopt;
}

class Checker {
public:
    explicit Checker(const std::vector<Line>& lines) : lines_(lines) {}

    Findings run() {
        for (const Line& line : lines_) {
            if (!checkLine(line)) break;
        }
        return std::move(findings_);
    }

private:
    bool refuse(std::string message) {
        findings_.refusal = std::move(message);
        return false;
    }

    bool checkLine(const Line& line) {
        std::string_view content = line.content;
        while (!content.empty() && (content.back() == ' ' || content.back() == '\t' || content.back() == '\f')) {
            content.remove_suffix(1);
        }
        if (content.empty()) return true;
        std::size_t at = 0;
        bool unclosed = false;
        auto keyword = strdelim(content, &at, &unclosed);
        if (keyword && keyword->empty()) keyword = strdelim(content, &at, &unclosed);  // leading white space
        if (unclosed) return refuse(notValid(kProgram, line.number, "a quotation mark is not closed"));
        if (!keyword || keyword->empty() || keyword->front() == '#') return true;

        const std::size_t restStart = at == std::string_view::npos ? content.size() : whitespaceFrom(content, at);
        const std::string_view rest = content.substr(restStart);
        const auto words = argvSplit(rest, restStart);
        if (!words) return refuse(notValid(kProgram, line.number, "a quotation mark is not closed"));

        const std::string lower = asciiLowercase(*keyword);
        const auto directive = std::find_if(std::begin(kDirectives), std::end(kDirectives),
                                            [&](const Directive& d) { return d.keyword == lower; });
        if (directive == std::end(kDirectives)) return refuse(notAllowed(kProgram, *keyword, line.number));
        return checkArguments(*directive, *keyword, rest, *words, line);
    }

    bool checkArguments(const Directive& directive, const std::string& keyword, std::string_view rest,
                        const std::vector<Word>& words, const Line& line) {
        const auto argument = [&](std::size_t i) -> std::string_view {
            return i < words.size() ? std::string_view(words[i].value) : std::string_view();
        };
        const std::size_t count = words.size();
        bool acceptable = true;
        switch (directive.rule) {
            case Rule::Any: break;
            case Rule::OnlyNo: acceptable = count == 1 && asciiLowercase(argument(0)) == "no"; break;
            case Rule::OnlyNone: acceptable = count == 1 && argument(0) == "none"; break;
            case Rule::Match: return checkMatch(rest, words, line);
            case Rule::TunnelDevice: acceptable = count == 1 && isTunnelDevice(argument(0)); break;
            case Rule::LocalForward:
            case Rule::DynamicForward: acceptable = count >= 1 && !isLocalSocketFile(argument(0)); break;
            case Rule::RemoteForward: acceptable = count >= 1 && !isLocalSocketFile(argument(1)); break;
            case Rule::File:
                if (count != 1) return refuse(valueNotAllowed(kProgram, keyword, line.number));
                addFile(findings_, keyword, words[0].value, line, words[0].begin, words[0].end - words[0].begin);
                break;
            case Rule::KnownHostsFiles:
                if (count == 0) return refuse(valueNotAllowed(kProgram, keyword, line.number));
                for (const Word& word : words) {
                    if (word.value == "none" || word.value == "/dev/null") continue;
                    addFile(findings_, keyword, word.value, line, word.begin, word.end - word.begin);
                }
                break;
        }
        if (!acceptable) return refuse(valueNotAllowed(kProgram, keyword, line.number));
        return true;
    }

    // Match criteria as the ssh versions in use split them: with strdelim
    // (9.2, Debian 12's) and with argv_split (newer ones). Both readings
    // must be harmless.
    bool checkMatch(std::string_view rest, const std::vector<Word>& words, const Line& line) {
        std::vector<std::string> byStrdelim;
        std::size_t at = 0;
        bool unclosed = false;
        while (auto word = strdelim(rest, &at, &unclosed)) {
            if (word->empty()) break;
            byStrdelim.push_back(std::move(*word));
        }
        if (unclosed) return refuse(notValid(kProgram, line.number, "a quotation mark is not closed"));
        std::vector<std::string> byArgvSplit;
        for (const Word& word : words) byArgvSplit.push_back(word.value);
        for (const auto* criteria : {&byStrdelim, &byArgvSplit}) {
            if (auto refused = refusedCriterion(*criteria)) return refuse(notAllowed(kProgram, *refused, line.number));
        }
        return true;
    }

    const std::vector<Line>& lines_;
    Findings findings_;
};

}  // namespace

Findings checkSSH(const std::vector<Line>& lines) { return Checker(lines).run(); }

}  // namespace korvo::configuration_policy
