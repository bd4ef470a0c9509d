// Stand-ins for unit tests of the tunnel DNS request: a dynamic store kept
// in memory that can refuse chosen keys, and a snapshot capture that records
// every call.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/DynamicStore.h"
#include "transactions/DnsSnapshotCapture.h"

namespace korvo::test {

class MemoryDynamicStore : public platform::DynamicStore {
public:
    std::map<std::string, Dictionary> values;
    std::set<std::string> refusedKeys;  // setValue fails for these
    bool sessionFails = false;
    std::vector<std::string> writes;  // keys set, in order

    std::unique_ptr<platform::DynamicStoreSession> openSession(std::string_view, std::string* failure) override {
        if (sessionFails) {
            if (failure) *failure = "no store";
            return nullptr;
        }
        return std::make_unique<Session>(*this);
    }

private:
    struct Session : platform::DynamicStoreSession {
        explicit Session(MemoryDynamicStore& s) : store(s) {}
        std::optional<Dictionary> copyValue(const std::string& key) override {
            auto it = store.values.find(key);
            return it == store.values.end() ? std::nullopt : std::optional<Dictionary>(it->second);
        }
        MaybeError setValue(const std::string& key, const Dictionary& value) override {
            if (store.refusedKeys.count(key)) return errorWithKorvoErrorCode(kGeneralErrorCode, "refused");
            store.values[key] = value;
            store.writes.push_back(key);
            return std::nullopt;
        }
        MaybeError removeValue(const std::string& key) override {
            store.values.erase(key);
            return std::nullopt;
        }
        MemoryDynamicStore& store;
    };
};

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
