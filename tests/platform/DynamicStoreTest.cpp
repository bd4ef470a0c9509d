// The Linux dynamic store with private paths: the safety rules around a file
// that someone else owns or links, client text in resolv.conf, and what a
// start finds after a reboot. Takeover, split, restart and a rewrite by
// another program go through the bus (TunnelDnsServiceTest).
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "platform/linux/dns/LinuxDynamicStore.h"
#include "platform/linux/dns/ResolvConfText.h"
#include "support/TestSupport.h"
#include "util/FileSystem.h"

namespace korvo::platform::dns {
namespace {

using test::strings;

const std::string kOriginal = "# the machine's own\nnameserver 192.0.2.53\nsearch home.example\noptions edns0";

// A store area, a resolv.conf and a state directory of its own.
struct Machine {
    test::TempDir dir;
    std::shared_ptr<StoreArea> area = std::make_shared<StoreArea>(dir.file("run"), std::nullopt);
    ResolvConfPaths paths{dir.file("etc/resolv.conf"), dir.file("lib/Korvo")};
    Machine() {
        ::mkdir(dir.file("etc").c_str(), 0755);
        dir.write("etc/resolv.conf", kOriginal);
    }
    std::unique_ptr<LinuxDynamicStore> start() const {
        return std::make_unique<LinuxDynamicStore>(LinuxDynamicStore::Options{area, paths, nullptr, false});
    }
    std::string resolvConf() const { return test::fileText(paths.resolvConf); }
};

void publish(LinuxDynamicStore& store, const std::string& service, std::vector<std::string> servers,
             std::vector<std::string> search, bool global) {
    const std::string key = "State:/Network/Service/" + service;
    ASSERT_FALSE(store.setValue(key + "/IPv4", {{"Addresses", strings({"10.8.0.2"})}, {"InterfaceName", "tun-" + service}}));
    Dictionary dns{{"ServerAddresses", strings(servers)}};
    if (!search.empty()) dns["SearchDomains"] = strings(search);
    ASSERT_FALSE(store.setValue(key + "/DNS", dns));
    if (global) {
        ASSERT_FALSE(store.setValue("State:/Network/Global/DNS", {{"ServerAddresses", strings(servers)}}));
    }
}

TEST(ResolvConfTextTest, ClientTextNeverBecomesALineOfItsOwn) {
    Machine m;
    auto store = m.start();
    ASSERT_FALSE(store->setValue("State:/Network/Service/s/DNS",
                                 {{"ServerAddresses", strings({"10.8.0.1\noptions ndots:15", "10.8.0.2"})},
                                  {"SearchDomains", strings({"a.test\nnameserver 6.6.6.6", "b.test"})}}));
    const auto parsed = parseResolvConf(m.resolvConf());
    EXPECT_EQ(parsed.nameServers, (std::vector<std::string>{"10.8.0.2", "192.0.2.53"}));
    EXPECT_EQ(parsed.searchDomains, (std::vector<std::string>{"b.test", "home.example"}));
    EXPECT_EQ(parsed.otherLines, std::vector<std::string>{"options edns0"});
}

TEST(LinuxDynamicStoreTest, StartUpReconcilesWhatAnEarlierRunLeft) {
    struct Case {
        const char* name;
        std::function<void(Machine&)> meanwhile;
        std::string expected;
    };
    const Case cases[] = {
        {"the file still holds what the helper wrote: the original goes back", [](Machine&) {}, kOriginal},
        {"a manager rewrote it: its file stays",
         [](Machine& m) { m.dir.write("etc/resolv.conf", "nameserver 192.0.2.7\n"); }, "nameserver 192.0.2.7\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Machine m;
        {
            auto store = m.start();
            publish(*store, "a", {"10.8.0.1"}, {}, true);
        }
        // The store was lost (a reboot empties the run directory), the saved
        // original under /var/lib was not.
        ASSERT_EQ(::unlink((m.area->path(StoreDirectory::DynamicStore) + "/store.plist").c_str()), 0);
        c.meanwhile(m);
        auto store = m.start();
        EXPECT_EQ(m.resolvConf(), c.expected);
        EXPECT_FALSE(fileExists(m.paths.stateDirectory + "/resolv-conf.plist"));
    }
}

TEST(LinuxDynamicStoreTest, ALinkedResolvConfIsNeverWrittenThrough) {
    Machine m;
    ::mkdir(m.dir.file("stub").c_str(), 0755);
    m.dir.write("stub/stub-resolv.conf", "nameserver 127.0.0.53\n");
    ::mkdir(m.dir.file("systemd").c_str(), 0755);
    ::unlink(m.paths.resolvConf.c_str());
    ASSERT_EQ(::symlink("../systemd/resolve/stub-resolv.conf", m.paths.resolvConf.c_str()), 0);
    auto store = m.start();
    test::LogCapture log;
    EXPECT_TRUE(store->setValue("State:/Network/Service/a/DNS", {{"ServerAddresses", strings({"10.8.0.1"})}}));
    EXPECT_TRUE(log.contains("Error: Not writing the VPN's DNS settings into '" + m.paths.resolvConf +
                             "': it is a link to '../systemd/resolve/stub-resolv.conf', which systemd-resolved "
                             "manages."));
    struct stat st {};
    ASSERT_EQ(::lstat(m.paths.resolvConf.c_str(), &st), 0);
    EXPECT_TRUE(S_ISLNK(st.st_mode));
    // The store keeps the key, so that restoring the transaction removes it.
    EXPECT_TRUE(store->copyValue("State:/Network/Service/a/DNS"));
    EXPECT_FALSE(store->removeValue("State:/Network/Service/a/DNS"));
}

TEST(ResolvConfTextTest, OnlyAFileThatLeadsToResolvedMakesResolvedTheBackend) {
    test::TempDir dir;
    const std::string path = dir.file("resolv.conf");
    for (const auto& [text, leads] : {std::pair{"nameserver 127.0.0.53\noptions edns0 trust-ad\nsearch .\n", true},
                                      std::pair{"nameserver 127.0.0.53\nnameserver 192.0.2.1\n", false},
                                      std::pair{"nameserver 192.0.2.1\n", false}, std::pair{"# empty\n", false}}) {
        dir.write("resolv.conf", text);
        EXPECT_EQ(resolvConfLeadsToResolved(path), leads) << text;
    }
    ASSERT_EQ(::unlink(path.c_str()), 0);
    ASSERT_EQ(::symlink("/run/systemd/resolve/stub-resolv.conf", path.c_str()), 0);
    EXPECT_TRUE(resolvConfLeadsToResolved(path));
}

TEST(LinuxDynamicStoreTest, WithoutAnOriginalTheFileGoesAwayAgain) {
    Machine m;
    ::unlink(m.paths.resolvConf.c_str());
    auto store = m.start();
    publish(*store, "a", {"10.8.0.1"}, {"corp.test"}, false);
    EXPECT_EQ(parseResolvConf(m.resolvConf()).nameServers, std::vector<std::string>{"10.8.0.1"});
    ASSERT_FALSE(store->removeValue("State:/Network/Service/a/DNS"));
    EXPECT_FALSE(fileExists(m.paths.resolvConf));
}

}  // namespace
}  // namespace korvo::platform::dns
