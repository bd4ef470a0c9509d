#include "util/StringAdditions.h"

#include <cstdarg>

#include "util/CharacterSets.h"
#include "util/Format.h"

namespace korvo {

void appendStringLine(std::string& target, std::string_view line) {
    target.reserve(target.size() + line.size() + 1);
    for (std::size_t i = 0; i < line.size();) {
        const char32_t c = nextCodePoint(line, i);
        if (isNewline(c) || isControlCharacter(c)) continue;
        appendCodePoint(target, c);
    }
    target.push_back('\n');
}

void appendFormatLine(std::string& target, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const std::string line = formatStringV(format, args);
    va_end(args);
    appendStringLine(target, line);
}

}  // namespace korvo
