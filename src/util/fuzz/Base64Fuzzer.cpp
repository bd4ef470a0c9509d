// The base64 codec: encoding decodes back in both layouts, the line layout
// holds, and the lenient decoder matches a plain model of its rules on any
// input.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "util/CharacterSets.h"
#include "util/DataAdditions.h"
#include "util/StringAdditions.h"
#include "util/fuzz/FuzzCheck.h"

namespace {

using korvo::Data;

int alphabetValue(unsigned char c) {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return -1;
}

// Decoding as the codec defines it: the alphabet values in order, four to
// three bytes, a final group of n values giving n - 1 bytes, and the final
// byte dropped when whole groups are followed by skipped input.
Data modelDecode(std::string_view input) {
    std::basic_string<std::uint8_t> values;
    std::size_t lastValueEnd = 0;
    for (std::size_t i = 0; i < input.size(); ++i) {
        const int value = alphabetValue(static_cast<unsigned char>(input[i]));
        if (value < 0) continue;
        values.push_back(static_cast<std::uint8_t>(value));
        lastValueEnd = i + 1;
    }
    Data bytes;
    for (std::size_t i = 0; i < values.size(); i += 4) {
        const std::size_t n = std::min<std::size_t>(4, values.size() - i);
        const auto v = [&](std::size_t k) -> unsigned { return k < n ? values[i + k] : 0u; };
        const std::uint8_t out[3] = {static_cast<std::uint8_t>((v(0) << 2) | (v(1) >> 4)),
                                     static_cast<std::uint8_t>((v(1) << 4) | (v(2) >> 2)),
                                     static_cast<std::uint8_t>((v(2) << 6) | v(3))};
        bytes.insert(bytes.end(), out, out + (n - 1));
    }
    if (!values.empty() && values.size() % 4 == 0 && lastValueEnd < input.size()) bytes.pop_back();
    return bytes;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const korvo::ByteSpan bytes(data, size);
    const std::string_view text(reinterpret_cast<const char*>(data), size);

    const std::string flat = korvo::base64EncodedString(bytes);
    const std::string lines = korvo::base64EncodedStringWithNewlines(bytes);
    FUZZ_CHECK(flat.size() == (size + 2) / 3 * 4);
    FUZZ_CHECK(flat.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/=") ==
               std::string::npos);
    FUZZ_CHECK(korvo::base64Decode(flat) == Data(data, data + size));
    FUZZ_CHECK(korvo::base64Decode(lines) == Data(data, data + size));

    // Lines of 64 characters joined by CR LF, the last one possibly shorter.
    std::string joined;
    for (std::size_t start = 0; start < lines.size();) {
        const std::size_t end = lines.find("\r\n", start);
        const std::string_view line = std::string_view(lines).substr(start, end == std::string::npos ? end : end - start);
        FUZZ_CHECK(line.find_first_of("\r\n") == std::string_view::npos);
        FUZZ_CHECK(end == std::string::npos ? line.size() <= 64 && !line.empty() : line.size() == 64);
        joined += line;
        start = end == std::string::npos ? lines.size() : end + 2;
    }
    FUZZ_CHECK(joined == flat);

    const Data decoded = korvo::base64Decode(text);
    FUZZ_CHECK(decoded.size() <= (size + 3) / 4 * 3);
    FUZZ_CHECK(decoded == modelDecode(text));

    const bool ascii =
        std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
    FUZZ_CHECK(korvo::dataFromBase64String(text) == (ascii ? decoded : Data{}));

    // Text round trip through an encoding that holds every character.
    const auto encoded = korvo::stringByEncodingBase64(text, korvo::StringEncoding::UTF8);
    FUZZ_CHECK(encoded && korvo::stringByDecodingBase64(*encoded, korvo::StringEncoding::UTF8) ==
                              korvo::repairedUTF8(text));
    return 0;
}
