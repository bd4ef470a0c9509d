#include "util/IntegerScan.h"

#include <limits>

#include "util/CharacterSets.h"

namespace korvo {

std::optional<ScannedInteger> scanInteger(std::string_view text) {
    std::size_t index = 0;
    while (index < text.size()) {
        std::size_t next = index;
        if (!isWhitespaceOrNewline(nextCodePoint(text, next))) break;
        index = next;
    }
    bool negative = false;
    if (index < text.size() && (text[index] == '+' || text[index] == '-')) {
        negative = text[index] == '-';
        ++index;
    }
    const std::size_t digitsStart = index;
    // Counted up to one past the largest int64, where it stops: that is
    // already the smallest for a negative number and saturates a positive one.
    constexpr auto kLimit = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()) + 1;
    std::uint64_t magnitude = 0;
    for (; index < text.size() && text[index] >= '0' && text[index] <= '9'; ++index) {
        const auto digit = static_cast<std::uint64_t>(text[index] - '0');
        magnitude = magnitude > (kLimit - digit) / 10 ? kLimit : magnitude * 10 + digit;
    }
    if (index == digitsStart) return std::nullopt;
    std::int64_t value = 0;
    if (negative) {
        value = magnitude == kLimit ? std::numeric_limits<std::int64_t>::min() : -static_cast<std::int64_t>(magnitude);
    } else {
        value = magnitude == kLimit ? std::numeric_limits<std::int64_t>::max() : static_cast<std::int64_t>(magnitude);
    }
    return ScannedInteger{value, index};
}

std::optional<std::int64_t> wholeInteger(std::string_view text) {
    const auto scanned = scanInteger(text);
    if (!scanned || scanned->end != text.size()) return std::nullopt;
    return scanned->value;
}

}  // namespace korvo
