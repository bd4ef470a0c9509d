// The property-list reader on any bytes (XML or binary): whatever it accepts
// is written as XML that reads back as the same value, and writing that again
// gives the same XML.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <iterator>

#include "util/PropertyList.h"
#include "util/fuzz/FuzzCheck.h"

namespace {

// Value equality in which a NaN equals a NaN, so that a NaN read from the
// input does not hide the comparison of everything else.
bool sameValue(const korvo::Value& a, const korvo::Value& b) {
    if (a.type() != b.type()) return false;
    if (a.type() == korvo::Value::Type::Real) {
        const double x = *a.doubleValue();
        const double y = *b.doubleValue();
        return (std::isnan(x) && std::isnan(y)) || x == y;
    }
    if (const auto* array = a.asArray()) {
        const auto& other = *b.asArray();
        if (array->size() != other.size()) return false;
        for (std::size_t i = 0; i < array->size(); ++i) {
            if (!sameValue((*array)[i], other[i])) return false;
        }
        return true;
    }
    if (const auto* dictionary = a.asDictionary()) {
        const auto& other = *b.asDictionary();
        if (dictionary->size() != other.size()) return false;
        for (const auto& [key, value] : *dictionary) {
            const auto found = other.find(key);
            if (found == other.end() || !sameValue(value, found->second)) return false;
        }
        return true;
    }
    return a == b;
}

// The parser is a system library without coverage feedback, so random bytes
// rarely get past its first checks. Most inputs are therefore read as a
// sequence of XML property-list tokens (or as the body of a binary list),
// which reaches nesting, every value type and the odd corners of the format.
std::string documentFromTokens(const std::uint8_t* data, std::size_t size) {
    static constexpr std::string_view kTokens[] = {
        "<dict>", "</dict>", "<dict/>", "<key>", "</key>", "<array>", "</array>", "<array/>",
        "<string>", "</string>", "<string/>", "<integer>", "</integer>", "<real>", "</real>", "<true/>",
        "<false/>", "<data>", "</data>", "<date>", "</date>", "<uid>", "</uid>", "key",
        "value", "-5", "18446744073709551615", "9223372036854775808", "0x10", "1.5e308", "nan", "-inf",
        "QUJD", "QUJD\n", "====", "&amp;", "&lt;", "&#0;", "&#x10FFFF;", "&#xD800;",
        "&bogus;", "<![CDATA[", "]]>", "<!-- c -->", "\xc3\xa9", "\xff", " ", "\n",
        "2024-01-01T00:00:00Z", "<", ">", "/", "\"", "<?xml version=\"1.0\"?>", "<plist>", "</plist>",
    };
    std::string document = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n";
    for (std::size_t i = 0; i < size; ++i) {
        const std::uint8_t byte = data[i];
        if (byte < std::size(kTokens)) {
            document += kTokens[byte];
        } else {
            document.push_back(static_cast<char>(byte));
        }
    }
    document += "\n</plist>\n";
    return document;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    std::string input;
    switch (data[0] % 4) {
        case 0: input.assign(reinterpret_cast<const char*>(data + 1), size - 1); break;
        case 1: input = "bplist00" + std::string(reinterpret_cast<const char*>(data + 1), size - 1); break;
        default: input = documentFromTokens(data + 1, size - 1); break;
    }
    const std::optional<korvo::Value> value = korvo::readPropertyList(input);
    if (!value) return 0;

    const std::string xml = korvo::writeXMLPropertyList(*value);
    FUZZ_CHECK(!xml.empty());
    const std::optional<korvo::Value> reread = korvo::readPropertyList(xml);
    FUZZ_CHECK(reread.has_value());
    FUZZ_CHECK(sameValue(*value, *reread));
    FUZZ_CHECK(korvo::writeXMLPropertyList(*reread) == xml);
    return 0;
}
