#include "platform/linux/dns/LinuxDynamicStore.h"

#include <algorithm>

#include "platform/linux/dns/ResolvConfWatch.h"
#include "platform/linux/dns/ResolvedLinks.h"
#include "util/FileSystem.h"
#include "util/Log.h"
#include "util/PropertyList.h"

namespace korvo::platform::dns {
namespace {

constexpr std::string_view kDnsKeySuffix = "/DNS";

class StoreSession final : public DynamicStoreSession {
public:
    explicit StoreSession(LinuxDynamicStore& store) : store_(store) {}
    std::optional<Dictionary> copyValue(const std::string& key) override { return store_.copyValue(key); }
    MaybeError setValue(const std::string& key, const Dictionary& value) override { return store_.setValue(key, value); }
    MaybeError removeValue(const std::string& key) override { return store_.removeValue(key); }

private:
    LinuxDynamicStore& store_;
};

// The keys whose change can change the resolver: DNS entities and the
// entries that name a service's interface.
bool concernsResolver(const std::string& key) {
    return key.ends_with(kDnsKeySuffix) || key.ends_with("/IPv4") || key.ends_with("/IPv6");
}

std::optional<Value> readPlist(const std::string& path) {
    const auto bytes = readFile(path);
    if (!bytes) return std::nullopt;
    return readPropertyList(std::string_view(reinterpret_cast<const char*>(bytes->data()), bytes->size()));
}

Array stringArray(const std::vector<std::string>& items) { return Array(items.begin(), items.end()); }

Dictionary linkStatus(const LinkDns& link) {
    Array domains;
    for (const auto& [name, routingOnly] : link.domains) domains.emplace_back(routingOnly ? "~" + name : name);
    return {{"InterfaceName", link.interfaceName},
            {"ServerAddresses", stringArray(link.servers)},
            {"Domains", domains},
            {"DefaultRoute", link.defaultRoute}};
}

}  // namespace

LinuxDynamicStore::LinuxDynamicStore(Options options)
    : options_(std::move(options)), resolvConf_(options_.resolvConf) {
    load();
    if (auto error = reconcile()) {
        logMessage(LOG_ERR, "Error: Could not bring the resolver in line with the published DNS settings: %s",
                   error->displayText().c_str());
    }
    if (options_.watchResolvConf) {
        watch_ = std::make_unique<ResolvConfWatch>(options_.resolvConf.resolvConf, [this] {
            std::lock_guard lock(mutex_);
            // Only while the helper manages the file: the helper's own
            // writes find it as written and change nothing.
            if (resolvConf_.managing()) (void)project();
        });
    }
}

LinuxDynamicStore::~LinuxDynamicStore() { watch_.reset(); }

std::unique_ptr<DynamicStoreSession> LinuxDynamicStore::openSession(std::string_view, std::string* failure) {
    if (options_.storeArea) {
        if (auto opened = options_.storeArea->open(StoreDirectory::DynamicStore); !opened) {
            if (failure) *failure = opened.error().displayText();
            return nullptr;
        }
    }
    return std::make_unique<StoreSession>(*this);
}

bool LinuxDynamicStore::holdsHelperPublishedValues() const {
    std::lock_guard lock(mutex_);
    return !entries_.empty();
}

std::optional<Dictionary> LinuxDynamicStore::copyValue(const std::string& key) {
    std::lock_guard lock(mutex_);
    for (const auto& [k, value] : entries_) {
        if (k == key) return value;
    }
    return std::nullopt;
}

MaybeError LinuxDynamicStore::setValue(const std::string& key, const Dictionary& value) { return change(key, value); }

MaybeError LinuxDynamicStore::removeValue(const std::string& key) { return change(key, std::nullopt); }

MaybeError LinuxDynamicStore::change(const std::string& key, const std::optional<Dictionary>& value) {
    std::lock_guard lock(mutex_);
    StoreEntries entries = entries_;
    const auto before = entries.size();
    std::erase_if(entries, [&](const auto& entry) { return entry.first == key; });
    if (!value && entries.size() == before) return std::nullopt;  // already absent
    if (value) entries.emplace_back(key, *value);
    if (auto error = persist(entries)) return error;
    entries_ = std::move(entries);
    return concernsResolver(key) ? project() : std::nullopt;
}

MaybeError LinuxDynamicStore::reconcile() {
    std::lock_guard lock(mutex_);
    return project();
}

MaybeError LinuxDynamicStore::persist(const StoreEntries& entries) const {
    if (!options_.storeArea) return std::nullopt;
    if (auto opened = options_.storeArea->open(StoreDirectory::DynamicStore); !opened) return opened.error();
    Array items;
    for (const auto& [key, value] : entries) items.emplace_back(Dictionary{{"key", key}, {"value", value}});
    const std::string path = appendPathComponent(options_.storeArea->path(StoreDirectory::DynamicStore), kStoreFileName);
    return writeFileAtomically(path, writeXMLPropertyList(items), 0600);
}

void LinuxDynamicStore::load() {
    if (!options_.storeArea || !options_.storeArea->open(StoreDirectory::DynamicStore)) return;
    const std::string directory = options_.storeArea->path(StoreDirectory::DynamicStore);
    if (const auto items = readPlist(appendPathComponent(directory, kStoreFileName)); items && items->asArray()) {
        for (const auto& item : *items->asArray()) {
            const Dictionary* d = item.asDictionary();
            const auto key = d ? stringForKey(*d, "key") : std::nullopt;
            const auto value = d ? d->find("value") : Dictionary::const_iterator();
            if (key && value != d->end() && value->second.asDictionary()) {
                entries_.emplace_back(*key, *value->second.asDictionary());
            }
        }
    }
    // The links set on systemd-resolved by the helper's previous run.
    if (const auto status = readPlist(appendPathComponent(directory, kProjectionFileName)); status) {
        const Dictionary* d = status->asDictionary();
        const auto links = d ? d->find("Links") : Dictionary::const_iterator();
        if (d && links != d->end() && links->second.asArray()) {
            for (const auto& link : *links->second.asArray()) {
                const Dictionary* l = link.asDictionary();
                if (auto name = l ? stringForKey(*l, "InterfaceName") : std::nullopt) resolvedLinks_.insert(*name);
            }
        }
    }
}

MaybeError LinuxDynamicStore::project() {
    const DnsPlan plan = planFromStore(entries_);
    Dictionary status;
    MaybeError error;
    // resolved only helps when the machine's programs ask it.
    const bool resolved = options_.resolvedRunning && options_.resolvedRunning() &&
                          resolvConfLeadsToResolved(options_.resolvConf.resolvConf);
    if (resolved) {
        status["Backend"] = "systemd-resolved";
        std::set<std::string> current;
        error = ResolvedLinks().apply(plan, resolvedLinks_, &current);
        resolvedLinks_ = current;
        Array links;
        for (const auto& link : linkSettingsForPlan(plan)) {
            if (current.count(link.interfaceName) != 0) links.emplace_back(linkStatus(link));
        }
        status["Links"] = links;
        // A file managed before resolved came up goes back to the machine.
        if (!error) error = resolvConf_.apply(DnsPlan{});
    } else {
        status["Backend"] = "resolv.conf";
        status["Path"] = options_.resolvConf.resolvConf;
        error = resolvConf_.apply(plan);
        if (auto written = resolvConf_.written()) status["Written"] = *written;
    }
    status["TakesOver"] = plan.takesOver();
    if (error) status["Problem"] = error->displayText();
    saveProjectionStatus(status);
    if (watch_) watch_->watchFile();
    return error;
}

void LinuxDynamicStore::saveProjectionStatus(const Dictionary& status) const {
    if (!options_.storeArea || !options_.storeArea->open(StoreDirectory::DynamicStore)) return;
    const std::string path =
        appendPathComponent(options_.storeArea->path(StoreDirectory::DynamicStore), kProjectionFileName);
    (void)writeFileAtomically(path, writeXMLPropertyList(status), 0600);
}

}  // namespace korvo::platform::dns
