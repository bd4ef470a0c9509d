// How interface failures become the helper's errors, which names count as
// Ethernet, and which resolver files go.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <string>
#include <vector>

#include "NetworkTestSupport.h"
#include "network/NetworkSystemOperations.h"
#include "util/FileSystem.h"

using namespace korvo;
using korvo::platform::InterfaceFailure;
using korvo::testing::errorMessage;
using Step = InterfaceFailure::Step;

namespace {

class ScriptedInterfaceControl : public platform::InterfaceControl {
public:
    platform::InterfaceOutcome destroyInterface(const std::string& name) override {
        calls.push_back("destroy " + name);
        return outcome;
    }
    platform::InterfaceOutcome setInterfaceUp(const std::string& name, bool up) override {
        calls.push_back((up ? "up " : "down ") + name);
        return outcome;
    }
    std::optional<std::vector<std::string>> interfaceNames() override { return names; }

    platform::InterfaceOutcome outcome;
    std::optional<std::vector<std::string>> names;
    std::vector<std::string> calls;
};

InterfaceFailure failure(Step step, int error) { return InterfaceFailure{step, error, "reason " + std::to_string(error)}; }

}  // namespace

TEST(InterfaceOperations, AbsentInterfacesAreDeletedAndOtherFailuresAreCode68) {
    auto control = std::make_shared<ScriptedInterfaceControl>();
    NetworkSystemOperations operations(nullptr, control, "/nonexistent");

    EXPECT_FALSE(operations._deleteInterfaceIfPresent("utun9"));
    for (const int absent : {ENXIO, ENOENT, ESRCH, ENODEV}) {
        control->outcome = failure(Step::Destroy, absent);
        EXPECT_FALSE(operations._deleteInterfaceIfPresent("utun9")) << absent;
    }
    control->outcome = failure(Step::Destroy, EOPNOTSUPP);
    MaybeError error = operations._deleteInterfaceIfPresent("lo");
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code, 68);
    EXPECT_EQ(errorMessage(error), "Could not delete tunnel interface lo: reason " + std::to_string(EOPNOTSUPP));

    // A socket that cannot be opened is not an absent interface, whatever its errno.
    control->outcome = failure(Step::OpenSocket, ENOENT);
    error = operations._deleteInterfaceIfPresent("utun9");
    EXPECT_EQ(errorMessage(error), "Could not open interface control socket: reason " + std::to_string(ENOENT));
    error = operations._setInterfaceNamed("en0", true);
    EXPECT_EQ(errorMessage(error), "Could not open interface control socket: reason " + std::to_string(ENOENT));

    control->outcome = failure(Step::ReadFlags, ENODEV);
    error = operations._setInterfaceNamed("en7", false);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code, 68);
    EXPECT_EQ(errorMessage(error), "Could not read flags for interface en7: reason " + std::to_string(ENODEV));

    control->outcome = failure(Step::WriteFlags, EPERM);
    EXPECT_EQ(errorMessage(operations._setInterfaceNamed("en7", false)),
              "Could not set interface en7 down: reason " + std::to_string(EPERM));
    EXPECT_EQ(errorMessage(operations._setInterfaceNamed("en7", true)),
              "Could not set interface en7 up: reason " + std::to_string(EPERM));
}

TEST(InterfaceOperations, EthernetNamesBeginWithEnAndAppearOnce) {
    auto control = std::make_shared<ScriptedInterfaceControl>();
    NetworkSystemOperations operations(nullptr, control, "/nonexistent");
    EXPECT_TRUE(operations._localEthernetInterfaceNames().empty());  // the list cannot be read

    control->names = std::vector<std::string>{"lo0", "en0", "bridge0", "utun3", "enx1", "en0", "eth0", "en", "ben0", "En1"};
    EXPECT_EQ(operations._localEthernetInterfaceNames(), (std::vector<std::string>{"en0", "enx1", "en"}));
}

class ResolverFiles : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/korvo-resolver-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern), nullptr);
        root = pattern;
        directory = root + "/resolver/";
        ASSERT_EQ(::mkdir(directory.c_str(), 0755), 0);
    }
    void TearDown() override { korvo::testing::shell("rm -rf '" + root + "'"); }

    void write(const std::string& name, const std::string& text) {
        ASSERT_FALSE(writeFileAtomically(directory + name, text));
    }
    std::vector<std::string> remaining() {
        auto entries = directoryEntries(directory);
        std::vector<std::string> names = entries ? *entries : std::vector<std::string>{};
        std::sort(names.begin(), names.end());
        return names;
    }

    std::string root, directory;
};

TEST_F(ResolverFiles, RemovesOnlyMarkedFilesAndToleratesAMissingDirectory) {
    write("corp.example", "nameserver 10.0.0.1\n");
    write("vpn.example", "domain vpn.example\nnameserver 10.8.0.1\n#@KORVO_GENERATED\n");
    write("other.example", "#@KORVO_GENERATED nameserver 10.9.0.1");
    write("almost.example", "# @KORVO_GENERATED\n#@korvo_generated\n");
    NetworkSystemOperations operations(nullptr, nullptr, directory);
    EXPECT_FALSE(operations._removeKorvoGeneratedResolverFiles());
    EXPECT_EQ(remaining(), (std::vector<std::string>{"almost.example", "corp.example"}));

    NetworkSystemOperations missing(nullptr, nullptr, root + "/absent/");
    EXPECT_FALSE(missing._removeKorvoGeneratedResolverFiles());
}

TEST_F(ResolverFiles, AnUnreadableEntryStopsTheRemovalWhereItStands) {
    // Root reads any file, so the unreadable entry is a directory; text that
    // is not UTF-8 stops the walk the same way.
    for (int i = 0; i < 6; ++i) write("a" + std::to_string(i), "#@KORVO_GENERATED\n");
    ASSERT_EQ(::mkdir((directory + "subdirectory").c_str(), 0755), 0);
    write("binary", std::string("\xff\xfe#@KORVO_GENERATED", 19));
    for (int i = 0; i < 6; ++i) write("b" + std::to_string(i), "#@KORVO_GENERATED\n");

    const std::vector<std::string> order = *directoryEntries(directory);
    const auto firstUnreadable = std::find_if(order.begin(), order.end(),
                                              [](const std::string& n) { return n == "subdirectory" || n == "binary"; });
    ASSERT_NE(firstUnreadable, order.end());

    NetworkSystemOperations operations(nullptr, nullptr, directory);
    const MaybeError error = operations._removeKorvoGeneratedResolverFiles();
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain, CocoaErrorDomain);

    // Entries listed before the unreadable one are gone; it and all after it stay.
    std::vector<std::string> expected(firstUnreadable, order.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(remaining(), expected);
    EXPECT_TRUE(std::any_of(expected.begin(), expected.end(), [](const std::string& n) { return n.size() == 2; }))
        << "no marked file was listed after the unreadable entry";
}
