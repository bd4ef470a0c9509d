// An accepted client may name any bundle, and with it any program as the
// bundle's vpnc; the real helper starts it only when the vendor signed it.
// Each stand-in is a script that leaves a marker when it runs: a link to a
// root-owned unsigned program in root-only folders, such a program itself
// (both of which pass as system executables), and a copy signed by another
// team. The vendor's copy of the same script runs, which shows that the
// others would have left their markers.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <thread>

#include "support/TestSupport.h"
#include "platform/SigningTestSupport.h"
#include "support/HelperFixture.h"

namespace korvo::test {
namespace {

using namespace std::chrono_literals;

TEST(BundleProgramServiceTest, OnlyTheVendorsProgramsStart) {
    ASSERT_TRUE(runningIsolated()) << "run through tests/support/isolated";
    // /run is the namespace's own: folders that only root can write.
    const TempDir root("/run");
    const auto standIn = [&](const std::string& name) {
        const std::string path = root.file(name + "-payload");
        std::ofstream(path) << "#!/bin/sh\ntouch '" << root.file(name + ".ran") << "'\nexit 0\n";
        ::chmod(path.c_str(), 0755);
        return path;
    };
    const auto bundleWith = [&](const std::string& name, const std::function<void(const std::string&)>& place) {
        const std::string bundle = root.file(name + ".app");
        fs::create_directories(bundle + "/Contents/MacOS");
        place(bundle + "/Contents/MacOS/vpnc");
        return bundle;
    };
    const std::map<std::string, std::string> refused = {
        {"link", bundleWith("link", [&](const std::string& vpnc) { fs::create_symlink(standIn("link"), vpnc); })},
        {"system", bundleWith("system", [&](const std::string& vpnc) { fs::rename(standIn("system"), vpnc); })},
        {"otherteam", bundleWith("otherteam", [&](const std::string& vpnc) {
             signedCopy(standIn("otherteam"), vpnc, "com.tallowmar.Korvo.vpnc", kOtherTeamSigner);
         })},
    };
    const std::string vendor = bundleWith("vendor", [&](const std::string& vpnc) {
        signedCopy(standIn("vendor"), vpnc, "com.tallowmar.Korvo.vpnc");
    });

    TempDir tmp{"/tmp", 0755};
    const std::string config = tmp.write("Branch.conf", "IPSec gateway 10.79.0.2\nIPSec ID group\nIPSec secret s\n"
                                                        "Xauth username user\nXauth password p\n");
    fs::create_symlink("/usr/share/vpnc-scripts/vpnc-script", tmp.file("Branch-vpnc-script.sh"));
    HelperFixture helper;
    ASSERT_EQ(helper.start(), std::nullopt);
    helper.call("setTmpDirPath", {{"path", tmp.path() + "/"}});
    const auto connect = [&](const std::string& bundle) {
        helper.call("setKorvoBundlePath", {{"path", bundle}});
        ComPortListener comPort;
        return helper.call("connectVPNCWithConfig", {{"config", config}, {"comPort", comPort.port()}});
    };

    for (const auto& [name, bundle] : refused) {
        const Dictionary reply = connect(bundle);
        EXPECT_EQ(pidOf(reply), -1) << name;
        // vpnc's backend gives its program mode 0755 first, which it does
        // not do through a link; the runner would refuse the link as well.
        if (name == "link") {
            EXPECT_EQ(reply.count("error"), 1u);
            continue;
        }
        EXPECT_EQ(errorCodeOf(reply), 69) << name << ": " << errorMessageOf(reply);
        EXPECT_EQ(errorMessageOf(reply), "Cannot verify signature of executable at path " + bundle + "/Contents/MacOS/vpnc");
    }

    const Dictionary reply = connect(vendor);
    EXPECT_GT(pidOf(reply), 0) << errorMessageOf(reply) << helper.helperLog();
    EXPECT_TRUE(eventually([&] { return fs::exists(root.file("vendor.ran")); }, 5s));
    // By now any of the others that had started would have left its marker.
    for (const auto& [name, bundle] : refused) EXPECT_FALSE(fs::exists(root.file(name + ".ran"))) << name << " ran";
}

}  // namespace
}  // namespace korvo::test
