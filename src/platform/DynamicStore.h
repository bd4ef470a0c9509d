// The system's store of dynamic network settings: property-list dictionaries
// under keys such as "State:/Network/Service/ID/DNS" and
// "State:/Network/Global/DNS". What the helper publishes here is what the
// machine's resolver uses. On macOS it is the System Configuration dynamic
// store; on Linux the helper keeps the store itself and projects its DNS keys
// onto the resolver.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "util/Error.h"
#include "util/StoreArea.h"
#include "util/Value.h"

namespace korvo::platform {

// One open session on the store. Each change is in force when the call
// returns.
class DynamicStoreSession {
public:
    virtual ~DynamicStoreSession() = default;

    // The value under key, or nullopt when the key has none.
    virtual std::optional<Dictionary> copyValue(const std::string& key) = 0;
    // Sets or replaces the value under key; an error when the store refused.
    virtual MaybeError setValue(const std::string& key, const Dictionary& value) = 0;
    // Removes the key; removing a key that has no value succeeds.
    virtual MaybeError removeValue(const std::string& key) = 0;
};

class DynamicStore {
public:
    virtual ~DynamicStore() = default;

    // A session named sessionName (for the system's own logs), or the error
    // text of the platform when no session can be opened.
    virtual std::unique_ptr<DynamicStoreSession> openSession(std::string_view sessionName,
                                                             std::string* failure = nullptr) = 0;

    // True while the store holds values that the helper published and that
    // live only in its own store area (Linux, where the helper keeps the
    // store). The system's store on macOS keeps them itself: false there.
    virtual bool holdsHelperPublishedValues() const { return false; }
};

// The platform's store. On Linux it is kept in storeArea's "dynamic-store"
// directory and projected onto the machine's resolver.
std::shared_ptr<DynamicStore> makeSystemDynamicStore(std::shared_ptr<const StoreArea> storeArea);

}  // namespace korvo::platform
