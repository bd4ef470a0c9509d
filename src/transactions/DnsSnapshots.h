// The dynamic-store values a transaction replaced: saved before the first
// change of each key, written back (or the key removed) when the
// transaction is undone.
#pragma once

#include <optional>
#include <string>

#include "platform/DynamicStore.h"
#include "transactions/TransactionStore.h"
#include "util/Error.h"
#include "util/Value.h"

namespace korvo {

inline constexpr const char* kDynamicStoreSessionName = "com.tallowmar.korvo.utility";

// Saves currentSettings under storeKey in the transaction's record unless a
// snapshot of that key is there already, and persists the record. Nothing
// happens for an empty identifier or key, or a transaction without a record.
MaybeError captureDynamicStoreSnapshot(TransactionStore& store, const std::string& transactionIdentifier,
                                       const std::string& storeKey,
                                       const std::optional<Dictionary>& currentSettings);

// "State:/Network/Service/ID/DNS" for a service identifier.
std::string serviceDnsStoreKey(const std::string& serviceIdentifier);

// Puts back every snapshot of the record's dnsSnapshots: the saved value,
// or no value when the key had none. Stops at the first failure (code 1).
// dynamicStore null: no session can be opened.
MaybeError _restoreDNSSnapshotsForTransaction(platform::DynamicStore* dynamicStore, const Dictionary& record);

}  // namespace korvo
