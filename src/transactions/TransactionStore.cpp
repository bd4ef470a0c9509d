#include "transactions/TransactionStore.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "transactions/TransactionJournal.h"
#include "util/FileSystem.h"
#include "util/Log.h"
#include "util/PropertyList.h"

namespace korvo {
namespace {

constexpr std::string_view kRecordExtension = ".plist";
constexpr std::string_view kJournalExtension = ".journal";
// A record of tens of thousands of routes is a few megabytes.
constexpr off_t kMaximumStoreFileSize = off_t{256} << 20;
constexpr std::int64_t kFileRemoveNoSuchFileCode = 4;

// The whole regular file at path, not following a link; nullopt otherwise.
std::optional<std::string> readStoreFile(const std::string& path) {
    const UniqueFd fd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat st {};
    if (!fd || ::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode) || st.st_size > kMaximumStoreFileSize) {
        return std::nullopt;
    }
    std::string bytes(static_cast<std::size_t>(st.st_size), '\0');
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::read(fd.get(), bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        done += static_cast<std::size_t>(n);
    }
    bytes.resize(done);
    return bytes;
}

bool hasSuffix(std::string_view text, std::string_view suffix) {
    return text.size() >= suffix.size() && text.substr(text.size() - suffix.size()) == suffix;
}

}  // namespace

struct TransactionStore::Journal {
    UniqueFd fd;
    std::string pending;  // commits and deletes not yet written
    int addsUnderWay = 0;
    bool touched = false;  // changed since the record file was written
    bool synced = true;    // no write since the last sync
};

TransactionStore::TransactionStore(std::shared_ptr<const StoreArea> area) : area_(std::move(area)) {}
TransactionStore::~TransactionStore() = default;

std::string TransactionStore::directoryPath() const {
    return area_ ? area_->path(StoreDirectory::NetworkTransactions) : std::string();
}

std::string TransactionStore::snapshotPath(const std::string& identifier) const {
    return appendPathComponent(directoryPath(), transactionFileStem(identifier) + std::string(kRecordExtension));
}

std::string TransactionStore::journalPath(const std::string& identifier) const {
    return appendPathComponent(directoryPath(), transactionFileStem(identifier) + std::string(kJournalExtension));
}

MaybeError TransactionStore::ensureDirectory() const {
    if (!area_) return std::nullopt;
    auto directory = area_->open(StoreDirectory::NetworkTransactions);
    if (!directory) return directory.error();
    return std::nullopt;
}

KorvoError TransactionStore::persistError(const std::string& identifier) const {
    return errorWithKorvoErrorCode(kGeneralErrorCode,
                                   "Could not persist network transaction snapshot '" + identifier + "'.");
}

// --- Loading -----------------------------------------------------------------

std::vector<std::pair<std::string, Dictionary>> TransactionStore::load() {
    std::vector<std::pair<std::string, Dictionary>> unfinished;
    if (!area_) return unfinished;
    if (auto error = ensureDirectory()) {
        logMessage(LOG_ERR, "Could not prepare network transaction store: %s",
                   error->localizedDescription().value_or("Unknown directory error").c_str());
        return unfinished;
    }
    const std::string directory = directoryPath();
    auto entries = directoryEntries(directory);
    if (!entries) {
        logMessage(LOG_ERR, "Could not read network transaction store: %s",
                   entries.error().localizedDescription().value_or("Unknown read error").c_str());
        return unfinished;
    }
    std::lock_guard lock(mutex_);
    for (const std::string& name : *entries) {
        if (!hasSuffix(name, kRecordExtension) || name.size() == kRecordExtension.size()) continue;
        const std::string path = appendPathComponent(directory, name);
        const auto bytes = readStoreFile(path);
        std::optional<Value> value = bytes ? readPropertyList(*bytes) : std::nullopt;
        Dictionary* record = value ? value->asDictionary() : nullptr;
        if (!record) {
            logMessage(LOG_ERR, "Ignoring invalid network transaction snapshot at '%s'.", path.c_str());
            continue;
        }
        const auto identifier = stringForKey(*record, record_key::identifier);
        if (!identifier || identifier->empty()) {
            logMessage(LOG_ERR, "Ignoring transaction snapshot without valid identifier at '%s'.", path.c_str());
            continue;
        }
        const std::string stem = name.substr(0, name.size() - kRecordExtension.size());
        const std::string journal = appendPathComponent(directory, stem + std::string(kJournalExtension));
        if (const auto lines = readStoreFile(journal); lines && !lines->empty()) {
            for (Dictionary& route : replayTransactionJournal(*record, *lines)) {
                unfinished.emplace_back(*identifier, std::move(route));
            }
            replayed_.insert(*identifier);
        }
        loadedFiles_[*identifier].push_back(path);
        replaceLocked(*identifier, std::move(*record));
    }
    return unfinished;
}

