// File-system operations that report failures as Foundation-style errors.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "util/Error.h"

namespace korvo {

bool fileExists(const std::string& path);
bool isDirectory(const std::string& path);

// The most that readFile reads: configurations, scripts and desktop entries
// are far smaller.
inline constexpr std::size_t kMaximumReadFileSize = std::size_t{4} << 20;

// Reads a regular file of at most kMaximumReadFileSize bytes. Anything else
// (a FIFO, a device such as /dev/zero, a larger file) fails at once with a
// read error, without blocking and without reading on.
Result<Data> readFile(const std::string& path);
// Reads the file as UTF-8 text; bytes that are not UTF-8 give a read error
// (code 261, as Foundation reports an inapplicable encoding).
Result<std::string> readUTF8File(const std::string& path);

// Writes through a temporary file in the same directory and a rename, so a
// reader sees either the old or the new contents, never a mix.
MaybeError writeFileAtomically(const std::string& path, std::span<const std::uint8_t> bytes, mode_t mode = 0644);
MaybeError writeFileAtomically(const std::string& path, std::string_view text, mode_t mode = 0644);

// Writes all bytes to fd, going on after interruptions and partial writes;
// false (errno set) on a failure.
bool writeAll(int fd, std::span<const std::uint8_t> bytes);

MaybeError removeFile(const std::string& path);
// Changes the mode of the file at path itself: a symbolic link there is an
// error, never followed.
MaybeError setPosixPermissions(const std::string& path, mode_t mode);
// Creates the directory and any missing parents with the given mode.
MaybeError createDirectory(const std::string& path, mode_t mode);
// Entry names of a directory, "." and ".." left out, in the order the
// file system gives them.
Result<std::vector<std::string>> directoryEntries(const std::string& path);

// The last path component without its extension ("/a/b.conf" gives "b").
std::string lastPathComponentWithoutExtension(std::string_view path);
// Joins a directory and a name with exactly one "/".
std::string appendPathComponent(std::string_view directory, std::string_view name);

}  // namespace korvo
