// Pieces shared by the OpenVPN, vpnc, SSH and OpenConnect backends.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "util/Bundle.h"
#include "backends/ConfigurationPolicy.h"
#include "backends/ConnectionDirectory.h"
#include "util/Error.h"
#include "platform/CodeSigning.h"
#include "util/StoreArea.h"

namespace korvo {

namespace platform {
class TunnelInterfaceConfigurator;
}

// The text without its "background" option lines (any letter case, any
// number of leading dashes, with or without "=value"); *removed tells
// whether a line was dropped. Other lines are kept as they were, joined with
// "\n". Lines behind a comment sign are not recognised as comments.
std::string configTextByRemovingBackgroundOption(std::string_view text, bool* removed);

// The name a connection is known by: the configuration file's last path
// component without its extension.
std::string connectionNameForConfigPath(const std::optional<std::string>& configPath);

// The bundle's auxiliary executable `name`. When it is missing, the path it
// would have (so that the file-system error names it), or "" without a
// bundle.
std::string auxiliaryExecutablePath(const std::optional<Bundle>& bundle, std::string_view name);

// The text as one word for /bin/sh: in single quotes, each single quote
// written as '\''. Nothing inside is expanded ($(...), `...`, $VAR).
std::string shellQuoted(std::string_view text);

// Makes the run directory's file at shared visible to the client at
// clientDirectory/name as well: a hard link, or a symbolic link when the two
// lie on different file systems. Whatever entry had that name is replaced;
// the client's directory is opened without following a final link.
MaybeError linkSharedFileForClient(const std::string& shared, const std::string& clientDirectory,
                                   const std::string& name);

// The one system script that a connection may use instead of the vendor's:
// Debian's vpnc-script (package vpnc-scripts), root's in root-only folders.
inline constexpr std::string_view kSystemConnectionScript = "/usr/share/vpnc-scripts/vpnc-script";

// Copies the program or script at source into the connection's directory
// and keeps the copy only when it is the vendor's (it satisfies
// KorvoProgramRequirement) or, with allowSystemScript, when source is
// kSystemConnectionScript as the system installed it. A script the client
// wrote itself runs nothing as root. Refused: code 69.
Result<std::string> copyVendorProgram(platform::CodeSigning& signing, const ConnectionDirectory& directory,
                                      const std::string& source, std::string_view fileName, mode_t mode,
                                      bool allowSystemScript);

// Reads the client's configuration (bounded, non-blocking, a regular file,
// UTF-8: other bytes are the read error 261),
// checks it against the program's allow-list, copies every file it names
// into the connection's directory, and writes the checked text, naming the
// copies, there as fileName (0600). adjust, when given, changes the checked
// text before it is written. A refused configuration is code 68 with the
// reason.
Result<std::string> copyCheckedConfiguration(const ConnectionDirectory& directory, ConfiguredProgram program,
                                             const std::string& source, std::string_view fileName,
                                             const std::function<std::string(std::string)>& adjust = {});

// The platform services the backends use.
struct BackendServices {
    std::shared_ptr<platform::CodeSigning> codeSigning;
    // The run directory and the helper's store beneath it; null: none, and
    // requests that need it fail.
    std::shared_ptr<StoreArea> storeArea;
    std::shared_ptr<platform::TunnelInterfaceConfigurator> tunnelInterfaces;
};

// What a connection's program reads, copied into its own directory: the
// checked configuration, and a program or script (the askpass program, the
// connection script) kept under copyVendorProgram's rule.
struct ConnectionCopies {
    std::string configuration;
    std::string program;
};

// Makes the connection's directory and both copies. Errors: code 55 without
// a store area, the configuration's read error or refusal (code 68), and a
// refused program (code 69, logged as such).
Result<ConnectionCopies> prepareConnectionCopies(const BackendServices& services, ConfiguredProgram program,
                                                 const std::string& connectionName, const std::string& configPath,
                                                 const std::string& programPath, std::string_view programName,
                                                 mode_t mode, bool allowSystemScript,
                                                 const std::function<std::string(std::string)>& adjust = {});

// A string argument as logs show it: nil as "(null)".
std::string displayText(const std::optional<std::string>& text);

}  // namespace korvo