void TransactionStore::completeLoad() {
    std::lock_guard lock(mutex_);
    for (const auto& [identifier, paths] : loadedFiles_) {
        const std::string own = snapshotPath(identifier);
        bool elsewhere = false;
        for (const auto& path : paths) elsewhere = elsewhere || path != own;
        if (!elsewhere && replayed_.count(identifier) == 0) continue;
        if (auto error = persistLocked(identifier)) {
            logMessage(LOG_ERR, "%s", error->displayText().c_str());
            continue;
        }
        for (const auto& path : paths) {
            if (path == own) continue;
            ::unlink(path.c_str());
            ::unlink((path.substr(0, path.size() - kRecordExtension.size()) + std::string(kJournalExtension)).c_str());
        }
        ::unlink(journalPath(identifier).c_str());
    }
    loadedFiles_.clear();
    replayed_.clear();
}

// --- Records -------------------------------------------------------------------

void TransactionStore::indexLocked(const std::string& identifier, const Dictionary& record, int delta) {
    const auto routes = record.find(record_key::activeRoutes);
    if (routes == record.end() || !routes->second.isArray()) return;
    for (const Value& entry : *routes->second.asArray()) {
        const Dictionary* route = entry.asDictionary();
        if (!route) continue;
        const std::string key = RouteIdentity::ofOperation(*route).key();
        auto& holders = owners_[key];
        if ((holders[identifier] += delta) <= 0) holders.erase(identifier);
        if (holders.empty()) owners_.erase(key);
    }
}

Dictionary* TransactionStore::recordLocked(const std::string& identifier) {
    const auto it = records_.find(identifier);
    return it == records_.end() ? nullptr : &it->second;
}

Dictionary& TransactionStore::recordCreatingIfMissingLocked(const std::string& identifier, bool* created) {
    auto [it, inserted] = records_.try_emplace(identifier);
    if (inserted) it->second = fullTransactionRecord(identifier);
    if (created) *created = inserted;
    return it->second;
}

void TransactionStore::replaceLocked(const std::string& identifier, Dictionary record) {
    if (Dictionary* old = recordLocked(identifier)) indexLocked(identifier, *old, -1);
    indexLocked(identifier, record, +1);
    records_[identifier] = std::move(record);
}

MaybeError TransactionStore::replaceAndPersistLocked(const std::string& identifier, Dictionary record) {
    journals_.erase(identifier);
    if (area_) ::unlink(journalPath(identifier).c_str());
    replaceLocked(identifier, std::move(record));
    return persistLocked(identifier);
}

void TransactionStore::eraseLocked(const std::string& identifier) {
    if (Dictionary* old = recordLocked(identifier)) indexLocked(identifier, *old, -1);
    records_.erase(identifier);
    journals_.erase(identifier);
}

std::vector<std::string> TransactionStore::identifiersLocked() const {
    std::vector<std::string> identifiers;
    identifiers.reserve(records_.size());
    for (const auto& [identifier, record] : records_) identifiers.push_back(identifier);
    return identifiers;
}

std::map<std::string, Dictionary> TransactionStore::copyOfRecords() const {
    std::lock_guard lock(mutex_);
    return records_;
}

MaybeError TransactionStore::persistLocked(const std::string& identifier) {
    if (!area_) return std::nullopt;
    const Dictionary* record = recordLocked(identifier);
    if (!record) return std::nullopt;
    if (auto error = ensureDirectory()) return error;
    if (writeFileAtomically(snapshotPath(identifier), writeXMLPropertyList(Value(*record)), 0600)) {
        return persistError(identifier);
    }
    return std::nullopt;
}

MaybeError TransactionStore::removePersisted(const std::string& identifier) {
    if (!area_) return std::nullopt;
    std::lock_guard lock(mutex_);
    journals_.erase(identifier);
    ::unlink(journalPath(identifier).c_str());
    auto error = removeFile(snapshotPath(identifier));
    if (error && error->domain == CocoaErrorDomain && error->code == kFileRemoveNoSuchFileCode) return std::nullopt;
    return error;
}

// --- Ownership -----------------------------------------------------------------

std::optional<std::string> TransactionStore::ownerLocked(const RouteIdentity& identity,
                                                         const std::optional<std::string>& excluding) const {
    const auto it = owners_.find(identity.key());
    if (it == owners_.end()) return std::nullopt;
    for (const auto& [identifier, count] : it->second) {
        if (identifier != excluding) return identifier;
    }
    return std::nullopt;
}

bool TransactionStore::listsLocked(const std::string& identifier, const RouteIdentity& identity) const {
    const auto it = owners_.find(identity.key());
    return it != owners_.end() && it->second.count(identifier) != 0;
}

// --- Journal -------------------------------------------------------------------

TransactionStore::Journal& TransactionStore::journalLocked(const std::string& identifier) {
    auto& journal = journals_[identifier];
    if (!journal) journal = std::make_unique<Journal>();
    return *journal;
}

