// Publishing a VPN tunnel to the system's network configuration: its IPv4,
// IPv6 and DNS settings as a network service in the dynamic store, and the
// global DNS entry when the tunnel takes over all name resolution. Before
// each key changes, its current value goes to the transaction's DNS
// snapshots, so that restoring the transaction puts it back.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/DynamicStore.h"
#include "transactions/DnsSnapshotCapture.h"
#include "util/Error.h"

namespace korvo {

inline constexpr std::string_view DynamicStoreSessionName = "com.tallowmar.korvo.utility";

// The arguments of updateNameServerAddresses; nullopt is nil.
struct NameServerSettings {
    std::optional<std::vector<std::string>> nameServerAddresses;
    std::optional<std::vector<std::string>> searchDomains;
    std::optional<std::string> defaultDomain;
    std::optional<std::string> serviceIdentifier;
    std::optional<std::string> interfaceName;
    std::optional<std::vector<std::string>> IPv4Addresses;
    std::optional<std::vector<std::string>> IPv4DestAddresses;
    std::optional<std::vector<std::string>> IPv6Addresses;
    std::optional<std::vector<std::int64_t>> IPv6PrefixLengths;
    std::optional<std::string> transactionIdentifier;

    // Servers, and neither search domains nor a (non-empty) default domain.
    bool takesOverDNS() const;
};

class TunnelDns {
public:
    TunnelDns(std::shared_ptr<platform::DynamicStore> store, DnsSnapshotCapture& snapshots);

    MaybeError updateNameServerAddresses(const NameServerSettings& settings);

private:
    MaybeError captureAndSet(platform::DynamicStoreSession& session, const std::string& snapshotIdentifier,
                             const std::string& key, const Dictionary& value, const char* writeFailure);

    std::shared_ptr<platform::DynamicStore> store_;
    DnsSnapshotCapture& snapshots_;
};

// The values written, for the keys that the request sets.
Dictionary tunnelIPv4Settings(const NameServerSettings& settings);
Dictionary tunnelIPv6Settings(const NameServerSettings& settings);
Dictionary tunnelDNSSettings(const NameServerSettings& settings, const std::optional<Dictionary>& current);
Dictionary globalDNSSettings(const NameServerSettings& settings);

}  // namespace korvo
