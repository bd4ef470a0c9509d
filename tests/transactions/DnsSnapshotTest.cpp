// Restoring DNS snapshots from a stored record that may have been tampered
// with: each failure says why. Capture and restore orders go through the bus
// (TunnelDnsServiceTest).
#include <gtest/gtest.h>

#include "support/FakeDynamicStore.h"
#include "support/TestSupport.h"
#include "transactions/DnsSnapshots.h"

using namespace korvo;
using test::errorMessage;

namespace {

const Dictionary kHomeDns{{"ServerAddresses", Array{Value("192.168.1.1")}}};

class DnsSnapshotTest : public ::testing::Test {
protected:
    test::FakeDynamicStore dynamicStore;
};

}  // namespace

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