MaybeError TransactionStore::appendLocked(const std::string& identifier, Journal& journal, const std::string& line) {
    journal.touched = true;
    if (!area_) return std::nullopt;
    if (!journal.fd) {
        if (auto error = ensureDirectory()) return error;
        journal.fd = UniqueFd(::open(journalPath(identifier).c_str(),
                                     O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (!journal.fd) return persistError(identifier);
    }
    journal.synced = false;
    std::string bytes = std::move(journal.pending);
    journal.pending.clear();
    bytes += line;
    if (!writeAll(journal.fd.get(), std::span(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()))) {
        return persistError(identifier);
    }
    return std::nullopt;
}

Result<std::uint64_t> TransactionStore::beginRouteAdd(const std::string& identifier, const Dictionary& operation) {
    std::lock_guard lock(mutex_);
    bool created = false;
    recordCreatingIfMissingLocked(identifier, &created);
    // The journal is read only beside its record: the record's file first.
    if (created) {
        if (auto error = persistLocked(identifier)) return *error;
    }
    const std::uint64_t sequence = nextSequence_++;
    Journal& journal = journalLocked(identifier);
    if (auto error = appendLocked(identifier, journal, journalIntentLine(sequence, operation))) return *error;
    ++journal.addsUnderWay;
    if (created) createdByIntent_[sequence] = identifier;
    return sequence;
}

MaybeError TransactionStore::commitRouteAdd(const std::string& identifier, std::uint64_t sequence,
                                            const Dictionary& operation) {
    std::lock_guard lock(mutex_);
    createdByIntent_.erase(sequence);
    bool created = false;
    Dictionary& record = recordCreatingIfMissingLocked(identifier, &created);
    Journal& journal = journalLocked(identifier);
    if (journal.addsUnderWay > 0) --journal.addsUnderWay;
    journal.touched = true;
    const RouteIdentity identity = RouteIdentity::ofOperation(operation);
    // The index knows every dictionary the record lists: no walk of them.
    if (!listsLocked(identifier, identity)) {
        mutableActiveRoutes(record).emplace_back(operation);
        owners_[identity.key()][identifier] += 1;
    }
    // The transaction was restored while the route was being added: its
    // new record needs a file before a journal line may name it.
    if (created) return persistLocked(identifier);
    journal.pending += journalCommitLine(sequence);
    return std::nullopt;
}

void TransactionStore::abandonRouteAdd(const std::string& identifier, std::uint64_t sequence) {
    std::lock_guard lock(mutex_);
    Journal& journal = journalLocked(identifier);
    if (journal.addsUnderWay > 0) --journal.addsUnderWay;
    journal.pending += journalAbandonLine(sequence);
    journal.touched = true;
    const auto created = createdByIntent_.find(sequence);
    if (created == createdByIntent_.end()) return;
    createdByIntent_.erase(created);
    // Only a record that nothing else has changed since.
    const Dictionary* record = recordLocked(identifier);
    if (!record || journal.addsUnderWay > 0 || *record != fullTransactionRecord(identifier)) return;
    eraseLocked(identifier);
    ::unlink(journalPath(identifier).c_str());
    ::unlink(snapshotPath(identifier).c_str());
}

MaybeError TransactionStore::recordRouteDelete(const std::string& identifier, const Dictionary& operation) {
    std::lock_guard lock(mutex_);
    Dictionary* record = recordLocked(identifier);
    if (!record) return std::nullopt;
    Array& routes = mutableActiveRoutes(*record);
    const RouteIdentity identity = RouteIdentity::ofOperation(operation);
    const std::int64_t index =
        listsLocked(identifier, identity) ? _indexOfRouteIdentity(identity, routes) : kRouteIdentityNotFound;
    if (index != kRouteIdentityNotFound) {
        routes.erase(routes.begin() + index);
        auto holders = owners_.find(identity.key());
        if (holders != owners_.end() && --holders->second[identifier] <= 0) holders->second.erase(identifier);
        if (holders != owners_.end() && holders->second.empty()) owners_.erase(holders);
    }
    Journal& journal = journalLocked(identifier);
    journal.pending += journalDeleteLine(operation);
    journal.touched = true;
    return std::nullopt;
}

void TransactionStore::syncJournals() {
    std::lock_guard lock(mutex_);
    for (auto& [identifier, journal] : journals_) {
        if (!journal->touched) continue;
        if (!journal->pending.empty()) {
            if (auto error = appendLocked(identifier, *journal, std::string())) {
                logMessage(LOG_ERR, "%s", error->displayText().c_str());
                continue;
            }
        }
        if (journal->fd && !journal->synced) ::fdatasync(journal->fd.get());
        journal->synced = true;
    }
}

void TransactionStore::foldJournals() {
    std::lock_guard lock(mutex_);
    for (auto& [identifier, journal] : journals_) {
        if (!journal->touched || !journal->pending.empty() || journal->addsUnderWay > 0) continue;
        // The record file takes everything the journal says; only then
        // may the journal start afresh.
        if (auto error = persistLocked(identifier)) {
            logMessage(LOG_ERR, "%s", error->displayText().c_str());
            continue;
        }
        journal->touched = false;
        if (journal->fd && ::ftruncate(journal->fd.get(), 0) != 0) journal->touched = true;
    }
}

}  // namespace korvo
