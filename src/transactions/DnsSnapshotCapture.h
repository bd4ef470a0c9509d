// Saving the value a dynamic-store key held before a transaction first
// changed it, so that restoring the transaction can put it back. The tunnel
// DNS request calls this for every key it is about to set or remove.
#pragma once

#include <optional>
#include <string>

#include "util/Error.h"
#include "util/Value.h"

namespace korvo {

class DnsSnapshotCapture {
public:
    virtual ~DnsSnapshotCapture() = default;

    // Records currentSettings (nullopt: the key had no value) under storeKey
    // in the transaction's record unless a snapshot of that key is there
    // already (the first capture wins), and persists the record. A
    // transaction without a record, or an empty identifier or key, is left
    // alone. Returns the error of persisting.
    virtual MaybeError captureDynamicStoreSnapshot(const std::string& transactionIdentifier,
                                                   const std::string& storeKey,
                                                   const std::optional<Dictionary>& currentSettings) = 0;
};

}  // namespace korvo
