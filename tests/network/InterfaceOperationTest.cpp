// Which interface failures mean "absent", which names count as Ethernet, and
// which resolver files go.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "support/TestSupport.h"
#include "network/NetworkSystemOperations.h"
#include "util/FileSystem.h"

using namespace korvo;
using korvo::platform::InterfaceFailure;

namespace {

class ScriptedInterfaceControl : public platform::InterfaceControl {
public:
    platform::InterfaceOutcome destroyInterface(const std::string&) override { return outcome; }
    platform::InterfaceOutcome setInterfaceUp(const std::string&, bool) override { return outcome; }
    std::optional<std::vector<std::string>> interfaceNames() override { return names; }
    platform::InterfaceOutcome outcome;
    std::optional<std::vector<std::string>> names;
};

}  // namespace

TEST(InterfaceOperations, MacErrorsForAnAbsentInterfaceAndNamesListedOnce) {
    auto control = std::make_shared<ScriptedInterfaceControl>();
    NetworkSystemOperations operations(nullptr, control, "/nonexistent");
    for (const int absent : {ENXIO, ENOENT, ESRCH}) {
        control->outcome = InterfaceFailure{InterfaceFailure::Step::Destroy, absent, "gone"};
        EXPECT_FALSE(operations._deleteInterfaceIfPresent("utun9")) << absent;
    }
    // A control socket that cannot be opened is a failure, whatever its errno.
    control->outcome = InterfaceFailure{InterfaceFailure::Step::OpenSocket, ENOENT, "why"};
    EXPECT_EQ(korvo::test::errorMessage(operations._deleteInterfaceIfPresent("utun9")),
              "Could not open interface control socket: why");
    control->outcome = InterfaceFailure{InterfaceFailure::Step::WriteFlags, EPERM, "why"};
    EXPECT_EQ(korvo::test::errorMessage(operations._setInterfaceNamed("en7", false)),
              "Could not set interface en7 down: why");

    EXPECT_TRUE(operations._localEthernetInterfaceNames().empty());  // the list cannot be read
    control->names = std::vector<std::string>{"lo0", "en0", "bridge0", "utun3", "enx1", "en0", "eth0", "ben0", "En1"};
    EXPECT_EQ(operations._localEthernetInterfaceNames(), (std::vector<std::string>{"en0", "enx1"}));
}

class ResolverFiles : public ::testing::Test {
protected:
    void SetUp() override {
        directory = root.file("resolver/");
        ASSERT_EQ(::mkdir(directory.c_str(), 0755), 0);
    }
    void write(const std::string& name, const std::string& text) { writeFileAtomically(directory + name, text); }
    std::vector<std::string> remaining() {
        std::vector<std::string> names = directoryEntries(directory).value();
        std::sort(names.begin(), names.end());
        return names;
    }
    const test::TempDir root;
    std::string directory;
};

TEST_F(ResolverFiles, RemovesOnlyMarkedFilesAndToleratesAMissingDirectory) {
    write("corp.example", "nameserver 10.0.0.1\n");
    write("vpn.example", "domain vpn.example\nnameserver 10.8.0.1\n#@KORVO_GENERATED\n");
    write("other.example", "#@KORVO_GENERATED nameserver 10.9.0.1");
    write("almost.example", "# @KORVO_GENERATED\n#@korvo_generated\n");
    EXPECT_FALSE(NetworkSystemOperations(nullptr, nullptr, directory)._removeKorvoGeneratedResolverFiles());
    EXPECT_EQ(remaining(), (std::vector<std::string>{"almost.example", "corp.example"}));
    EXPECT_FALSE(NetworkSystemOperations(nullptr, nullptr, root.file("absent/"))._removeKorvoGeneratedResolverFiles());
}
