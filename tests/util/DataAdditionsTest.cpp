#include <gtest/gtest.h>

#include <string>

#include "util/DataAdditions.h"

namespace korvo {
namespace {

Data bytes(std::string_view text) { return Data(text.begin(), text.end()); }

Data sequence(std::size_t count) {
    Data data(count);
    for (std::size_t i = 0; i < count; ++i) data[i] = static_cast<std::uint8_t>(i * 7 + 3);
    return data;
}

TEST(Base64Decoding, SkipsEverythingOutsideTheAlphabetAndDropsTheLastByteAfterAFullGroup) {
    const std::pair<std::string, std::string> cases[] = {
        {"QUJDRA==", "ABCD"}, {"QU JD", "ABC"}, {"Q\r\nU\xff" "J\x80" "D", "ABC"},
        {"QUJ=DRA", "ABCD"},  // groups need not follow the input's layout
        // Whole groups followed by more input: the final byte is lost.
        {"QUJD\n", "AB"}, {"QUJD==", "AB"}, {"QUJDREVG\r\n", "ABCDE"},
        {"QUJDR", "ABC"},  // a lone value after the last whole group yields nothing
        {"", ""}, {"====\r\n  ", ""}, {std::string(1000, '\0'), ""}, {"Q", ""},
    };
    for (const auto& [text, decoded] : cases) EXPECT_EQ(base64Decode(text), bytes(decoded)) << text;
    EXPECT_EQ(dataFromBase64String("QUJD"), bytes("ABC"));
    EXPECT_TRUE(dataFromBase64String("QUJD\xc3\xa9").empty());
}

// Standard output, lines of 64 characters separated by CR LF, and every
// length decodes back.
TEST(Base64Encoding, DecodesBackForEveryLengthAndLayout) {
    EXPECT_EQ(base64EncodedString(Data{0xFB, 0xFF, 0xBF, 'f'}), "+/+/Zg==");
    const std::string two = base64EncodedStringWithNewlines(sequence(96));
    ASSERT_EQ(two.size(), 64u + 2 + 64);
    EXPECT_EQ(two.substr(64, 2), "\r\n");
    for (std::size_t length = 0; length <= 200; ++length) {
        const Data data = sequence(length);
        const std::string flat = base64EncodedString(data);
        const std::string lines = base64EncodedStringWithNewlines(data);
        EXPECT_EQ(base64Decode(flat), data) << length;
        EXPECT_EQ(base64Decode(lines), data) << length;
        std::string withoutBreaks;
        for (const char c : lines) {
            if (c != '\r' && c != '\n') withoutBreaks.push_back(c);
        }
        EXPECT_EQ(withoutBreaks, flat) << length;
    }
}

}  // namespace
}  // namespace korvo
