// What the transaction store holds, read without changing anything: for an
// administrator who wants to see what the helper would undo.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "transactions/TransactionRecord.h"
#include "util/Error.h"

namespace korvo {

struct TransactionSummary {
    std::string identifier;
    std::string tunnelInterface;
    TransactionOwner owner;
    std::size_t routeCount = 0;
    // Routes whose add a killed helper had begun and not finished.
    std::size_t unfinishedRouteCount = 0;
    std::vector<std::string> dnsKeys;
    std::string file;
};

// Every valid record of the store directory with its journal replayed, in
// the order of their identifiers; files the helper would ignore are left out.
Result<std::vector<TransactionSummary>> readTransactionStore(const std::string& directory);

// One line per transaction under a heading:
// IDENTIFIER  OWNER  ROUTES  DNS KEYS.
std::string formatTransactionSummaries(const std::vector<TransactionSummary>& summaries);

}  // namespace korvo
