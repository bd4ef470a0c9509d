// The OpenVPN, vpnc and OpenConnect requests against a bundle of stand-in
// programs that record how they were started. The real programs are started
// by the integration tests.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>

#include "core/HelperTool.h"
#include "process/UniqueFd.h"
#include "util/Log.h"

namespace korvo {
namespace {

class ValidCodeSigning final : public platform::CodeSigning {
public:
    platform::CodeSignState codeSignStateForExecutable(const std::string&) override {
        return platform::CodeSignState::Valid;
    }
    int copyGuestWithPid(pid_t, std::unique_ptr<platform::GuestCode>&) override { return -1; }
    int createRequirement(std::string_view, std::unique_ptr<platform::CodeRequirement>&) override { return -1; }
    int checkValidity(const platform::GuestCode&, const platform::CodeRequirement&) override { return -1; }
};

std::string fileText(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

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

std::string messageOf(const MaybeError& error) {
    const auto description = error ? error->localizedDescription().value_or("") : std::string("<no error>");
    const auto split = description.find("\n\n");
    return split == std::string::npos ? description : description.substr(split + 2);
}

class BackendRequestTest : public ::testing::Test {
protected:
    void SetUp() override {
        char dirTemplate[] = "/tmp/korvo-backends-XXXXXX";
        ASSERT_NE(::mkdtemp(dirTemplate), nullptr);
        dir_ = dirTemplate;
        tmp_ = dir_ + "/tmp/";
        bundle_ = dir_ + "/Korvo.app";
        std::filesystem::create_directories(tmp_);
        std::filesystem::create_directories(bundle_ + "/Contents/MacOS");
        // Each stand-in writes its arguments (one per line) and the
        // OpenSSL variables into NAME.argv and NAME.env in its working
        // directory, then says hello on its standard output.
        for (const std::string name : {"openvpn", "vpnc", "openconnect"}) {
            const std::string path = bundle_ + "/Contents/MacOS/" + name;
            std::ofstream(path) << "#!/bin/sh\nprintf '%s\\n' \"$@\" > " << name << ".argv\n"
                                << "echo \"${OPENSSL_MODULES-unset} ${OPENSSL_CONF-unset}\" > " << name << ".env\n"
                                << "echo '" << name << " says hello'\nexit ${STANDIN_STATUS:-0}\n";
            ::chmod(path.c_str(), 0600);
        }
        HelperServices services;
        services.codeSigning = std::make_shared<ValidCodeSigning>();
        tool_ = std::make_unique<KorvoHelperTool>(services);
        tool_->setTmpDirPath(tmp_);
        tool_->setKorvoBundlePath(bundle_);
        setLogSink([this](int, std::string_view line) {
            std::lock_guard lock(logMutex_);
            log_.emplace_back(line);
        });
    }
    void TearDown() override {
        setLogSink(nullptr);
        ::unsetenv("STANDIN_STATUS");
        std::filesystem::remove_all(dir_);
    }

    std::string config(const std::string& name, const std::string& text) {
        const std::string path = dir_ + "/" + name;
        std::ofstream(path, std::ios::binary) << text;
        return path;
    }
    std::string script(const std::string& name) {
        const std::string path = tmp_ + name;
        std::ofstream(path) << "#!/bin/sh\n";
        ::chmod(path.c_str(), 0600);
        return path;
    }
    bool logged(const std::string& line) {
        std::lock_guard lock(logMutex_);
        return std::find(log_.begin(), log_.end(), line) != log_.end();
    }

    struct PidResult {
        MaybeError error;
        std::int32_t pid = 0;
    };
    PidResult openConnect(const std::optional<std::string>& configPath, std::uint64_t port,
                          const std::optional<std::string>& resolve = std::string()) {
        PidResult r;
        tool_->connectOpenConnectWithConfig(configPath, std::string("vpn.example.test"), resolve,
                                            std::string("COOKIE"), std::string("sha256:abc"), port,
                                            [&r](const MaybeError& e, std::int32_t pid) {
                                                r.error = e;
                                                r.pid = pid;
                                            });
        return r;
    }
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

    // Waits until a stand-in started without waiting has written its file.
    std::string awaitFile(const std::string& path) {
        for (int i = 0; i < 500 && !std::filesystem::exists(path); ++i) ::usleep(10000);
        ::usleep(20000);
        return fileText(path);
    }

    std::unique_ptr<KorvoHelperTool> tool_;
    std::string dir_, tmp_, bundle_;
    std::mutex logMutex_;
    std::vector<std::string> log_;
};

class Listener {
public:
    Listener() : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t n = sizeof a;
        ::bind(fd_.get(), reinterpret_cast<sockaddr*>(&a), n);
        ::listen(fd_.get(), 2);
        ::getsockname(fd_.get(), reinterpret_cast<sockaddr*>(&a), &n);
        port_ = ntohs(a.sin_port);
    }
    std::uint16_t port() const { return port_; }
    std::string readConnection() {
        UniqueFd c(::accept4(fd_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        std::string out;
        char b[1024];
        ssize_t n;
        while ((n = ::read(c.get(), b, sizeof b)) > 0) out.append(b, static_cast<std::size_t>(n));
        return out;
    }

private:
    UniqueFd fd_;
    std::uint16_t port_ = 0;
};

TEST_F(BackendRequestTest, OpenVPNArgumentsLogFileAndPermissions) {
    const std::string conf = config("Office VPN.ovpn", "client\n# verb 5\n");
    std::ofstream(tmp_ + "Office VPN.log") << "old log\n";
    ASSERT_EQ(openVPN(conf), std::nullopt);

    const std::vector<std::string> expected = {
        "--config", conf, "--management-query-passwords", "--auth-nocache", "--cd", "/var/run/Korvo", "--daemon",
        "--log", tmp_ + "Office VPN.log", "--management-hold", "--script-security", "2", "--management",
        "127.0.0.1", "7505", "--providers", "legacy", "default"};
    EXPECT_EQ(lines(fileText(tmp_ + "openvpn.argv")), expected);
    EXPECT_EQ(fileText(tmp_ + "Office VPN.log"), "");
    EXPECT_EQ(modeOf(tmp_ + "Office VPN.log"), 0644u);
    EXPECT_EQ(modeOf(bundle_ + "/Contents/MacOS/openvpn"), 0755u);
    EXPECT_EQ(fileText(tmp_ + "openvpn.env"), "unset unset\n");
    EXPECT_TRUE(logged("connectOpenVPNWithConfig: korvoBundle: " + bundle_ + ", configPath: " + conf +
                       ", managementPort: 7505, tempDirPath: " + tmp_));

    // Debug logging adds "--verb 4" unless the configuration has a verb line
    // (the commented one above does not count).
    tool_->setVPNDebugLoggingEnabled(true);
    ASSERT_EQ(openVPN(conf), std::nullopt);
    auto withVerb = expected;
    withVerb.insert(withVerb.end(), {"--verb", "4"});
    EXPECT_EQ(lines(fileText(tmp_ + "openvpn.argv")), withVerb);
    const std::string ownVerb = config("own.ovpn", "client\n  verb 1\n");
    ASSERT_EQ(openVPN(ownVerb), std::nullopt);
    EXPECT_EQ(lines(fileText(tmp_ + "openvpn.argv")).size(), 18u);
}

TEST_F(BackendRequestTest, OpenVPNFailuresAndLegacyProviderEnvironment) {
    std::filesystem::create_directories(bundle_ + "/Contents/Frameworks");
    std::filesystem::create_directories(bundle_ + "/Contents/Resources");
    std::ofstream(bundle_ + "/Contents/Resources/openssl-legacy.cnf") << "\n";
    const std::string conf = config("c.ovpn", "client\n");
    ASSERT_EQ(openVPN(conf), std::nullopt);
    EXPECT_EQ(fileText(tmp_ + "openvpn.env"),
              bundle_ + "/Contents/Frameworks " + bundle_ + "/Contents/Resources/openssl-legacy.cnf\n");

    // A configuration error: OpenVPN exits before going to the background.
    ::setenv("STANDIN_STATUS", "1", 1);
    const MaybeError failed = openVPN(conf);
    ASSERT_TRUE(failed);
    EXPECT_EQ(failed->code, 68);
    EXPECT_EQ(messageOf(failed), "openvpn says hello\n");

    std::filesystem::remove(bundle_ + "/Contents/MacOS/openvpn");
    const MaybeError missing = openVPN(conf);
    ASSERT_TRUE(missing);
    EXPECT_EQ(missing->domain, "NSCocoaErrorDomain");
}

TEST_F(BackendRequestTest, OpenConnectRewriteKeepsTheConfigurationPrivate) {
    const std::string conf = config("corp.conf", "user=me\n--Background\nprotocol=anyconnect\n");
    ::chmod(conf.c_str(), 0600);
    const std::string scriptPath = script("corp-openconnect-script.sh");
    Listener listener;
    const PidResult started = openConnect(conf, listener.port(), std::string("vpn.example.test:10.1.2.3"));
    ASSERT_EQ(started.error, std::nullopt) << messageOf(started.error);
    EXPECT_EQ(listener.readConnection(), "openconnect says hello\n");
    EXPECT_EQ(fileText(conf), "user=me\nprotocol=anyconnect\n");
    EXPECT_EQ(modeOf(conf), 0600u);  // it may hold secrets
    EXPECT_EQ(modeOf(scriptPath), 0755u);
    EXPECT_EQ(lines(awaitFile(tmp_ + "openconnect.argv")),
              (std::vector<std::string>{"--config=" + conf, "--cookie=COOKIE", "--script=\"" + scriptPath + "\"",
                                        "--servercert=sha256:abc", "--os=mac-intel",
                                        "--resolve=vpn.example.test:10.1.2.3", "vpn.example.test"}));
}

}  // namespace
}  // namespace korvo
