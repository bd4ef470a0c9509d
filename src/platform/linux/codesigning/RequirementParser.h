// The code requirement language, as far as the helper uses it: clauses
// joined by "and", each one of
//   anchor apple generic                   the signer chains to a compiled-in anchor
//   identifier "com.example.App"           the signed identifier (also = "...", or unquoted)
//   certificate leaf[subject.OU] = TEAM    an OU of the signer's certificate (value quoted or not)
// Anything else makes the text fail to parse.
#pragma once

#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace korvo::platform::codesign {

struct AnchorClause {
    friend bool operator==(const AnchorClause&, const AnchorClause&) = default;
};
struct IdentifierClause {
    std::string identifier;
    friend bool operator==(const IdentifierClause&, const IdentifierClause&) = default;
};
struct LeafOrganizationalUnitClause {
    std::string organizationalUnit;
    friend bool operator==(const LeafOrganizationalUnitClause&, const LeafOrganizationalUnitClause&) = default;
};
using RequirementClause = std::variant<AnchorClause, IdentifierClause, LeafOrganizationalUnitClause>;

struct Requirement {
    std::vector<RequirementClause> clauses;  // all must hold
};

struct RequirementParse {
    bool ok = false;
    Requirement requirement;
    std::string error;  // where and why, when not ok
};

RequirementParse parseRequirement(std::string_view text);

}  // namespace korvo::platform::codesign
