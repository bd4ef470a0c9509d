// The requirement text: what parses, into which clauses, and what is refused.
#include <gtest/gtest.h>

#include "platform/linux/codesigning/RequirementParser.h"

namespace korvo::platform::codesign {
namespace {

std::vector<RequirementClause> clausesOf(std::string_view text) {
    const RequirementParse parsed = parseRequirement(text);
    EXPECT_TRUE(parsed.ok) << text << ": " << parsed.error;
    return parsed.requirement.clauses;
}

TEST(RequirementParser, ReadsTheClientRequirementAndItsSpellings) {
    const std::vector<RequirementClause> client{AnchorClause{}, IdentifierClause{"com.tallowmar.Korvo"},
                                                LeafOrganizationalUnitClause{"Q4XW82KTJN"}};
    EXPECT_EQ(clausesOf("anchor apple generic and identifier \"com.tallowmar.Korvo\" and "
                        "certificate leaf[subject.OU] = Q4XW82KTJN"),
              client);
    EXPECT_EQ(clausesOf("  anchor\tapple generic\nand identifier = com.tallowmar.Korvo and "
                        "cert leaf [ subject.OU ]=\"Q4XW82KTJN\"  "),
              client);
    // Quoted values keep spaces, "and", and escaped quotes and backslashes.
    EXPECT_EQ(clausesOf(R"(identifier "a and b" and certificate leaf[subject.OU] = "x\"y\\z")"),
              (std::vector<RequirementClause>{IdentifierClause{"a and b"}, LeafOrganizationalUnitClause{"x\"y\\z"}}));
    EXPECT_EQ(clausesOf("identifier \"\""), std::vector<RequirementClause>{IdentifierClause{""}});
}

TEST(RequirementParser, RefusesWhatItDoesNotUnderstand) {
    for (const char* text : {
             "",
             "   ",
             "anchor apple",
             "anchor apple generic and",
             "and anchor apple generic",
             "anchor apple generic or identifier \"x\"",
             "anchor apple generic and (identifier \"x\")",
             "anchor trusted",
             "identifier",
             "identifier and",
             "identifier \"unterminated",
             "identifier \"x\" \"y\"",
             "certificate leaf[subject.CN] = x",
             "certificate root[subject.OU] = x",
             "certificate leaf[subject.OU] x",
             "certificate leaf[subject.OU] =",
             "certificate leaf subject.OU = x",
             "info [CFBundleVersion] = 1",
             "!identifier \"x\"",
             "Anchor apple generic",
         }) {
        const RequirementParse parsed = parseRequirement(text);
        EXPECT_FALSE(parsed.ok) << "'" << text << "'";
        EXPECT_FALSE(parsed.error.empty()) << "'" << text << "'";
    }
    EXPECT_NE(parseRequirement("anchor apple generic and entitlement x").error.find("unknown clause"),
              std::string::npos);
}

}  // namespace
}  // namespace korvo::platform::codesign
