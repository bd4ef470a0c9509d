// /etc/resolv.conf managed for the tunnel's DNS when no systemd-resolved
// runs. The machine's own file is kept byte for byte in a root-only state
// directory under /var/lib (so that it outlives a reboot or a power loss in
// the middle of a tunnel) before the first write, and put back when no
// tunnel DNS remains, but only when the file still holds what the helper
// wrote: a file that another manager (a DHCP client, NetworkManager) wrote
// meanwhile stays, and the saved copy is dropped.
//
// The file is replaced by a rename beside it; a file that is itself a mount
// point (containers bind-mount it) cannot be, and is written in place. A
// symbolic link is never written through: resolv.conf then belongs to the
// tool the link points into, and the helper refuses with a log line.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/linux/dns/DnsPlan.h"
#include "util/Error.h"
#include "util/Value.h"

namespace korvo::platform::dns {

struct ResolvConfPaths {
    std::string resolvConf = "/etc/resolv.conf";
    // Root-only; holds the saved original and what the helper wrote.
    std::string stateDirectory = "/var/lib/Korvo";
};

class ResolvConfFile {
public:
    explicit ResolvConfFile(ResolvConfPaths paths = {});

    // Writes the plan's file, keeping the original first; an empty plan puts
    // the original back (reconciling as above). A file found holding neither
    // the original nor what the helper wrote, while tunnel DNS is in force,
    // was rewritten by another program: its contents become the file to put
    // back later, and the tunnel's settings are written over it again.
    MaybeError apply(const DnsPlan& plan);

    // True while a saved original is kept (tunnel DNS in force).
    bool managing() const;
    // What the helper last wrote, when it manages the file.
    std::optional<std::string> written() const;
    const ResolvConfPaths& paths() const { return paths_; }

private:
    struct State {
        bool hadOriginal = false;
        std::vector<std::string> written;  // contents the helper wrote (the last one, one being written)
    };
    // The current contents; nullopt when there is no file. An error for a
    // link or anything but a regular file.
    Result<std::optional<std::string>> readCurrent() const;
    std::optional<State> loadState() const;
    MaybeError saveState(const State& state) const;
    MaybeError saveOriginal(const std::optional<std::string>& original, State& state) const;
    std::optional<std::string> loadOriginal() const;
    void dropState() const;
    MaybeError restoreOriginal();
    std::string originalPath() const;
    std::string statePath() const;

    ResolvConfPaths paths_;
};

// Whether programs that read the resolv.conf at path reach systemd-resolved:
// a link into resolved's directory, or a file whose only servers are its
// stub listeners (127.0.0.53, 127.0.0.54). With any other file, settings
// made in resolved would not reach glibc's resolver.
bool resolvConfLeadsToResolved(const std::string& path);

// Replaces the file at path with text: through a rename beside it, or in
// place when the file is a mount point. Keeps the file's owner and mode
// (0644 for a new one). Never follows a link.
MaybeError replaceResolverFile(const std::string& path, const std::string& text);

}  // namespace korvo::platform::dns
