#include "transactions/TransactionListing.h"

#include <algorithm>

#include "transactions/TransactionJournal.h"
#include "util/FileSystem.h"
#include "util/PropertyList.h"

namespace korvo {
namespace {

std::string readText(const std::string& path) {
    const auto bytes = readFile(path);
    return bytes ? std::string(bytes->begin(), bytes->end()) : std::string();
}

std::string ownerText(const TransactionOwner& owner) {
    if (owner.processID <= 0) return "-";
    return "pid " + std::to_string(owner.processID) + " (type " + std::to_string(owner.serviceType) +
           (owner.isAmneziaWG ? ", AmneziaWG)" : ")");
}

}  // namespace

Result<std::vector<TransactionSummary>> readTransactionStore(const std::string& directory) {
    auto entries = directoryEntries(directory);
    if (!entries) return entries.error();
    std::vector<TransactionSummary> summaries;
    for (const std::string& name : *entries) {
        if (name.size() <= 6 || name.compare(name.size() - 6, 6, ".plist") != 0) continue;
        const std::string path = appendPathComponent(directory, name);
        auto value = readPropertyList(readText(path));
        Dictionary* record = value ? value->asDictionary() : nullptr;
        const auto identifier = record ? stringForKey(*record, record_key::identifier) : std::nullopt;
        if (!identifier || identifier->empty()) continue;
        const std::string journal = path.substr(0, path.size() - 6) + ".journal";
        TransactionSummary summary;
        summary.unfinishedRouteCount = replayTransactionJournal(*record, readText(journal)).size();
        summary.identifier = *identifier;
        summary.tunnelInterface = stringForKey(*record, record_key::tunnelInterface).value_or("");
        summary.owner = ownerOfRecord(*record);
        summary.routeCount = mutableActiveRoutes(*record).size();
        if (const auto dns = record->find(record_key::dnsSnapshots);
            dns != record->end() && dns->second.asDictionary()) {
            for (const auto& [key, snapshot] : *dns->second.asDictionary()) summary.dnsKeys.push_back(key);
        }
        summary.file = path;
        summaries.push_back(std::move(summary));
    }
    std::sort(summaries.begin(), summaries.end(),
              [](const auto& a, const auto& b) { return a.identifier < b.identifier; });
    return summaries;
}

std::string formatTransactionSummaries(const std::vector<TransactionSummary>& summaries) {
    std::string out = "IDENTIFIER\tOWNER\tROUTES\tDNS KEYS\n";
    for (const auto& s : summaries) {
        std::string dns;
        for (const auto& key : s.dnsKeys) dns += (dns.empty() ? "" : ",") + key;
        std::string routes = std::to_string(s.routeCount);
        if (s.unfinishedRouteCount > 0) routes += " (+" + std::to_string(s.unfinishedRouteCount) + " unfinished)";
        out += s.identifier + "\t" + ownerText(s.owner) + "\t" + routes + "\t" + (dns.empty() ? "-" : dns) + "\n";
    }
    return out;
}

}  // namespace korvo
