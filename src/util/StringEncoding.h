// Character encodings for converting text to and from bytes, numbered as the
// platform string type numbers them so that values from a client keep their
// meaning.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "util/Value.h"

namespace korvo {

enum class StringEncoding : std::uint32_t {
    ASCII = 1,
    JapaneseEUC = 3,
    UTF8 = 4,
    ISOLatin1 = 5,
    ShiftJIS = 8,
    ISOLatin2 = 9,
    // UTF-16 with a byte-order mark: written little-endian after FF FE; read
    // in the order the mark gives, big-endian without one.
    Unicode = 10,
    WindowsCP1251 = 11,
    WindowsCP1252 = 12,
    WindowsCP1253 = 13,
    WindowsCP1254 = 14,
    WindowsCP1250 = 15,
    ISO2022JP = 21,
    MacOSRoman = 30,
    UTF16BigEndian = 0x90000100,
    UTF16LittleEndian = 0x94000100,
    // UTF-32 with a byte-order mark, written and read as Unicode above.
    UTF32 = 0x8c000100,
    UTF32BigEndian = 0x98000100,
    UTF32LittleEndian = 0x9c000100,
};

// The text (UTF-8; ill-formed sequences read as U+FFFD) as bytes in the
// encoding; nothing when a character has no form in it or the encoding is not
// one of the above.
std::optional<Data> encodeText(std::string_view text, StringEncoding encoding);
// The bytes read in the encoding, as UTF-8; nothing when they are not valid in
// it or the encoding is not one of the above.
std::optional<std::string> decodeText(std::string_view bytes, StringEncoding encoding);

}  // namespace korvo
