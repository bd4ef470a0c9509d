#include "transactions/DnsSnapshots.h"

#include <mutex>

#include "transactions/TransactionRecord.h"

namespace korvo {
namespace {

constexpr std::string_view kStateKeyPrefix = "State:/";

KorvoError snapshotError(const std::string& message) { return errorWithKorvoErrorCode(kGeneralErrorCode, message); }

// Restores one snapshot; the error that ends the walk otherwise.
MaybeError restoreOne(platform::DynamicStoreSession& session, const std::string& key, const Value& snapshot) {
    const Dictionary* saved = snapshot.asDictionary();
    if (key.empty() || !saved) return snapshotError("Stored DNS snapshot contains invalid data.");
    const std::string storeKey = key.starts_with(kStateKeyPrefix) ? key : serviceDnsStoreKey(key);
    const auto had = saved->find("hadPreviousSettings");
    const bool hadPrevious = had != saved->end() && had->second.boolValue().value_or(false);
    MaybeError failure;
    if (hadPrevious) {
        const auto previous = saved->find("previousSettings");
        if (previous == saved->end() || !previous->second.asDictionary()) {
            return snapshotError("Stored DNS snapshot is missing previous settings.");
        }
        failure = session.setValue(storeKey, *previous->second.asDictionary());
    } else {
        failure = session.removeValue(storeKey);
    }
    if (failure) return snapshotError("Could not restore DNS settings for key '" + storeKey + "'.");
    return std::nullopt;
}

}  // namespace

std::string serviceDnsStoreKey(const std::string& serviceIdentifier) {
    return "State:/Network/Service/" + serviceIdentifier + "/DNS";
}

MaybeError captureDynamicStoreSnapshot(TransactionStore& store, const std::string& transactionIdentifier,
                                       const std::string& storeKey,
                                       const std::optional<Dictionary>& currentSettings) {
    if (transactionIdentifier.empty() || storeKey.empty()) return std::nullopt;
    std::lock_guard lock(store.lock());
    Dictionary* record = store.recordLocked(transactionIdentifier);
    if (!record) return std::nullopt;
    Value& snapshots = (*record)[record_key::dnsSnapshots];
    if (!snapshots.isDictionary()) snapshots = Dictionary{};
    Dictionary& byKey = *snapshots.asDictionary();
    if (byKey.count(storeKey) != 0) return std::nullopt;
    Dictionary snapshot{{"hadPreviousSettings", std::int64_t{currentSettings ? 1 : 0}}};
    if (currentSettings) snapshot["previousSettings"] = *currentSettings;
    byKey[storeKey] = std::move(snapshot);
    return store.persistLocked(transactionIdentifier);
}

MaybeError _restoreDNSSnapshotsForTransaction(platform::DynamicStore* dynamicStore, const Dictionary& record) {
    const auto found = record.find(record_key::dnsSnapshots);
    if (found == record.end() || !found->second.asDictionary() || found->second.asDictionary()->empty()) {
        return std::nullopt;
    }
    std::unique_ptr<platform::DynamicStoreSession> session =
        dynamicStore ? dynamicStore->openSession(kDynamicStoreSessionName) : nullptr;
    if (!session) return snapshotError("Could not create dynamic store to restore DNS settings.");
    for (const auto& [key, snapshot] : *found->second.asDictionary()) {
        if (auto error = restoreOne(*session, key, snapshot)) return error;
    }
    return std::nullopt;
}

}  // namespace korvo
