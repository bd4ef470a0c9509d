// What a VPN program's configuration may say before the helper starts the
// program on it as root. A configuration is data: it may choose servers,
// ciphers, routes and credentials, never a program, plugin, provider or
// engine to load, nor a file to write. Each program has an allow-list of
// directives; anything not on it is refused. Files that a directive makes the
// program read are named in the text the program gets only as copies that the
// caller made (root-owned, checked): the client's own paths never reach the
// program. docs/configuration-policy.md lists the directives and the reasons.
//
// Pure: no file, process or clock is touched here; the copier does the I/O.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace korvo {

enum class ConfiguredProgram { OpenVPN, SSH, VPNC, OpenConnect };

// Called once for each file that an allowed directive names, in text order,
// and only when the whole text passed the check: the directive's name (as
// written; vpnc's own spelling for vpnc) and the path exactly as the program
// would open it (unquoted, not expanded, always absolute). Returns the path of a copy to name instead, or
// nullopt to refuse the configuration. A copy path must be absolute and made
// of the characters A-Z a-z 0-9 / . _ - + , @ only, so that it needs no
// quoting in any of the formats. An empty copier refuses every file.
using ReferencedFileCopier =
    std::function<std::optional<std::string>(std::string_view directive, std::string_view path)>;

struct ConfigurationCheck {
    // Why the configuration must not be used, naming the directive and its
    // line ("Directive 'up' is not allowed in an OpenVPN configuration
    // (line 3)."). nullopt when it may be used.
    std::optional<std::string> refusal;
    // The text to hand to the program: the input with every referenced path
    // replaced by its copy, byte for byte the same otherwise. Empty when
    // refused.
    std::string text;
};

// Checks `text`, a configuration file of `program` as the client wrote it:
// an OpenVPN configuration (--config), an ssh client configuration (-F), a
// vpnc configuration, or an OpenConnect configuration (--config: long option
// names without dashes, "name=value" or "name value" or "name").
ConfigurationCheck checkConfiguration(ConfiguredProgram program, std::string_view text,
                                      const ReferencedFileCopier& copier);

}  // namespace korvo
