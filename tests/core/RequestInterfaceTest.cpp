// The request interface as transports and korvoctl see it: argument checks,
// korvoctl's command line, and the generated documents in docs/.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <fstream>
#include <set>
#include <sstream>

#include "CommandLine.h"
#include "InterfaceDocs.h"
#include "util/Protocol.h"
#include "util/ProtocolArguments.h"
#include "core/RequestHandlers.h"

namespace korvo {
namespace {


const Operation kProbe{"probe",
                           {{"name", ArgumentType::String},
                            {"flag", ArgumentType::Boolean},
                            {"pid", ArgumentType::Int32},
                            {"type", ArgumentType::Int64},
                            {"port", ArgumentType::UInt64},
                            {"names", ArgumentType::StringArray},
                            {"lengths", ArgumentType::Int64Array},
                            {"payload", ArgumentType::Any}},
                           ReplyShape::Pid};

// Values of another kind or range are refused by name through the bus:
// DbusListenerTest.
TEST(ProtocolArgumentsTest, AcceptsEveryDeclaredTypeAndAbsentKeys) {
    EXPECT_EQ(invalidArgumentMessage(kProbe, {}), std::nullopt);
    const Dictionary good = {{"name", "x"},
                             {"flag", false},
                             {"pid", -1},
                             {"type", INT64_MIN},
                             {"port", INT64_MAX},
                             {"names", Array{"a", "b"}},
                             {"lengths", Array{}},
                             {"payload", Dictionary{{"k", Array{1, "two"}}}},
                             {"undeclared", Data{1, 2}}};
    EXPECT_EQ(invalidArgumentMessage(kProbe, good), std::nullopt);
    const auto declared = declaredArguments(kProbe, good);
    EXPECT_EQ(declared.size(), 8u);
    EXPECT_EQ(declared.count("undeclared"), 0u);
}

TEST(KorvoctlCommandLineTest, ParsesWordsByDeclaredType) {
    Dictionary args;
    ASSERT_EQ(ctl::parseOperationArguments(kProbe,
                                           {"name=a=b", "flag=YES", "pid=-5", "port=5000", "names=x,y", "names=z",
                                            "lengths=", "type=-9223372036854775808"},
                                           args),
              std::nullopt);
    EXPECT_EQ(args.at("name"), Value("a=b"));
    EXPECT_EQ(args.at("flag"), Value(true));
    EXPECT_TRUE(args.at("flag").isBooleanStorage());
    EXPECT_EQ(args.at("pid"), Value(-5));
    EXPECT_EQ(args.at("port"), Value(5000));
    EXPECT_EQ(args.at("names"), Value(Array{"x", "y", "z"}));
    EXPECT_EQ(args.at("lengths"), Value(Array{}));
    EXPECT_EQ(args.at("type"), Value(INT64_MIN));

    for (const std::string word : {"flag=maybe", "pid=2147483648", "port=-1", "port=12x", "lengths=1,a", "nokey",
                                   "other=1", "payload=@/nonexistent/file.plist"}) {
        Dictionary ignored;
        EXPECT_NE(ctl::parseOperationArguments(kProbe, {word}, ignored), std::nullopt) << word;
    }
}

// Every operation of the table is a korvoctl subcommand and is documented;
// the documents in docs/ are exactly what the table gives today.
TEST(InterfaceDocsTest, DocsMatchTheOperationTable) {
    std::set<std::string> names;
    for (const auto& op : helperOperations()) {
        EXPECT_TRUE(names.insert(op.name).second) << "duplicate operation " << op.name;
        EXPECT_NE(requestHandler(op.name), nullptr) << op.name;
        EXPECT_EQ(findOperation(op.name), &op);
    }

    const auto read = [](const std::string& name) {
        std::ifstream in(std::string(KORVO_SOURCE_DIR) + "/docs/" + name);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    };
    const std::string howTo =
        "docs/ is out of date with the operation table; regenerate it with\n"
        "  build/tools/korvoctl/korvoctl --write-docs docs\n"
        "from the source tree and commit the result.";
    EXPECT_EQ(read(ctl::BusInterfaceDocumentName), ctl::busInterfaceMarkdown(helperOperations())) << howTo;
    EXPECT_EQ(read(ctl::IntrospectionDocumentName), ctl::introspectionXml(helperOperations())) << howTo;
}

}  // namespace
}  // namespace korvo
