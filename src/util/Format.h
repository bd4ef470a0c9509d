// printf-style formatting into a std::string.
#pragma once

#include <cstdarg>
#include <string>

namespace korvo {

std::string formatString(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string formatStringV(const char* format, va_list args) __attribute__((format(printf, 1, 0)));

}  // namespace korvo
