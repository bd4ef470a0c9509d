#include "util/Format.h"

#include <cstdio>

namespace korvo {

std::string formatStringV(const char* format, va_list args) {
    va_list copy;
    va_copy(copy, args);
    const int needed = std::vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    if (needed <= 0) return {};
    std::string out(static_cast<size_t>(needed), '\0');
    std::vsnprintf(out.data(), out.size() + 1, format, args);
    return out;
}

std::string formatString(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string out = formatStringV(format, args);
    va_end(args);
    return out;
}

}  // namespace korvo
