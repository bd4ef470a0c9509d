// The dynamic store on Linux: the helper's own key-value store of
// property-list dictionaries, persisted in the store area's "dynamic-store"
// directory (so that a helper restarted after a crash still knows what it
// published), whose DNS keys are projected onto the machine's resolver:
// systemd-resolved's per-link settings when it runs, else a managed
// /etc/resolv.conf.
//
// The projection is worked out again from the whole store after every change,
// at start-up and when another program rewrites resolv.conf, so that what the
// resolver uses never drifts from what the store says.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <set>

#include "platform/DynamicStore.h"
#include "platform/linux/dns/DnsPlan.h"
#include "platform/linux/dns/ResolvConfFile.h"
#include "util/StoreArea.h"

namespace korvo::platform::dns {

class ResolvConfWatch;

// File names in the store directory; korvoctl reads them too.
inline constexpr const char* kStoreFileName = "store.plist";
inline constexpr const char* kProjectionFileName = "projection.plist";

class LinuxDynamicStore final : public DynamicStore {
public:
    struct Options {
        std::shared_ptr<const StoreArea> storeArea;
        ResolvConfPaths resolvConf;
        // Whether systemd-resolved serves; asked before every projection. It
        // is used when it serves and resolvConf leads to it.
        std::function<bool()> resolvedRunning;
        bool watchResolvConf = true;
    };

    explicit LinuxDynamicStore(Options options);
    ~LinuxDynamicStore() override;

    std::unique_ptr<DynamicStoreSession> openSession(std::string_view sessionName, std::string* failure) override;
    bool holdsHelperPublishedValues() const override;

    std::optional<Dictionary> copyValue(const std::string& key);
    MaybeError setValue(const std::string& key, const Dictionary& value);
    MaybeError removeValue(const std::string& key);

    // Projects the whole store onto the resolver again.
    MaybeError reconcile();

private:
    MaybeError change(const std::string& key, const std::optional<Dictionary>& value);
    MaybeError persist(const StoreEntries& entries) const;
    void load();
    MaybeError project();
    void saveProjectionStatus(const Dictionary& status) const;

    Options options_;
    ResolvConfFile resolvConf_;
    mutable std::mutex mutex_;
    StoreEntries entries_;  // in the order the keys were set, oldest first
    std::set<std::string> resolvedLinks_;
    std::unique_ptr<ResolvConfWatch> watch_;  // last: stopped before the rest goes
};

}  // namespace korvo::platform::dns
