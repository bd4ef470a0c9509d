// Route identity, the file name of a record and the journal's lines: the
// pure rules that decide which route is whose and where it is written.
#include <gtest/gtest.h>

#include <set>

#include "transactions/TransactionJournal.h"
#include "transactions/TransactionRecord.h"

using namespace korvo;

namespace {

Dictionary route(const std::string& destination, const std::string& gateway = "10.99.0.2") {
    return Dictionary{{"action", "add"}, {"destination", destination}, {"gateway", gateway}, {"isIPv6", false},
                      {"transactionIdentifier", "vpn"}};
}

}  // namespace

TEST(RouteIdentityTest, MatchesOnDestinationGatewayFamilyAndInterfaceOnly) {
    const Dictionary base{{"action", "add"}, {"destination", "10.8.0.0/24"}, {"gateway", "10.0.0.1"},
                          {"isIPv6", false}, {"interfaceName", "utun5"}, {"transactionIdentifier", "a"}};
    const auto with = [&base](const char* key, Value value) {
        Dictionary d = base;
        d[key] = std::move(value);
        return d;
    };
    const auto without = [&base](const char* key) {
        Dictionary d = base;
        d.erase(key);
        return d;
    };
    struct Case {
        const char* what;
        Dictionary other;
        bool same;
    };
    const std::vector<Case> cases = {
        {"another action", with("action", "delete"), true},
        {"another transaction", with("transactionIdentifier", "b"), true},
        {"extra keys", with("metric", 5), true},
        {"isIPv6 as the number 0", with("isIPv6", 0), true},
        {"isIPv6 as the text 0", with("isIPv6", "0"), false},
        {"interface name in capitals", with("interfaceName", "UTUN5"), false},
        {"prefix written another way", with("destination", "10.8/24"), false},
        {"another gateway", with("gateway", "10.0.0.2"), false},
        {"no interface name", without("interfaceName"), false},
    };
    const RouteIdentity identity = RouteIdentity::ofOperation(base);
    for (const auto& c : cases) {
        EXPECT_EQ(RouteIdentity::ofOperation(c.other) == identity, c.same) << c.what;
    }
    // Absent keys are the empty string and false.
    const Dictionary bare{{"destination", "10.8.0.0/24"}};
    const Dictionary empty{{"destination", "10.8.0.0/24"}, {"gateway", ""}, {"isIPv6", false}, {"interfaceName", ""}};
    EXPECT_EQ(RouteIdentity::ofOperation(bare), RouteIdentity::ofOperation(empty));
    EXPECT_EQ(RouteIdentity::ofOperation(bare).dictionary(), empty);
}

TEST(TransactionFileStemTest, SanitisesAndKeepsIdentifiersApart) {
    const struct {
        std::string identifier, sanitised;
    } cases[] = {
        {"vpn/1 a", "vpn_1_a"},
        {"..", ".."},
        {"/", "_"},
        {"\xC3\xA9t\xC3\xA9", "_t_"},            // one unit per BMP character
        {"\xF0\x9F\x94\x92x", "__x"},            // a character outside it is two
        {std::string(400, 'a'), std::string(160, 'a')},
    };
    for (const auto& c : cases) {
        const std::string stem = transactionFileStem(c.identifier);
        EXPECT_EQ(stem.substr(0, stem.size() - 17), c.sanitised) << c.identifier;
        EXPECT_EQ(stem[stem.size() - 17], '-');
    }
    std::set<std::string> stems;
    for (const char* identifier : {"a/b", "a_b", "a b", "a:b"}) stems.insert(transactionFileStem(identifier));
    EXPECT_EQ(stems.size(), 4u);
}

TEST(TransactionJournalTest, ReplayListsCommittedAddsAndReportsUnfinishedOnes) {
    Dictionary odd = route("10.9.0.0/16");
    odd["isIPv6"] = 0;  // not a boolean: written as a property list
    odd["note"] = "a b\nc%";
    const std::string journal = journalIntentLine(1, route("10.1.0.0/16")) + journalCommitLine(1) +
                                journalIntentLine(2, route("10.2.0.0/16")) + journalAbandonLine(2) +
                                journalIntentLine(3, odd) + journalCommitLine(3) +
                                journalIntentLine(4, route("10.4.0.0/16", "-")) +  // the kill came here
                                journalDeleteLine(route("10.1.0.0/16")) + "garbage line\nA 99\nI 5 R x";
    Dictionary record{{"activeRoutes", Array{Value(route("10.0.0.0/16"))}}};
    const auto unfinished = replayTransactionJournal(record, journal);
    const Array& routes = *record.at("activeRoutes").asArray();
    ASSERT_EQ(routes.size(), 2u);
    EXPECT_EQ(routes[0], Value(route("10.0.0.0/16")));
    EXPECT_EQ(routes[1], Value(odd));
    ASSERT_EQ(unfinished.size(), 1u);
    EXPECT_EQ(unfinished[0], route("10.4.0.0/16", "-"));
}

TEST(TransactionJournalTest, ReplayingOverARecordThatAlreadyHasTheChangesChangesNothing) {
    const std::string journal = journalIntentLine(1, route("10.1.0.0/16")) + journalCommitLine(1) +
                                journalIntentLine(2, route("10.2.0.0/16")) + journalCommitLine(2) +
                                journalDeleteLine(route("10.2.0.0/16"));
    Dictionary record{{"activeRoutes", Value("not an array")}};
    replayTransactionJournal(record, journal);
    const Dictionary once = record;
    EXPECT_TRUE(replayTransactionJournal(record, journal).empty());
    EXPECT_EQ(record, once);
    EXPECT_EQ(record.at("activeRoutes").asArray()->size(), 1u);
}
