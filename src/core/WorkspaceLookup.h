// Finding an installed application by its bundle identifier, as the desktop
// knows it: the desktop entry IDENTIFIER.desktop in the XDG application
// directories, whose Exec= line names the executable inside the application's
// bundle (BUNDLE/Contents/MacOS/NAME).
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace korvo {

// The application directories in lookup order: $XDG_DATA_HOME/applications
// (default ~/.local/share/applications), then each of $XDG_DATA_DIRS
// (default /usr/local/share:/usr/share) with /applications appended.
std::vector<std::string> xdgApplicationDirectories();

// The bundle path of the application, taken from the first directory that
// holds IDENTIFIER.desktop; nullopt when no directory has one, the entry is
// hidden, or its program does not lie inside a bundle.
std::optional<std::string> applicationBundlePathForIdentifier(std::string_view bundleIdentifier,
                                                              const std::vector<std::string>& applicationDirectories);

// The bundle that contains the executable named by a desktop entry's text, or
// nullopt.
std::optional<std::string> bundlePathFromDesktopEntry(std::string_view entryText);

}  // namespace korvo
