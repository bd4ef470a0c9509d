// The programs the helper started and the network links they made. The
// helper signals only a process in this table and deletes only a link in
// it: a pid or an interface name that a client passes in may belong to any
// other software on the machine (pid 1, someone's tun0).
//
// A process is known by its pid and its start time, so that a pid reused by
// another program never matches. The table is persisted in the helper's
// store area, so that a restarted helper still knows what it started.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>

#include "util/StoreArea.h"

namespace korvo {

// The time a process started, in clock ticks since boot (field 22 of
// /proc/PID/stat); nullopt when there is no such process.
std::optional<std::uint64_t> processStartTime(pid_t pid);

class StartedProcesses {
public:
    // store null: kept in memory only (a unit test, or no store area).
    explicit StartedProcesses(std::shared_ptr<const StoreArea> store);

    // Records a program the helper has just started (or learnt the pid of,
    // such as OpenVPN's once it put itself in the background).
    void recordStart(pid_t pid, const std::string& executable);
    // Records a link that a started program made.
    void recordLink(pid_t pid, const std::string& interfaceName);

    // Whether pid is still the very process that the helper started.
    bool isStarted(pid_t pid) const;
    // Whether the link was made by a program that the helper started.
    bool isStartedLink(const std::string& interfaceName) const;

    enum class SignalOutcome { Sent, NotStarted, Gone, Failed };
    // Signals pid through a pidfd, only when it is a process of the table
    // and still the same one (its start time is checked while the pidfd
    // holds it). Gone when it has exited meanwhile.
    SignalOutcome signal(pid_t pid, int signalNumber);

    // The same for a process that must also still run expectedExecutable:
    // while the pidfd holds the process, /proc/PID/exe is read and, with
    // symbolic links resolved on both sides, compared with it. A process
    // running anything else is OtherExecutable and never signalled, whether
    // it is in the table or not; actualExecutable receives the path the
    // kernel gave (empty when it gave none: Gone).
    enum class OwnerOutcome { Sent, Gone, OtherExecutable, NotStarted, Failed };
    OwnerOutcome signalExecutable(pid_t pid, int signalNumber, const std::string& expectedExecutable,
                                  std::string* actualExecutable);

    // Forgets a link (deleted) or a process that has exited, with its links.
    void forgetLink(const std::string& interfaceName);
    void forgetExited();

private:
    struct Entry {
        std::uint64_t startTime = 0;
        std::string executable;
        std::set<std::string> links;
    };

    void load();
    void save() const;  // with mutex_ held
    bool stillRunning(pid_t pid, const Entry& entry) const;

    std::shared_ptr<const StoreArea> store_;
    mutable std::mutex mutex_;
    std::map<pid_t, Entry> entries_;
};

}  // namespace korvo
