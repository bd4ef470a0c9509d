// The one reader of decimal integers in client text (route prefixes, tunnel
// address prefixes, CIDR helpers). Two readers that disagree on a character
// are a way to make one check pass and another act on a different number.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace korvo {

struct ScannedInteger {
    std::int64_t value;
    std::size_t end;  // index just past the last digit
};

// Reads a signed decimal integer as a number scanner does: Unicode white
// space and line ends skipped at the start, an optional sign, then at least
// one ASCII digit; values beyond 64 bits saturate. nullopt when no digit
// follows.
std::optional<ScannedInteger> scanInteger(std::string_view text);

// The integer when it is the whole text (leading white space allowed,
// nothing after the digits); nullopt for anything else.
std::optional<std::int64_t> wholeInteger(std::string_view text);

}  // namespace korvo
