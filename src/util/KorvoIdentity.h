// Who the helper and its client are: the names of the service, the client
// application and the run directory, and the code-signing requirements that
// the client and the programs the helper starts must satisfy.
#pragma once

#include <string_view>

namespace korvo {

inline constexpr std::string_view HelperServiceName = "com.tallowmar.korvo.utility";
inline constexpr std::string_view KorvoApplicationIdentifier = "com.tallowmar.Korvo";
inline constexpr std::string_view KorvoRunDirectory = "/var/run/Korvo";

// The vendor's signing team: the OU of the leaf certificate of everything
// the vendor signs.
#define KORVO_SIGNING_TEAM "Q4XW82KTJN"

inline constexpr std::string_view KorvoClientRequirement =
    "anchor apple generic and identifier \"com.tallowmar.Korvo\" and certificate leaf[subject.OU] = " KORVO_SIGNING_TEAM;

// What a program must satisfy for the helper to start it from the client's
// bundle: signed by the vendor, whichever program it is. Stricter than a
// valid signature: a caller may name any bundle, and with it any signed
// program.
inline constexpr std::string_view KorvoProgramRequirement =
    "anchor apple generic and certificate leaf[subject.OU] = " KORVO_SIGNING_TEAM;

}  // namespace korvo
