// The store on disk: which files the loader takes, what it leaves, and that
// a store dropped without finishing its request (a killed helper) still
// names every route it added.
#include <gtest/gtest.h>

#include <fstream>

#include "support/TestSupport.h"
#include "transactions/TransactionStore.h"
#include "util/FileSystem.h"
#include "util/PropertyList.h"

using namespace korvo;

namespace {

Dictionary route(const std::string& destination) {
    return Dictionary{{"action", "add"}, {"destination", destination}, {"gateway", "10.99.0.2"}, {"isIPv6", false},
                      {"transactionIdentifier", "vpn"}};
}

class TransactionStoreTest : public ::testing::Test {
protected:
    test::TempDir dir;
    std::shared_ptr<StoreArea> area = std::make_shared<StoreArea>(dir.file("Korvo"), std::nullopt);

    std::string storeFile(const std::string& name) const {
        return appendPathComponent(area->path(StoreDirectory::NetworkTransactions), name);
    }
    void writeStoreFile(const std::string& name, const std::string& text) const {
        ASSERT_EQ(area->open(StoreDirectory::NetworkTransactions).ok(), true);
        std::ofstream(storeFile(name)) << text;
    }
    static std::string plist(const Dictionary& d) { return writeXMLPropertyList(Value(d)); }
    static std::size_t routeCount(TransactionStore& store, const std::string& identifier) {
        std::lock_guard lock(store.lock());
        const Dictionary* record = store.recordLocked(identifier);
        return record ? record->at("activeRoutes").asArray()->size() : 0;
    }
};

}  // namespace

TEST_F(TransactionStoreTest, LoaderTakesRecordsByTheirIdentifierAndLeavesWhatItIgnores) {
    writeStoreFile("anything.plist", plist(Dictionary{{"identifier", "vpn/1 a"}, {"action", "reset-network"}}));
    writeStoreFile("upper.PLIST", plist(Dictionary{{"identifier", "upper"}}));
    writeStoreFile("backup.plist.bak", plist(Dictionary{{"identifier", "backup"}}));
    writeStoreFile("garbage.plist", "<plist><dict><key>x");
    writeStoreFile("array.plist", writeXMLPropertyList(Value(Array{Value("x")})));
    writeStoreFile("empty-id.plist", plist(Dictionary{{"identifier", ""}}));
    writeStoreFile("number-id.plist", plist(Dictionary{{"identifier", 5}}));
    const test::LogCapture log;

    TransactionStore store(area);
    EXPECT_TRUE(store.load().empty());
    store.completeLoad();

    const auto records = store.copyOfRecords();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records.begin()->first, "vpn/1 a");
    // Moved to its own name; everything ignored stays where it was.
    EXPECT_TRUE(fileExists(store.snapshotPath("vpn/1 a")));
    EXPECT_FALSE(fileExists(storeFile("anything.plist")));
    for (const char* name : {"upper.PLIST", "backup.plist.bak", "garbage.plist", "array.plist", "empty-id.plist", "number-id.plist"}) {
        EXPECT_TRUE(fileExists(storeFile(name))) << name;
    }
    EXPECT_TRUE(log.contains("Ignoring invalid network transaction snapshot at '" + storeFile("garbage.plist") + "'."));
    EXPECT_TRUE(log.contains("Ignoring transaction snapshot without valid identifier at '" +
                             storeFile("empty-id.plist") + "'."));
    EXPECT_TRUE(log.contains("Ignoring transaction snapshot without valid identifier at '" +
                             storeFile("number-id.plist") + "'."));
    EXPECT_TRUE(log.contains("Ignoring invalid network transaction snapshot at '" + storeFile("array.plist") + "'."));
    EXPECT_EQ(log.errors().size(), 4u);
}

TEST_F(TransactionStoreTest, AKilledRequestLeavesEveryAddedRouteOnDisk) {
    {
        TransactionStore store(area);
        for (int i = 0; i < 3; ++i) {
            const Dictionary r = route("10." + std::to_string(i) + ".0.0/16");
            auto sequence = store.beginRouteAdd("vpn", r);
            ASSERT_TRUE(sequence.ok());
            ASSERT_EQ(store.commitRouteAdd("vpn", *sequence, r), std::nullopt);
        }
        auto failed = store.beginRouteAdd("vpn", route("10.7.0.0/16"));
        store.abandonRouteAdd("vpn", *failed);
        ASSERT_TRUE(store.beginRouteAdd("vpn", route("10.8.0.0/16")).ok());
        // Dropped here without syncJournals: the last commit is still in
        // memory, the last intent on disk.
    }
    TransactionStore reloaded(area);
    const auto unfinished = reloaded.load();
    EXPECT_EQ(routeCount(reloaded, "vpn"), 3u);
    ASSERT_EQ(unfinished.size(), 1u);
    EXPECT_EQ(unfinished[0].second, route("10.8.0.0/16"));
    reloaded.completeLoad();
    EXPECT_FALSE(fileExists(reloaded.journalPath("vpn")));
    const auto bytes = readFile(reloaded.snapshotPath("vpn"));
    ASSERT_TRUE(bytes.ok());
    const auto value = readPropertyList(std::string(bytes->begin(), bytes->end()));
    EXPECT_EQ(value->asDictionary()->at("activeRoutes").asArray()->size(), 3u);
}
