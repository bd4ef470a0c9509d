// The tunnel DNS request against a store in memory: the values each form of
// request writes, and where a failure stops. Takeover, split and the
// restores go through the bus (TunnelDnsServiceTest).
#include <gtest/gtest.h>

#include "network/TunnelDns.h"
#include "support/FakeDynamicStore.h"
#include "support/RecordingSnapshots.h"
#include "support/TestSupport.h"

namespace korvo {
namespace {

using test::strings;

using test::FakeDynamicStore;
using test::RecordingSnapshots;

const std::string kService = "State:/Network/Service/svc";

struct DnsRun {
    std::shared_ptr<FakeDynamicStore> store = std::make_shared<FakeDynamicStore>();
    RecordingSnapshots snapshots;
    MaybeError update(const NameServerSettings& s) { return TunnelDns(store, snapshots).updateNameServerAddresses(s); }
    const Dictionary* value(const std::string& key) const {
        auto it = store->values.find(key);
        return it == store->values.end() ? nullptr : &it->second;
    }
};

NameServerSettings tunnel() {
    NameServerSettings s;
    s.serviceIdentifier = "svc";
    s.interfaceName = "utun5";
    s.nameServerAddresses = std::vector<std::string>{"10.8.0.1"};
    s.IPv4Addresses = std::vector<std::string>{"10.8.0.2"};
    s.IPv4DestAddresses = std::vector<std::string>{"10.8.0.1"};
    s.transactionIdentifier = "tx";
    return s;
}

TEST(TunnelDnsTest, ValuesFollowTheArguments) {
    struct Case {
        const char* name;
        std::function<void(NameServerSettings&)> change;
        std::function<void(const DnsRun&)> check;
    };
    const Case cases[] = {
        {"an empty default domain is written and still takes over",
         [](auto& s) { s.defaultDomain = ""; },
         [](const DnsRun& r) {
             EXPECT_EQ(r.value(kService + "/DNS")->at("DomainName"), Value(""));
             EXPECT_NE(r.value("State:/Network/Global/DNS"), nullptr);
         }},
        {"a default domain: split",
         [](auto& s) { s.defaultDomain = "corp.test"; },
         [](const DnsRun& r) { EXPECT_EQ(r.value("State:/Network/Global/DNS"), nullptr); }},
        {"three addresses, two destinations: the addresses again",
         [](auto& s) {
             s.IPv4Addresses = std::vector<std::string>{"10.0.0.1", "10.0.0.2", "10.0.0.3"};
             s.IPv4DestAddresses = std::vector<std::string>{"10.0.0.9", "10.0.0.8"};
         },
         [](const DnsRun& r) {
             EXPECT_EQ(r.value(kService + "/IPv4")->at("DestAddresses"),
                       Value(strings({"10.0.0.1", "10.0.0.2", "10.0.0.3"})));
         }},
        {"IPv6 with matching prefix lengths",
         [](auto& s) {
             s.IPv6Addresses = std::vector<std::string>{"fd00::2"};
             s.IPv6PrefixLengths = std::vector<std::int64_t>{64};
         },
         [](const DnsRun& r) { EXPECT_EQ(r.value(kService + "/IPv6")->at("PrefixLength"), Value(Array{Value(64)})); }},
        {"IPv6 with another number of prefix lengths: none",
         [](auto& s) {
             s.IPv6Addresses = std::vector<std::string>{"fd00::2"};
             s.IPv6PrefixLengths = std::vector<std::int64_t>{64, 48};
         },
         [](const DnsRun& r) { EXPECT_EQ(r.value(kService + "/IPv6")->count("PrefixLength"), 0u); }},
        {"no interface: no address entries, the DNS keys laid over the old ones",
         [](auto& s) {
             s.interfaceName = "";
             s.IPv6Addresses = std::vector<std::string>{"fd00::2"};
         },
         [](const DnsRun& r) {
             EXPECT_EQ(r.value(kService + "/IPv4"), nullptr);
             EXPECT_EQ(r.value(kService + "/IPv6"), nullptr);
             EXPECT_EQ(*r.value(kService + "/DNS"),
                       (Dictionary{{"DomainName", "old"}, {"ServerAddresses", strings({"10.8.0.1"})}}));
             EXPECT_EQ(r.value("State:/Network/Global/DNS")->count("InterfaceName"), 0u);
         }},
        {"no transaction: snapshots under the service identifier",
         [](auto& s) { s.transactionIdentifier.reset(); },
         [](const DnsRun& r) {
             for (const auto& c : r.snapshots.captures) EXPECT_EQ(c.transactionIdentifier, "svc");
         }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        DnsRun run;
        run.store->values[kService + "/DNS"] = {{"DomainName", "old"}};
        auto settings = tunnel();
        c.change(settings);
        ASSERT_FALSE(run.update(settings));
        c.check(run);
    }
}

TEST(TunnelDnsTest, FailuresStopAtOnceAndKeepWhatWasWritten) {
    struct Case {
        const char* name;
        std::function<void(DnsRun&, NameServerSettings&)> arrange;
        std::string message;
        std::vector<std::string> written;
    };
    const std::string dns = kService + "/DNS";
    const Case cases[] = {
        {"no service identifier", [](DnsRun&, auto& s) { s.serviceIdentifier.reset(); },
         "Request to update DNS settings without service identifier! Stopping here!", {}},
        {"no session", [](DnsRun& r, auto&) { r.store->openable = false; },
         "Could not create dynamic store to change DNS settings.", {}},
        {"IPv4 refused", [](DnsRun& r, auto&) { r.store->refuse.insert(kService + "/IPv4"); },
         "Could not update tunnel IPv4 settings for DNS.", {}},
        {"IPv6 refused",
         [](DnsRun& r, auto& s) {
             s.IPv6Addresses = std::vector<std::string>{"fd00::2"};
             r.store->refuse.insert(kService + "/IPv6");
         },
         "Could not update tunnel IPv6 settings for DNS.", {kService + "/IPv4"}},
        {"service DNS refused", [&](DnsRun& r, auto&) { r.store->refuse.insert(dns); }, "Could not update DNS settings.",
         {kService + "/IPv4"}},
        {"global DNS refused", [](DnsRun& r, auto&) { r.store->refuse.insert("State:/Network/Global/DNS"); },
         "Could not update DNS settings.", {kService + "/IPv4", kService + "/DNS"}},
        {"the DNS capture fails", [&](DnsRun& r, auto&) { r.snapshots.failingKey = dns; }, "capture failed",
         {kService + "/IPv4"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        DnsRun run;
        auto settings = tunnel();
        c.arrange(run, settings);
        test::LogCapture log;
        const auto error = run.update(settings);
        ASSERT_TRUE(error);
        EXPECT_EQ(error->code, kGeneralErrorCode);
        EXPECT_EQ(test::errorMessage(error), c.message);
        EXPECT_EQ(run.store->writes, c.written);
        if (!run.store->openable) {
            EXPECT_TRUE(log.contains("SCDynamicStoreCreate() failed: refused"));
        }
    }
}

}  // namespace
}  // namespace korvo
