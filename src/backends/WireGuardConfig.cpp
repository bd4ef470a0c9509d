#include "backends/WireGuardConfig.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <unicode/locid.h>
#include <unicode/uchar.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <random>

#include "util/CharacterSets.h"
#include "util/FileSystem.h"
#include "util/Format.h"
#include "util/Log.h"
#include "util/StringAdditions.h"

namespace korvo {
namespace {

constexpr std::string_view kInterfaceNameMarker = "KorvoInterfaceName";
constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

constexpr std::array<std::string_view, 12> kInterfaceKeys = {"privatekey", "listenport", "fwmark", "jc", "jmin", "jmax",
                                                             "s1",         "s2",         "h1",     "h2", "h3",   "h4"};
constexpr std::array<std::string_view, 5> kPeerKeys = {"publickey", "presharedkey", "endpoint", "allowedips",
                                                       "persistentkeepalive"};

// Blanks: tab and the Unicode space separators (no line breaks).
bool isBlank(char32_t c) { return c == 0x09 || u_charType(static_cast<UChar32>(c)) == U_SPACE_SEPARATOR; }

std::string_view trimmedBlanks(std::string_view text) {
    size_t start = std::string_view::npos;
    size_t end = 0;
    size_t position = 0;
    while (position < text.size()) {
        const size_t characterStart = position;
        if (!isBlank(nextCodePoint(text, position))) {
            if (start == std::string_view::npos) start = characterStart;
            end = position;
        }
    }
    return start == std::string_view::npos ? std::string_view() : text.substr(start, end - start);
}

std::string_view trimmedLine(std::string_view text) { return trimmedWhitespaceAndNewlines(text); }

// The text split at every line break; "\r\n" gives an empty line between.
std::vector<std::string_view> lines(std::string_view text) {
    std::vector<std::string_view> result;
    size_t lineStart = 0;
    size_t position = 0;
    while (position < text.size()) {
        const size_t characterStart = position;
        if (isNewline(nextCodePoint(text, position))) {
            result.push_back(text.substr(lineStart, characterStart - lineStart));
            lineStart = position;
        }
    }
    result.push_back(text.substr(lineStart));
    return result;
}

std::string lowercased(std::string_view text) {
    return utf8FromUnicode(unicodeFromUTF8(text).toLower(icu::Locale::getRoot()));
}

template <size_t N>
bool contains(const std::array<std::string_view, N>& keys, std::string_view key) {
    for (const auto k : keys) {
        if (k == key) return true;
    }
    return false;
}

// The text after the first "=", trimmed; nullopt when there is no "=".
std::optional<std::string_view> valueAfterEquals(std::string_view line) {
    const auto equals = line.find('=');
    if (equals == std::string_view::npos) return std::nullopt;
    return trimmedLine(line.substr(equals + 1));
}

enum class Section { None, Interface, Peer };

void fillRandom(std::uint8_t* bytes, size_t count) {
    size_t filled = 0;
    while (filled < count) {
        const ssize_t n = getrandom(bytes + filled, count - filled, 0);
        if (n > 0) {
            filled += static_cast<size_t>(n);
        } else if (n < 0 && errno != EINTR) {
            // No getrandom (a very old kernel): the library's own source.
            std::random_device device;
            for (; filled < count; ++filled) bytes[filled] = static_cast<std::uint8_t>(device());
        }
    }
}

}  // namespace

std::optional<std::string> wireGuardInterfaceNameFromConfig(std::string_view config) {
    for (const auto rawLine : lines(config)) {
        const auto line = trimmedLine(rawLine);
        if (!line.starts_with('#') || line.find(kInterfaceNameMarker) == std::string_view::npos) continue;
        const auto value = valueAfterEquals(line);
        if (value && !value->empty()) return std::string(*value);
    }
    return std::nullopt;
}

std::vector<std::string> wireGuardAddressesFromConfig(std::string_view config) {
    std::vector<std::string> addresses;
    for (const auto rawLine : lines(config)) {
        const auto line = trimmedLine(rawLine);
        if (!line.starts_with("Address")) continue;
        const auto value = valueAfterEquals(line);
        if (!value) continue;
        std::string_view rest = *value;
        for (;;) {
            const auto comma = rest.find(',');
            const auto piece = trimmedLine(rest.substr(0, comma));
            if (!piece.empty()) addresses.emplace_back(piece);
            if (comma == std::string_view::npos) break;
            rest.remove_prefix(comma + 1);
        }
    }
    return addresses;
}

std::string wireGuardControlSocketPath(std::string_view interfaceName, std::string_view directory) {
    return appendPathComponent(directory, std::string(interfaceName) + ".sock");
}

std::string wireGuardRuntimeConfiguration(std::string_view config) {
    std::string output;
    Section section = Section::None;
    for (const auto rawLine : lines(config)) {
        std::string_view line = trimmedLine(rawLine);
        if (line.starts_with(kByteOrderMark)) line.remove_prefix(kByteOrderMark.size());

        if (line.empty()) {
            // Blank lines collapse to one, and none leads the output.
            if (!output.empty() && !output.ends_with("\n\n")) appendStringLine(output, "");
            continue;
        }
        if (line.starts_with('#') || line.starts_with(';')) continue;

        if (line.starts_with('[') && line.ends_with(']')) {
            const std::string name = lowercased(trimmedLine(line.substr(1, line.size() - 2)));
            if (name == "interface" || name == "peer") {
                section = name == "interface" ? Section::Interface : Section::Peer;
                appendStringLine(output, line);
            } else {
                section = Section::None;
            }
            continue;
        }

        const auto equals = line.find('=');
        if (equals == std::string_view::npos) continue;
        const auto key = trimmedBlanks(line.substr(0, equals));
        const std::string lowerKey = lowercased(key);

        if (section == Section::Peer && lowerKey == "endpoint") {
            const std::string endpoint = wireGuardIPv4Endpoint(trimmedLine(line.substr(equals + 1)));
            appendFormatLine(output, "%.*s = %s", static_cast<int>(key.size()), key.data(), endpoint.c_str());
            continue;
        }
        if ((section == Section::Interface && contains(kInterfaceKeys, lowerKey)) ||
            (section == Section::Peer && contains(kPeerKeys, lowerKey))) {
            appendStringLine(output, line);
        }
    }
    return output;
}

std::string wireGuardIPv4Endpoint(std::string_view endpoint) {
    const std::string value(trimmedLine(endpoint));
    const auto colon = value.rfind(':');
    if (value.empty() || value.starts_with('[') || colon == std::string::npos || colon == 0 ||
        colon == value.size() - 1) {
        return std::string(endpoint);
    }
    const std::string host = value.substr(0, colon);
    const std::string port = value.substr(colon + 1);
    if (isValidIPAddress(host)) return std::string(endpoint);

    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* found = nullptr;
    const int status = getaddrinfo(host.c_str(), port.c_str(), &hints, &found);
    const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> results(found, freeaddrinfo);
    if (status != 0 || !found) {
        logMessage(LOG_NOTICE,
                   "Could not resolve WireGuard endpoint host '%s' to an IPv4 address for runtime configuration: %s",
                   host.c_str(), gai_strerror(status));
        return std::string(endpoint);
    }

    std::string rewritten;
    for (const addrinfo* entry = found; entry; entry = entry->ai_next) {
        if (entry->ai_family != AF_INET || !entry->ai_addr) continue;
        char address[INET_ADDRSTRLEN] = {};
        const auto* ipv4 = reinterpret_cast<const sockaddr_in*>(entry->ai_addr);
        if (inet_ntop(AF_INET, &ipv4->sin_addr, address, sizeof address)) rewritten = std::string(address) + ":" + port;
        break;
    }
    if (!rewritten.empty() && rewritten != value) {
        logMessage(LOG_NOTICE, "Rewriting WireGuard endpoint '%s' to IPv4 endpoint '%s' for runtime configuration.",
                   value.c_str(), rewritten.c_str());
    }
    return rewritten.empty() ? std::string(endpoint) : rewritten;
}

std::optional<std::string> netmaskStringForPrefixLength(long prefixLength) {
    if (prefixLength < 0 || prefixLength > 32) return std::nullopt;
    const std::uint32_t mask = prefixLength == 0 ? 0 : ~std::uint32_t{0} << (32 - prefixLength);
    return std::to_string(mask >> 24) + "." + std::to_string((mask >> 16) & 0xFF) + "." +
           std::to_string((mask >> 8) & 0xFF) + "." + std::to_string(mask & 0xFF);
}

std::string randomUUIDString() {
    std::uint8_t bytes[16];
    fillRandom(bytes, sizeof bytes);
    bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0F) | 0x40);  // version 4
    bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80);  // RFC 4122 variant
    std::string text;
    for (size_t i = 0; i < sizeof bytes; ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
        text += formatString("%02X", bytes[i]);
    }
    return text;
}

}  // namespace korvo
