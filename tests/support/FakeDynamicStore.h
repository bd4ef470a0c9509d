// An in-memory dynamic store for unit tests of what is written into it and
// removed from it. A key listed in refuse fails to change; openable false
// makes every session fail to open.
#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "platform/DynamicStore.h"

namespace korvo::test {

class FakeDynamicStore : public platform::DynamicStore {
public:
    std::map<std::string, Dictionary> values;
    std::set<std::string> refuse;
    bool openable = true;
    int sessionsOpened = 0;
    std::vector<std::string> writes;  // the keys set, in order

    std::unique_ptr<platform::DynamicStoreSession> openSession(std::string_view, std::string* failure) override {
        if (!openable) {
            if (failure) *failure = "refused";
            return nullptr;
        }
        ++sessionsOpened;
        return std::make_unique<Session>(*this);
    }

private:
    class Session : public platform::DynamicStoreSession {
    public:
        explicit Session(FakeDynamicStore& store) : store_(store) {}
        std::optional<Dictionary> copyValue(const std::string& key) override {
            const auto it = store_.values.find(key);
            return it == store_.values.end() ? std::nullopt : std::optional(it->second);
        }
        MaybeError setValue(const std::string& key, const Dictionary& value) override {
            if (store_.refuse.count(key)) return errorWithKorvoErrorCode(1, "refused");
            store_.values[key] = value;
            store_.writes.push_back(key);
            return std::nullopt;
        }
        MaybeError removeValue(const std::string& key) override {
            if (store_.refuse.count(key)) return errorWithKorvoErrorCode(1, "refused");
            store_.values.erase(key);
            return std::nullopt;
        }

    private:
        FakeDynamicStore& store_;
    };
};

}  // namespace korvo::test
