#include "util/Utf8.h"

#include <cstdint>

namespace korvo {

bool isValidUTF8(std::string_view bytes) {
    const auto* p = reinterpret_cast<const std::uint8_t*>(bytes.data());
    const auto* end = p + bytes.size();
    while (p < end) {
        const std::uint8_t c = *p;
        if (c < 0x80) {
            ++p;
            continue;
        }
        int extra;
        std::uint32_t min;
        std::uint32_t cp;
        if ((c & 0xE0) == 0xC0) { extra = 1; min = 0x80; cp = c & 0x1F; }
        else if ((c & 0xF0) == 0xE0) { extra = 2; min = 0x800; cp = c & 0x0F; }
        else if ((c & 0xF8) == 0xF0) { extra = 3; min = 0x10000; cp = c & 0x07; }
        else return false;
        if (end - p <= extra) return false;
        for (int i = 1; i <= extra; ++i) {
            if ((p[i] & 0xC0) != 0x80) return false;
            cp = (cp << 6) | (p[i] & 0x3F);
        }
        if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
        p += extra + 1;
    }
    return true;
}

}  // namespace korvo
