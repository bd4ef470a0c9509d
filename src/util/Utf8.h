// UTF-8 validity, as Foundation decides it when it makes a string from bytes.
#pragma once

#include <string_view>

namespace korvo {

// True when the bytes are well-formed UTF-8 (no overlong forms, no surrogates,
// nothing above U+10FFFF). An embedded NUL is valid.
bool isValidUTF8(std::string_view bytes);

}  // namespace korvo
