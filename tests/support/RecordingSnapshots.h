// A snapshot capture for unit tests of the tunnel DNS request: records every
// call, and fails for one key when told to.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "transactions/DnsSnapshotCapture.h"

namespace korvo::test {

class RecordingSnapshots : public DnsSnapshotCapture {
public:
    struct Capture {
        std::string transactionIdentifier, storeKey;
        std::optional<Dictionary> currentSettings;
    };
    std::vector<Capture> captures;          // every call
    std::optional<std::string> failingKey;  // capture of this key fails

    MaybeError captureDynamicStoreSnapshot(const std::string& transactionIdentifier, const std::string& storeKey,
                                           const std::optional<Dictionary>& currentSettings) override {
        captures.push_back({transactionIdentifier, storeKey, currentSettings});
        if (failingKey == storeKey) return errorWithKorvoErrorCode(kGeneralErrorCode, "capture failed");
        return std::nullopt;
    }
};

}  // namespace korvo::test
