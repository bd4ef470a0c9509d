// The OpenVPN request against a stand-in program that records how it was
// started. The real programs are started by the integration tests.
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <openssl/crypto.h>

#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>

#include "core/HelperTool.h"
#include "support/TestSupport.h"

namespace korvo {
namespace {

using test::fileText;

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}

mode_t modeOf(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 ? (st.st_mode & 07777) : 0;
}

class BackendRequestTest : public ::testing::Test {
protected:
    void SetUp() override {
        tmp_ = dir_ + "/tmp/";
        bundle_ = dir_ + "/Korvo.app";
        std::filesystem::create_directories(tmp_);
        std::filesystem::create_directories(bundle_ + "/Contents/MacOS");
        // The stand-in writes its arguments (one per line) and the OpenSSL
        // variables into openvpn.argv and openvpn.env in its working directory.
        const std::string path = bundle_ + "/Contents/MacOS/openvpn";
        std::ofstream(path) << "#!/bin/sh\nprintf '%s\\n' \"$@\" > openvpn.argv\n"
                            << "for a; do [ \"$prev\" = --writepid ] && echo $$ > \"$a\"; prev=$a; done\n"
                            << "echo \"${OPENSSL_MODULES-unset} ${OPENSSL_CONF-unset}\" > openvpn.env\n";
        ::chmod(path.c_str(), 0600);
        HelperServices services;
        services.codeSigning = std::make_shared<test::FakeCodeSigning>();
        services.storeArea = store_ = std::make_shared<StoreArea>(dir_ + "/run", std::nullopt);
        tool_ = std::make_unique<KorvoHelperTool>(services);
        tool_->setTmpDirPath(tmp_);
        tool_->setKorvoBundlePath(bundle_);
    }

    std::string config(const std::string& name, const std::string& text) {
        const std::string path = dir_ + "/" + name;
        std::ofstream(path, std::ios::binary) << text;
        return path;
    }
    bool logged(const std::string& line) { return log_.contains(line); }

    MaybeError openVPN(const std::optional<std::string>& configPath) {
        MaybeError error;
        bool called = false;
        tool_->connectOpenVPNWithConfig(configPath, 7505,
                                        [&](const MaybeError& e, const std::optional<std::string>& result) {
                                            error = e;
                                            EXPECT_EQ(result, std::nullopt);
                                            called = true;
                                        });
        EXPECT_TRUE(called);
        return error;
    }

    std::unique_ptr<KorvoHelperTool> tool_;
    std::shared_ptr<StoreArea> store_;
    const test::TempDir dirOwner_;
    const std::string dir_ = dirOwner_.path();
    std::string tmp_, bundle_;
    test::LogCapture log_;
};

// OpenVPN opens nothing the client could swap: a copy of the configuration
// in the connection's own directory, and a log and a management password
// of root's in the run directory; the client reads the log where it did.
TEST_F(BackendRequestTest, OpenVPNRunsOnCopiesWithItsLogAndAManagementPassword) {
    const std::string conf = config("Office VPN.ovpn", "client\n# verb 5\n");
    // A link planted where the client reads the log: its target is left alone.
    const std::string victim = config("victim", "precious\n");
    std::filesystem::create_symlink(victim, tmp_ + "Office VPN.log");
    ASSERT_EQ(openVPN(conf), std::nullopt);
    EXPECT_EQ(fileText(victim), "precious\n");

    const std::string run = dir_ + "/run";
    const std::string copy = store_->path(StoreDirectory::Connections) + "/Office_VPN/config";
    const std::vector<std::string> expected = {
        "--config", copy, "--management-query-passwords", "--auth-nocache", "--cd", run, "--daemon",
        "--log", run + "/Office_VPN.log", "--management-hold", "--script-security", "2", "--management",
        "127.0.0.1", "7505", run + "/Office_VPN.management", "--providers", "legacy", "default",
        "--writepid", store_->path(StoreDirectory::Connections) + "/Office_VPN/openvpn.pid"};
    EXPECT_EQ(lines(fileText(tmp_ + "openvpn.argv")), expected);
    EXPECT_EQ(fileText(copy), "client\n# verb 5\n");
    EXPECT_EQ(modeOf(copy), 0600u);
    EXPECT_EQ(fileText(tmp_ + "Office VPN.log"), "");
    EXPECT_EQ(modeOf(tmp_ + "Office VPN.log"), 0644u);
    EXPECT_EQ(std::filesystem::equivalent(tmp_ + "Office VPN.log", run + "/Office_VPN.log"), true);
    EXPECT_EQ(fileText(run + "/Office_VPN.management").size(), 65u);
    EXPECT_EQ(modeOf(run + "/Office_VPN.management"), 0640u);
    EXPECT_EQ(modeOf(bundle_ + "/Contents/MacOS/openvpn"), 0755u);
    EXPECT_TRUE(logged("connectOpenVPNWithConfig: korvoBundle: " + bundle_ + ", configPath: " + conf +
                       ", managementPort: 7505, tempDirPath: " + tmp_));

    // With debug logging, "--verb 4" only when the configuration has no verb
    // line of its own (added: OpenVPNServiceTest).
    tool_->setVPNDebugLoggingEnabled(true);
    ASSERT_EQ(openVPN(config("own.ovpn", "client\n  verb 1\n")), std::nullopt);
    EXPECT_EQ(lines(fileText(tmp_ + "openvpn.argv")).size(), 21u);
}

// What OpenSSL loads is never the client's: system modules and the
// helper's own configuration, whatever the bundle holds.
TEST_F(BackendRequestTest, OpenVPNFailuresAndLegacyProviderEnvironment) {
    std::filesystem::create_directories(bundle_ + "/Contents/Frameworks");
    std::filesystem::create_directories(bundle_ + "/Contents/Resources");
    std::ofstream(bundle_ + "/Contents/Resources/openssl-legacy.cnf") << "\n";
    const std::string conf = config("c.ovpn", "client\n");
    ASSERT_EQ(openVPN(conf), std::nullopt);
    const std::string helperConf = store_->path(StoreDirectory::Connections) + "/openssl-legacy.cnf";
    EXPECT_EQ(fileText(tmp_ + "openvpn.env"), std::string(OPENSSL_info(OPENSSL_INFO_MODULES_DIR)) + " " + helperConf + "\n");
    EXPECT_NE(fileText(helperConf).find("legacy = legacy_sect"), std::string::npos);

    // Refused before anything starts: a configuration that is no regular file.
    EXPECT_EQ(openVPN("/dev/zero").value_or(KorvoError{}).domain, "NSCocoaErrorDomain");

    // A configuration error (OpenVPN exiting at once) comes back through the
    // bus in OpenVPNServiceTest.
    std::filesystem::remove(bundle_ + "/Contents/MacOS/openvpn");
    const MaybeError missing = openVPN(conf);
    ASSERT_TRUE(missing);
    EXPECT_EQ(missing->domain, "NSCocoaErrorDomain");
}

}  // namespace
}  // namespace korvo
