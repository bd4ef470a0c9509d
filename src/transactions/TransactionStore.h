// The transaction store: every open network transaction's record in memory,
// mirrored on disk in the store area's "network-transactions" directory as
// one property-list file per transaction (ID-HASH.plist) and an append-only
// journal beside it (ID-HASH.journal) that takes route changes between
// rewrites of the file. An index by route identity answers "who owns this
// route" without walking every record.
//
// One lock guards records, index and files. Methods whose name ends in
// Locked expect the caller to hold it (lock()); the others take it.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "transactions/TransactionRecord.h"
#include "util/Error.h"
#include "util/StoreArea.h"
#include "util/UniqueFd.h"
#include "util/Value.h"

namespace korvo {

class TransactionStore {
public:
    // area null: records are kept in memory only.
    explicit TransactionStore(std::shared_ptr<const StoreArea> area);
    ~TransactionStore();
    TransactionStore(const TransactionStore&) = delete;
    TransactionStore& operator=(const TransactionStore&) = delete;

    std::recursive_mutex& lock() const { return mutex_; }

    std::string directoryPath() const;
    std::string snapshotPath(const std::string& identifier) const;
    std::string journalPath(const std::string& identifier) const;
    // Makes the directory (root 0700) if needed; its error otherwise.
    MaybeError ensureDirectory() const;

    // --- Loading (once, before any request) ------------------------------------
    // Reads every "*.plist" record and replays its journal. Returns, per
    // transaction, the routes whose add was begun but never finished; the
    // caller deals with them and then calls completeLoad, which rewrites
    // each replayed record and drops its journal.
    std::vector<std::pair<std::string, Dictionary>> load();
    void completeLoad();

    // --- Records ---------------------------------------------------------------
    Dictionary* recordLocked(const std::string& identifier);
    // created (optional) tells whether the full record was made just now.
    Dictionary& recordCreatingIfMissingLocked(const std::string& identifier, bool* created = nullptr);
    // Puts record under identifier, replacing what was there.
    void replaceLocked(const std::string& identifier, Dictionary record);
    // Replaces the record and its files: the journal of the record it
    // replaces goes first, so that it is never replayed over this one.
    MaybeError replaceAndPersistLocked(const std::string& identifier, Dictionary record);
    // Drops the record from memory (its files stay: removePersisted).
    void eraseLocked(const std::string& identifier);
    std::vector<std::string> identifiersLocked() const;
    std::map<std::string, Dictionary> copyOfRecords() const;

    // Writes the record's file atomically (code 1 error when that fails).
    MaybeError persistLocked(const std::string& identifier);
    // Removes the journal and the record's file; a missing file is fine.
    MaybeError removePersisted(const std::string& identifier);

    // --- Ownership -------------------------------------------------------------
    // A transaction other than excluding whose routes hold identity.
    std::optional<std::string> ownerLocked(const RouteIdentity& identity,
                                           const std::optional<std::string>& excluding) const;
    bool listsLocked(const std::string& identifier, const RouteIdentity& identity) const;

    // --- Route recording through the journal ----------------------------------
    // Before adding a route: makes the record if needed (and its file) and
    // writes the intent. The sequence number to commit or abandon.
    Result<std::uint64_t> beginRouteAdd(const std::string& identifier, const Dictionary& operation);
    // After the add: lists the route (once) and notes the commit.
    MaybeError commitRouteAdd(const std::string& identifier, std::uint64_t sequence, const Dictionary& operation);
    // The add failed: a record that the intent made and that is still
    // empty goes again.
    void abandonRouteAdd(const std::string& identifier, std::uint64_t sequence);
    // After a delete: the route is no longer the transaction's.
    MaybeError recordRouteDelete(const std::string& identifier, const Dictionary& operation);
    // At the end of a request: writes what is pending and syncs each journal
    // that changed, then (after the reply, as it may take a while) folds
    // each into its record file when no other request has an add under way
    // on that transaction.
    void syncJournals();
    void foldJournals();

private:
    struct Journal;

    void indexLocked(const std::string& identifier, const Dictionary& record, int delta);
    Journal& journalLocked(const std::string& identifier);
    MaybeError appendLocked(const std::string& identifier, Journal& journal, const std::string& line);
    KorvoError persistError(const std::string& identifier) const;

    std::shared_ptr<const StoreArea> area_;
    mutable std::recursive_mutex mutex_;
    std::map<std::string, Dictionary> records_;
    // Route identity key -> transactions listing it (with how often).
    std::unordered_map<std::string, std::map<std::string, int>> owners_;
    std::map<std::string, std::unique_ptr<Journal>> journals_;
    // Records created by an intent, until it is committed or abandoned.
    std::map<std::uint64_t, std::string> createdByIntent_;
    std::uint64_t nextSequence_ = 1;
    // Files read at load that are not the record's own name, and journals
    // that were replayed: rewritten or removed by completeLoad.
    std::map<std::string, std::vector<std::string>> loadedFiles_;
    std::set<std::string> replayed_;
};

}  // namespace korvo
