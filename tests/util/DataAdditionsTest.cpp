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
    EXPECT_EQ(base64Decode("QUJD"), bytes("ABC"));
    EXPECT_EQ(base64Decode("QUJDRA=="), bytes("ABCD"));
    EXPECT_EQ(base64Decode("QUJDREU="), bytes("ABCDE"));
    EXPECT_EQ(base64Decode("QU JD"), bytes("ABC"));
    EXPECT_EQ(base64Decode("Q\r\nU\xff" "J\x80" "D"), bytes("ABC"));
    // Groups need not follow the input's layout.
    EXPECT_EQ(base64Decode("QUJ=DRA"), bytes("ABCD"));
    // Whole groups followed by more input: the final byte is lost.
    EXPECT_EQ(base64Decode("QUJD\n"), bytes("AB"));
    EXPECT_EQ(base64Decode("QUJD=="), bytes("AB"));
    EXPECT_EQ(base64Decode("QUJDREVG\r\n"), bytes("ABCDE"));
    // A lone value after the last whole group yields nothing.
    EXPECT_EQ(base64Decode("QUJDR"), bytes("ABC"));
}

TEST(Base64Decoding, InputWithoutAlphabetCharactersIsEmpty) {
    EXPECT_TRUE(base64Decode("").empty());
    EXPECT_TRUE(base64Decode("=").empty());
    EXPECT_TRUE(base64Decode("====\r\n  ").empty());
    EXPECT_TRUE(base64Decode(std::string(1000, '\0')).empty());
    EXPECT_TRUE(base64Decode("Q").empty());
}

TEST(Base64Decoding, StringWithNonASCIIDecodesToNothing) {
    EXPECT_EQ(dataFromBase64String("QUJD"), bytes("ABC"));
    EXPECT_TRUE(dataFromBase64String("QUJD\xc3\xa9").empty());
    EXPECT_TRUE(dataFromBase64String("QUJD\x80").empty());
}

TEST(Base64Encoding, StandardVectorsWithPadding) {
    EXPECT_EQ(base64EncodedString(bytes("")), "");
    EXPECT_EQ(base64EncodedString(bytes("f")), "Zg==");
    EXPECT_EQ(base64EncodedString(bytes("fo")), "Zm8=");
    EXPECT_EQ(base64EncodedString(bytes("foo")), "Zm9v");
    EXPECT_EQ(base64EncodedString(bytes("foobar")), "Zm9vYmFy");
    EXPECT_EQ(base64EncodedString(Data{0xFB, 0xFF, 0xBF}), "+/+/");
    EXPECT_EQ(base64EncodedStringWithNewlines(bytes("fo")), "Zm8=");
}

TEST(Base64Encoding, LinesOf64CharactersSeparatedByCRLF) {
    const std::string one = base64EncodedStringWithNewlines(sequence(48));
    EXPECT_EQ(one.size(), 64u);
    EXPECT_EQ(one.find('\r'), std::string::npos);

    const std::string spill = base64EncodedStringWithNewlines(sequence(49));
    ASSERT_EQ(spill.size(), 64u + 2 + 4);
    EXPECT_EQ(spill.substr(64, 2), "\r\n");
    EXPECT_EQ(spill.substr(68), "==");

    const std::string two = base64EncodedStringWithNewlines(sequence(96));
    ASSERT_EQ(two.size(), 64u + 2 + 64);
    EXPECT_EQ(two.substr(64, 2), "\r\n");
    EXPECT_EQ(two.substr(0, 64), one);

    const std::string flat = base64EncodedString(sequence(1000));
    EXPECT_EQ(flat.find_first_of("\r\n"), std::string::npos);
    EXPECT_EQ(flat.size(), 1336u);
}

TEST(Base64Encoding, DecodesBackForEveryLengthAndLayout) {
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
