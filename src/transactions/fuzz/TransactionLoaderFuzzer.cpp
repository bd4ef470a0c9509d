// What the loader reads from the store directory: a record file and its
// journal, both arbitrary bytes (split at the first NUL). Loading never
// crashes, a route it reports as half-added is one the record does not
// list, and a route written to the journal and committed reads back listed.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "transactions/TransactionJournal.h"
#include "transactions/TransactionRecord.h"
#include "util/PropertyList.h"
#include "util/fuzz/FuzzCheck.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    const std::size_t split = input.find('\0');
    const std::string_view recordBytes = input.substr(0, split);
    const std::string_view journal = split == std::string_view::npos ? std::string_view() : input.substr(split + 1);

    auto value = korvo::readPropertyList(recordBytes);
    korvo::Dictionary record;
    if (value && value->asDictionary()) record = *value->asDictionary();
    const auto unfinished = korvo::replayTransactionJournal(record, journal);
    const korvo::Array& routes = korvo::mutableActiveRoutes(record);
    for (const auto& route : unfinished) {
        const auto identity = korvo::RouteIdentity::ofOperation(route);
        FUZZ_CHECK(korvo::_indexOfRouteIdentity(identity, routes) == korvo::kRouteIdentityNotFound);
    }

    // The journal's own lines round-trip whatever text a request can carry
    // (the bus's strings: UTF-8 without NUL; ASCII here).
    const auto text = [](std::string_view bytes) {
        std::string out(bytes);
        for (char& c : out) c = (c == '\0' || static_cast<unsigned char>(c) >= 0x80) ? '?' : c;
        return out;
    };
    korvo::Dictionary route{{"action", "add"}, {"destination", text(journal.substr(0, 40))},
                            {"gateway", text(recordBytes.substr(0, 20))}, {"isIPv6", size % 2 == 0}};
    if (size % 3 == 0) route["extra"] = static_cast<std::int64_t>(size);
    korvo::Dictionary fresh;
    const std::string lines = korvo::journalIntentLine(7, route) + korvo::journalCommitLine(7);
    FUZZ_CHECK(korvo::replayTransactionJournal(fresh, lines).empty());
    const korvo::Array& listed = korvo::mutableActiveRoutes(fresh);
    FUZZ_CHECK(listed.size() == 1 && listed[0] == korvo::Value(route));
    return 0;
}
