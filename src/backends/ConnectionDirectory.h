// The directory of one connection's files: a root-owned 0700 directory in
// the helper's store area, holding copies of what the connection's program
// opens by path (its configuration, script, askpass program) and its log.
// A program never opens a file that the client could still change or swap.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <span>
#include <string>
#include <string_view>

#include "util/Error.h"
#include "util/StoreArea.h"
#include "util/UniqueFd.h"

namespace korvo {

// The largest program (askpass, script) that is copied.
inline constexpr std::size_t kMaximumCopiedProgramSize = std::size_t{64} << 20;

class ConnectionDirectory {
public:
    // Makes "connections/NAME" anew for the connection named connectionName
    // (characters other than letters, digits, '.', '_' and '-' become '_');
    // a directory of an earlier connection of that name is removed first.
    static Result<ConnectionDirectory> create(const StoreArea& store, std::string_view connectionName);

    const std::string& path() const { return path_; }
    std::string pathOf(std::string_view fileName) const;

    // A new file holding bytes, created with its final mode.
    Result<std::string> writeFile(std::string_view fileName, std::span<const std::uint8_t> bytes, mode_t mode) const;

    // Decides on a copied program: its copy (open), and the client's file it
    // came from (open, and its resolved path) for rules about where it lies.
    using ProgramCheck = std::function<bool(int copy, int source, const std::string& resolvedSource)>;

    // Copies the program at source (opened non-blocking, a regular file of at
    // most kMaximumCopiedProgramSize bytes) with the given mode, and keeps
    // the copy only when check accepts it: what was checked is what the
    // program will run, whatever happens to the client's file afterwards.
    // resolvedSource is the path of the file that was actually opened. The error of a refused program is
    // code 69, "Cannot verify signature of executable at path SOURCE".
    Result<std::string> copyProgram(const std::string& source, std::string_view fileName, mode_t mode,
                                    const ProgramCheck& check) const;

private:
    ConnectionDirectory(UniqueFd fd, std::string path) : fd_(std::move(fd)), path_(std::move(path)) {}

    UniqueFd fd_;
    std::string path_;
};

}  // namespace korvo
