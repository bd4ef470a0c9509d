#include "process/StartedProcesses.h"

#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <limits>

#include "util/FileSystem.h"
#include "util/Format.h"
#include "util/IntegerScan.h"
#include "util/Log.h"
#include "util/PropertyList.h"
#include "util/UniqueFd.h"

namespace korvo {
namespace {

constexpr std::string_view kTableFileName = "table.plist";

// The integer at key, or -1 when there is none.
std::int64_t integerForKey(const Dictionary& d, const std::string& key) {
    const auto it = d.find(key);
    return it == d.end() ? -1 : it->second.integerValue().value_or(-1);
}

}  // namespace

std::optional<std::uint64_t> processStartTime(pid_t pid) {
    if (pid <= 0) return std::nullopt;
    const auto stat = readUTF8File(formatString("/proc/%d/stat", pid));
    if (!stat) return std::nullopt;
    // The command name (field 2) may hold spaces and parentheses: count
    // the fields after its closing parenthesis. Start time is field 22.
    const auto close = stat->rfind(')');
    if (close == std::string::npos) return std::nullopt;
    std::size_t position = close + 1;
    for (int field = 3; field < 22; ++field) {
        position = stat->find(' ', position + 1);
        if (position == std::string::npos) return std::nullopt;
    }
    const auto value = scanInteger(std::string_view(*stat).substr(position + 1));
    if (!value || value->value < 0) return std::nullopt;
    return static_cast<std::uint64_t>(value->value);
}

StartedProcesses::StartedProcesses(std::shared_ptr<const StoreArea> store) : store_(std::move(store)) {
    load();
    forgetExited();
}

void StartedProcesses::recordStart(pid_t pid, const std::string& executable) {
    const auto startTime = processStartTime(pid);
    if (!startTime) return;  // exited already: nothing to act on later
    std::lock_guard lock(mutex_);
    entries_[pid] = Entry{*startTime, executable, {}};
    save();
}

void StartedProcesses::recordLink(pid_t pid, const std::string& interfaceName) {
    std::lock_guard lock(mutex_);
    const auto it = entries_.find(pid);
    if (it == entries_.end()) return;
    it->second.links.insert(interfaceName);
    save();
}

bool StartedProcesses::stillRunning(pid_t pid, const Entry& entry) const {
    return processStartTime(pid) == entry.startTime;
}

bool StartedProcesses::isStarted(pid_t pid) const {
    std::lock_guard lock(mutex_);
    const auto it = entries_.find(pid);
    return it != entries_.end() && stillRunning(pid, it->second);
}

bool StartedProcesses::isStartedLink(const std::string& interfaceName) const {
    std::lock_guard lock(mutex_);
    for (const auto& [pid, entry] : entries_) {
        if (entry.links.count(interfaceName) != 0) return true;
    }
    return false;
}

StartedProcesses::SignalOutcome StartedProcesses::signal(pid_t pid, int signalNumber) {
    std::lock_guard lock(mutex_);
    const auto it = entries_.find(pid);
    if (it == entries_.end() || pid <= 0) return SignalOutcome::NotStarted;
    // The pidfd holds whichever process has the pid now; only when that one
    // started when ours did is it ours.
    const UniqueFd pidfd(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
    if (!pidfd) return errno == ESRCH ? SignalOutcome::Gone : SignalOutcome::Failed;
    if (!stillRunning(pid, it->second)) return SignalOutcome::Gone;
    if (::syscall(SYS_pidfd_send_signal, pidfd.get(), signalNumber, nullptr, 0) != 0) {
        return errno == ESRCH ? SignalOutcome::Gone : SignalOutcome::Failed;
    }
    return SignalOutcome::Sent;
}

StartedProcesses::OwnerOutcome StartedProcesses::signalExecutable(pid_t pid, int signalNumber,
                                                                  const std::string& expectedExecutable,
                                                                  std::string* actualExecutable) {
    if (actualExecutable) actualExecutable->clear();
    if (pid <= 0) return OwnerOutcome::Gone;
    const UniqueFd pidfd(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
    if (!pidfd) return errno == ESRCH ? OwnerOutcome::Gone : OwnerOutcome::Failed;
    std::error_code error;
    const auto actual = std::filesystem::read_symlink(formatString("/proc/%d/exe", pid), error);
    // Read while the pidfd's process still had the pid: the path is its own.
    if (error || ::syscall(SYS_pidfd_send_signal, pidfd.get(), 0, nullptr, 0) != 0) return OwnerOutcome::Gone;
    if (actualExecutable) *actualExecutable = actual.string();
    const auto resolvedActual = std::filesystem::weakly_canonical(actual, error);
    const auto resolvedExpected = std::filesystem::weakly_canonical(expectedExecutable, error);
    if (error || resolvedActual != resolvedExpected) return OwnerOutcome::OtherExecutable;

    std::lock_guard lock(mutex_);
    const auto it = entries_.find(pid);
    if (it == entries_.end() || !stillRunning(pid, it->second)) return OwnerOutcome::NotStarted;
    if (::syscall(SYS_pidfd_send_signal, pidfd.get(), signalNumber, nullptr, 0) != 0) {
        return errno == ESRCH ? OwnerOutcome::Gone : OwnerOutcome::Failed;
    }
    return OwnerOutcome::Sent;
}

void StartedProcesses::forgetLink(const std::string& interfaceName) {
    std::lock_guard lock(mutex_);
    for (auto& [pid, entry] : entries_) entry.links.erase(interfaceName);
    save();
}

void StartedProcesses::forgetExited() {
    std::lock_guard lock(mutex_);
    std::erase_if(entries_, [this](const auto& item) { return !stillRunning(item.first, item.second); });
    save();
}

void StartedProcesses::load() {
    if (!store_ || !store_->open(StoreDirectory::StartedProcesses)) return;
    const auto bytes = readFile(appendPathComponent(store_->path(StoreDirectory::StartedProcesses), kTableFileName));
    if (!bytes) return;
    const auto table = readPropertyList(std::string_view(reinterpret_cast<const char*>(bytes->data()), bytes->size()));
    const Array* items = table ? table->asArray() : nullptr;
    if (!items) return;
    for (const Value& item : *items) {
        const Dictionary* d = item.asDictionary();
        if (!d) continue;
        const std::int64_t pid = integerForKey(*d, "pid");
        const std::int64_t start = integerForKey(*d, "startTime");
        if (pid <= 0 || pid > std::numeric_limits<pid_t>::max() || start < 0) continue;
        Entry entry{static_cast<std::uint64_t>(start), stringForKey(*d, "executable").value_or(""), {}};
        if (const Array* links = d->count("links") ? d->at("links").asArray() : nullptr) {
            for (const Value& link : *links) {
                if (const auto* name = link.asString()) entry.links.insert(*name);
            }
        }
        entries_[static_cast<pid_t>(pid)] = std::move(entry);
    }
}

void StartedProcesses::save() const {
    if (!store_) return;
    if (!store_->open(StoreDirectory::StartedProcesses)) return;
    Array items;
    for (const auto& [pid, entry] : entries_) {
        Array links;
        for (const auto& link : entry.links) links.emplace_back(link);
        items.emplace_back(Dictionary{{"pid", static_cast<std::int64_t>(pid)},
                                      {"startTime", static_cast<std::int64_t>(entry.startTime)},
                                      {"executable", entry.executable},
                                      {"links", std::move(links)}});
    }
    const std::string path = appendPathComponent(store_->path(StoreDirectory::StartedProcesses), kTableFileName);
    if (auto error = writeFileAtomically(path, writeXMLPropertyList(Value(std::move(items))), 0600)) {
        logMessage(LOG_ERR, "Error: Unable to save the table of started processes: %s", error->displayText().c_str());
    }
}

}  // namespace korvo
