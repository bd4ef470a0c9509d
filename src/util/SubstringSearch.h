// Substring search in time linear in text plus pattern (Knuth-Morris-Pratt),
// also for long repetitive patterns, on which a naive search and the
// standard library's Boyer-Moore table construction are quadratic.
#pragma once

#include <cstddef>
#include <string_view>
#include <vector>

namespace korvo {

template <typename Char>
class SubstringFinder {
public:
    static constexpr std::size_t npos = std::basic_string_view<Char>::npos;

    // The pattern must outlive the finder and must not be empty.
    explicit SubstringFinder(std::basic_string_view<Char> pattern) : pattern_(pattern), fallback_(pattern.size()) {
        // fallback_[i]: length of the longest proper border of pattern[0..i].
        for (std::size_t i = 1, border = 0; i < pattern.size(); ++i) {
            while (border > 0 && pattern[i] != pattern[border]) border = fallback_[border - 1];
            if (pattern[i] == pattern[border]) ++border;
            fallback_[i] = border;
        }
    }

    // Position of the first occurrence at or after `from` that `accept`
    // takes; occurrences are offered in order, overlapping ones included.
    template <typename Accept>
    std::size_t find(std::basic_string_view<Char> text, std::size_t from, Accept accept) const {
        const std::size_t length = pattern_.size();
        std::size_t matched = 0;
        for (std::size_t i = from; i < text.size(); ++i) {
            while (matched > 0 && text[i] != pattern_[matched]) matched = fallback_[matched - 1];
            if (text[i] == pattern_[matched]) ++matched;
            if (matched == length) {
                const std::size_t start = i + 1 - length;
                if (accept(start)) return start;
                matched = fallback_[matched - 1];
            }
        }
        return npos;
    }

    std::size_t find(std::basic_string_view<Char> text, std::size_t from = 0) const {
        return find(text, from, [](std::size_t) { return true; });
    }

private:
    std::basic_string_view<Char> pattern_;
    std::vector<std::size_t> fallback_;
};

}  // namespace korvo
