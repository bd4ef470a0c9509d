// Pieces shared by the OpenVPN, vpnc, SSH and OpenConnect backends.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "core/Bundle.h"
#include "core/Error.h"

namespace korvo {

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

// A string argument as logs show it: nil as "(null)".
std::string displayText(const std::optional<std::string>& text);

}  // namespace korvo
