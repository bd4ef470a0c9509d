// korvoctl's route lists: one operation a line, refused with the line that
// is not one.
#include <gtest/gtest.h>

#include "RouteList.h"

namespace korvo::ctl {
namespace {

TEST(RouteListTest, ReadsOneOperationALine) {
    const auto operations = parseRouteList(
        "# routes of the office tunnel\n"
        "add 10.8.0.0/24 via 10.99.0.2\n"
        "\n"
        "  delete fd00::/64 via fe80::1 dev utun5 inet6 transaction other\n",
        "office");
    ASSERT_TRUE(operations.ok());
    ASSERT_EQ(operations->size(), 2u);
    EXPECT_EQ((*operations)[0], Value(Dictionary{{"action", "add"}, {"destination", "10.8.0.0/24"},
                                                 {"gateway", "10.99.0.2"}, {"isIPv6", false},
                                                 {"transactionIdentifier", "office"}}));
    EXPECT_EQ((*operations)[1], Value(Dictionary{{"action", "delete"}, {"destination", "fd00::/64"},
                                                 {"gateway", "fe80::1"}, {"isIPv6", true},
                                                 {"interfaceName", "utun5"}, {"transactionIdentifier", "other"}}));
}

TEST(RouteListTest, NamesTheFirstLineThatIsNoRoute) {
    for (const char* text : {"add 10.8.0.0/24 10.99.0.2\n", "add 10.8.0.0/24 via\n", "add 10.8.0.0/24 via x dev\n",
                             "add 10.8.0.0/24 via x metric 5\n"}) {
        const auto operations = parseRouteList(std::string("add 10.1.0.0/16 via 10.99.0.2\n") + text, std::nullopt);
        ASSERT_FALSE(operations.ok()) << text;
        EXPECT_NE(operations.error().displayText().find("line 2 is not"), std::string::npos) << text;
    }
}

}  // namespace
}  // namespace korvo::ctl
