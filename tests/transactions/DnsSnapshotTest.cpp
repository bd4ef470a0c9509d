// DNS snapshots: the first value of a key is the one kept, and restoring
// puts each key back as it was before the transaction, or says why not.
#include <gtest/gtest.h>

#include "support/FakeDynamicStore.h"
#include "support/TestSupport.h"
#include "transactions/DnsSnapshots.h"

using namespace korvo;
using test::errorMessage;

namespace {

const Dictionary kHomeDns{{"ServerAddresses", Array{Value("192.168.1.1")}}};
const Dictionary kTunnelDns{{"ServerAddresses", Array{Value("10.8.0.1")}}};

class DnsSnapshotTest : public ::testing::Test {
protected:
    test::TempDir dir;
    TransactionStore store{std::make_shared<StoreArea>(dir.file("Korvo"), std::nullopt)};
    test::FakeDynamicStore dynamicStore;

    Dictionary record(const std::string& identifier) {
        std::lock_guard lock(store.lock());
        return *store.recordLocked(identifier);
    }
};

}  // namespace

TEST_F(DnsSnapshotTest, FirstCaptureWinsAndRestorePutsKeysBack) {
    {
        std::lock_guard lock(store.lock());
        store.recordCreatingIfMissingLocked("vpn");
    }
    const std::string service = serviceDnsStoreKey("S1");
    ASSERT_EQ(captureDynamicStoreSnapshot(store, "vpn", service, kHomeDns), std::nullopt);
    ASSERT_EQ(captureDynamicStoreSnapshot(store, "vpn", service, kTunnelDns), std::nullopt);
    ASSERT_EQ(captureDynamicStoreSnapshot(store, "vpn", "State:/Network/Global/DNS", std::nullopt), std::nullopt);
    // Nothing is kept for a transaction without a record.
    ASSERT_EQ(captureDynamicStoreSnapshot(store, "other", service, kHomeDns), std::nullopt);
    EXPECT_EQ(store.copyOfRecords().count("other"), 0u);

    const Dictionary snapshots = *record("vpn").at("dnsSnapshots").asDictionary();
    EXPECT_EQ(snapshots.at(service),
              Value(Dictionary{{"hadPreviousSettings", 1}, {"previousSettings", kHomeDns}}));
    EXPECT_EQ(snapshots.at("State:/Network/Global/DNS"), Value(Dictionary{{"hadPreviousSettings", 0}}));

    dynamicStore.values[service] = kTunnelDns;
    dynamicStore.values["State:/Network/Global/DNS"] = kTunnelDns;
    EXPECT_EQ(_restoreDNSSnapshotsForTransaction(&dynamicStore, record("vpn")), std::nullopt);
    EXPECT_EQ(dynamicStore.values, (std::map<std::string, Dictionary>{{service, kHomeDns}}));
}

TEST_F(DnsSnapshotTest, RestoreFailuresNameTheirCause) {
    const auto withSnapshots = [](Dictionary snapshots) { return Dictionary{{"dnsSnapshots", std::move(snapshots)}}; };
    const Dictionary restorable{{"S2", Dictionary{{"hadPreviousSettings", 1}, {"previousSettings", kHomeDns}}}};
    struct Case {
        const char* what;
        Dictionary record;
        std::string message;
    } cases[] = {
        {"missing previous settings", withSnapshots({{"S1", Dictionary{{"hadPreviousSettings", 1}}}}),
         "Stored DNS snapshot is missing previous settings."},
        {"a snapshot that is no dictionary", withSnapshots({{"S1", "x"}}), "Stored DNS snapshot contains invalid data."},
        {"a key the store refuses", withSnapshots({{"State:/refused", Dictionary{}}}),
         "Could not restore DNS settings for key 'State:/refused'."},
    };
    dynamicStore.refuse.insert("State:/refused");
    for (const auto& c : cases) {
        const MaybeError error = _restoreDNSSnapshotsForTransaction(&dynamicStore, c.record);
        ASSERT_TRUE(error) << c.what;
        EXPECT_EQ(error->code, 1) << c.what;
        EXPECT_EQ(errorMessage(error), c.message) << c.what;
    }
    // A bare service identifier is that service's DNS key.
    EXPECT_EQ(_restoreDNSSnapshotsForTransaction(&dynamicStore, withSnapshots(restorable)), std::nullopt);
    EXPECT_EQ(dynamicStore.values.at("State:/Network/Service/S2/DNS"), kHomeDns);
    // No snapshots: no session at all, even without a store.
    const int opened = dynamicStore.sessionsOpened;
    EXPECT_EQ(_restoreDNSSnapshotsForTransaction(&dynamicStore, withSnapshots({})), std::nullopt);
    EXPECT_EQ(_restoreDNSSnapshotsForTransaction(nullptr, Dictionary{}), std::nullopt);
    EXPECT_EQ(dynamicStore.sessionsOpened, opened);
    const MaybeError noStore = _restoreDNSSnapshotsForTransaction(nullptr, withSnapshots(restorable));
    EXPECT_EQ(errorMessage(noStore), "Could not create dynamic store to restore DNS settings.");
}
