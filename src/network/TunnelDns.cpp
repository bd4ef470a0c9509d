#include "network/TunnelDns.h"

#include "util/Format.h"
#include "util/Log.h"

namespace korvo {
namespace {

constexpr std::string_view kGlobalDNSKey = "State:/Network/Global/DNS";

bool hasItems(const auto& list) { return list && !list->empty(); }

Array arrayOf(const auto& items) { return Array(items.begin(), items.end()); }

KorvoError generalError(const char* message) { return errorWithKorvoErrorCode(kGeneralErrorCode, std::string(message)); }

}  // namespace

bool NameServerSettings::takesOverDNS() const {
    return hasItems(nameServerAddresses) && !hasItems(searchDomains) && (!defaultDomain || defaultDomain->empty());
}

Dictionary tunnelIPv4Settings(const NameServerSettings& s) {
    const auto& addresses = *s.IPv4Addresses;
    const bool destinationsMatch = s.IPv4DestAddresses && s.IPv4DestAddresses->size() == addresses.size();
    Dictionary d{{"Addresses", arrayOf(addresses)},
                 {"DestAddresses", arrayOf(destinationsMatch ? *s.IPv4DestAddresses : addresses)},
                 {"InterfaceName", *s.interfaceName}};
    if (s.takesOverDNS()) d["OverridePrimary"] = true;
    return d;
}

Dictionary tunnelIPv6Settings(const NameServerSettings& s) {
    const auto& addresses = *s.IPv6Addresses;
    Dictionary d{{"Addresses", arrayOf(addresses)}, {"InterfaceName", *s.interfaceName}};
    if (s.IPv6PrefixLengths && s.IPv6PrefixLengths->size() == addresses.size()) {
        d["PrefixLength"] = arrayOf(*s.IPv6PrefixLengths);
    }
    return d;
}

Dictionary tunnelDNSSettings(const NameServerSettings& s, const std::optional<Dictionary>& current) {
    // With an interface the service's DNS is replaced whole; without one the
    // new keys are laid over what the service had.
    const bool hasInterface = s.interfaceName && !s.interfaceName->empty();
    Dictionary d = (current && !hasInterface) ? *current : Dictionary{};
    if (s.defaultDomain) d["DomainName"] = *s.defaultDomain;
    if (hasItems(s.nameServerAddresses)) d["ServerAddresses"] = arrayOf(*s.nameServerAddresses);
    if (hasItems(s.searchDomains)) d["SearchDomains"] = arrayOf(*s.searchDomains);
    return d;
}

Dictionary globalDNSSettings(const NameServerSettings& s) {
    Dictionary d{{"ServerAddresses", arrayOf(*s.nameServerAddresses)}};
    if (s.interfaceName && !s.interfaceName->empty()) d["InterfaceName"] = *s.interfaceName;
    return d;
}

TunnelDns::TunnelDns(std::shared_ptr<platform::DynamicStore> store, DnsSnapshotCapture& snapshots)
    : store_(std::move(store)), snapshots_(snapshots) {}

MaybeError TunnelDns::captureAndSet(platform::DynamicStoreSession& session, const std::string& snapshotIdentifier,
                                    const std::string& key, const Dictionary& value, const char* writeFailure) {
    if (auto error = snapshots_.captureDynamicStoreSnapshot(snapshotIdentifier, key, session.copyValue(key))) {
        return error;
    }
    if (session.setValue(key, value)) return generalError(writeFailure);
    return std::nullopt;
}

MaybeError TunnelDns::updateNameServerAddresses(const NameServerSettings& s) {
    if (!s.serviceIdentifier) {
        return generalError("Request to update DNS settings without service identifier! Stopping here!");
    }
    std::string failure;
    const auto session = store_ ? store_->openSession(DynamicStoreSessionName, &failure) : nullptr;
    if (!session) {
        logMessage(LOG_ERR, "SCDynamicStoreCreate() failed: %s", failure.c_str());
        return generalError("Could not create dynamic store to change DNS settings.");
    }
    const std::string snapshotIdentifier = s.transactionIdentifier.value_or(*s.serviceIdentifier);
    const std::string serviceKey = formatString("State:/Network/Service/%s", s.serviceIdentifier->c_str());
    const bool hasInterface = s.interfaceName && !s.interfaceName->empty();

    if (hasInterface && hasItems(s.IPv4Addresses)) {
        if (auto error = captureAndSet(*session, snapshotIdentifier, serviceKey + "/IPv4", tunnelIPv4Settings(s),
                                       "Could not update tunnel IPv4 settings for DNS.")) {
            return error;
        }
    }
    if (hasInterface && hasItems(s.IPv6Addresses)) {
        if (auto error = captureAndSet(*session, snapshotIdentifier, serviceKey + "/IPv6", tunnelIPv6Settings(s),
                                       "Could not update tunnel IPv6 settings for DNS.")) {
            return error;
        }
    }
    const std::string dnsKey = serviceKey + "/DNS";
    const auto current = session->copyValue(dnsKey);
    if (auto error = snapshots_.captureDynamicStoreSnapshot(snapshotIdentifier, dnsKey, current)) return error;
    bool written = !session->setValue(dnsKey, tunnelDNSSettings(s, current));
    if (written && s.takesOverDNS()) {
        const std::string globalKey(kGlobalDNSKey);
        if (auto error = snapshots_.captureDynamicStoreSnapshot(snapshotIdentifier, globalKey,
                                                                session->copyValue(globalKey))) {
            return error;
        }
        written = !session->setValue(globalKey, globalDNSSettings(s));
    }
    if (!written) return generalError("Could not update DNS settings.");
    return std::nullopt;
}

}  // namespace korvo
