#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "util/DataAdditions.h"
#include "util/StringAdditions.h"

namespace korvo {
namespace {

using namespace std::string_literals;

TEST(TextDigests, HexOfTheUTF8Bytes) {
    EXPECT_EQ(md5("abc"), "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_EQ(sha1("abc"), "a9993e364706816aba3e25717850c26c9cd0d89d");
    EXPECT_EQ(sha224("abc"), "23097d223405d8228642a477bda255b32aadbce4bda0b3f7e36c9da7");
    EXPECT_EQ(sha256(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    EXPECT_EQ(sha384("abc"),
              "cb00753f45a35e8bb5a03d699ac65007272c32ab0eded1631a8b605a43ff5bed8086072ba1e7cc2358baeca134c825a7");
    EXPECT_EQ(sha512("abc"),
              "ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a2192992a274fc1a836ba3c23a3feebbd"
              "454d4423643ce80e2a9ac94fa54ca49f");
    // Ill-formed bytes digest as the text with U+FFFD in their place.
    EXPECT_EQ(md5("a\xff"), md5("a\xef\xbf\xbd"));
}

TEST(ProfileNames, TableWordsSeparatorsAndCapitalization) {
    EXPECT_EQ(stringByHumanizingProfileName("my_openvpn-profile"), "My OpenVPN Profile");
    EXPECT_EQ(stringByHumanizingProfileName("uk.London+vpn"), "UK London VPN");
    EXPECT_EQ(stringByHumanizingProfileName("office2"), "office2");
    EXPECT_EQ(stringByHumanizingProfileName("VPN"), "VPN");
    EXPECT_EQ(stringByHumanizingProfileName("WIREGUARD__usa"), "WireGuard USA");
    EXPECT_EQ(stringByHumanizingProfileName("amneziawg ipsec SSH"), "AmneziaWG IPsec SSH");
    EXPECT_EQ(stringByHumanizingProfileName("iPhone"), "iPhone");
    EXPECT_EQ(stringByHumanizingProfileName("  home \t--  office\n"), "Home Office");
    EXPECT_EQ(stringByHumanizingProfileName("\u00e9cole_stra\u00dfe"), "\u00c9cole Stra\u00dfe");
    EXPECT_EQ(stringByHumanizingProfileName("\u00dfig"), "Ssig");
    EXPECT_EQ(stringByHumanizingProfileName("\u00a0z\u00fcrich\u2003"), "Z\u00fcrich");
    EXPECT_EQ(stringByHumanizingProfileName("  "), "  ");
    EXPECT_EQ(stringByHumanizingProfileName(""), "");
    EXPECT_EQ(stringByHumanizingProfileName(" _-. "), "_-.");
}

TEST(OpenVPNEscapes, BackslashesFirstThenQuotes) {
    EXPECT_EQ(stringWithOpenVPNSlashEscapes("a\\\"b"), "a\\\\\\\"b");
    EXPECT_EQ(stringWithOpenVPNSlashEscapes("\"\""), "\\\"\\\"");
    EXPECT_EQ(stringWithOpenVPNSlashEscapes("C:\\dir\\"), "C:\\\\dir\\\\");
    EXPECT_EQ(stringWithOpenVPNSlashEscapes("plain 'text'"), "plain 'text'");
}

TEST(LineBuilding, StripsLineBreaksAndControlCharacters) {
    std::string text = "first\n";
    appendStringLine(text, "a\tb\r\nc");
    appendStringLine(text, "x\u2028y\u2029z\u0085!\u200b\u00ad");
    appendStringLine(text, "nul\0byte"s);
    appendStringLine(text, "");
    appendFormatLine(text, "%s = %d", "key\nwith break", 42);
    appendStringLine(text, "caf\u00e9 \u2603");
    EXPECT_EQ(text, "first\nabc\nxyz!\nnulbyte\n\nkeywith break = 42\ncaf\u00e9 \u2603\n");
}

TEST(DoubleSpaces, CollapseRunsOfSpacesOnly) {
    EXPECT_EQ(stringByStrippingDoubleSpaces("a     b  c d"), "a b c d");
    EXPECT_EQ(stringByStrippingDoubleSpaces("  lead and trail  "), " lead and trail ");
    EXPECT_EQ(stringByStrippingDoubleSpaces("tab\t\tstays \t "), "tab\t\tstays \t ");
}

TEST(Placeholders, ValueOrDefaultReplacesEveryOccurrence) {
    std::string text = "remote %HOST% # %HOST%/%host%";
    replacePlaceholder(text, "%HOST%", "vpn.test", "fallback");
    EXPECT_EQ(text, "remote vpn.test # vpn.test/%host%");

    text = "port %PORT%";
    replacePlaceholder(text, "%PORT%", std::nullopt, "1194");
    EXPECT_EQ(text, "port 1194");

    text = "port %PORT%";
    replacePlaceholder(text, "%PORT%", std::nullopt, std::nullopt);
    EXPECT_EQ(text, "port %PORT%");

    text = "aaaa";
    replacePlaceholder(text, "aa", "a", std::nullopt);
    EXPECT_EQ(text, "aa");

    text = "x";
    replacePlaceholder(text, "", "y", std::nullopt);
    EXPECT_EQ(text, "x");
}

TEST(Search, OptionsBehaveLikeThePlatformStringSearch) {
    EXPECT_TRUE(containsString("OpenVPN profile", "VPN"));
    EXPECT_FALSE(containsString("OpenVPN profile", "vpn"));
    EXPECT_FALSE(containsString("text", std::nullopt));
    EXPECT_FALSE(containsString("text", ""));
    EXPECT_TRUE(containsString("OpenVPN profile", "vpn", kCaseInsensitiveSearch));
    EXPECT_TRUE(containsString("STRASSE", "stra\u00dfe", kCaseInsensitiveSearch));
    // Canonically equivalent forms match unless the search is literal.
    EXPECT_TRUE(containsString("cafe\u0301", "caf\u00e9"));
    EXPECT_FALSE(containsString("cafe\u0301", "caf\u00e9", kLiteralSearch));
    EXPECT_FALSE(containsString("cafe\u0301", "cafe"));
    EXPECT_TRUE(containsString("cafe\u0301", "cafe", kLiteralSearch));
    EXPECT_TRUE(containsString("a;b", "\u037e"));
    EXPECT_TRUE(containsString("Caf\u00e9", "cafe", kDiacriticInsensitiveSearch | kCaseInsensitiveSearch));
    EXPECT_TRUE(containsString("\uff21\uff22\uff23", "ABC", kWidthInsensitiveSearch));
    EXPECT_FALSE(containsString("\uff21\uff22\uff23", "ABC"));
    EXPECT_TRUE(containsString("prefix-rest", "prefix", kAnchoredSearch));
    EXPECT_FALSE(containsString("rest-prefix", "prefix", kAnchoredSearch));
    EXPECT_TRUE(containsString("rest-suffix", "suffix", kAnchoredSearch | kBackwardsSearch));
    EXPECT_TRUE(containsString("utun12", "utun[0-9]+", kRegularExpressionSearch));
    EXPECT_TRUE(containsString("UTUN1", "^utun\\d$", kRegularExpressionSearch | kCaseInsensitiveSearch));
    EXPECT_FALSE(containsString("xutun1", "utun", kRegularExpressionSearch | kAnchoredSearch));
    EXPECT_TRUE(containsString("xutun1", "utun\\d", kRegularExpressionSearch | kAnchoredSearch | kBackwardsSearch));
    EXPECT_FALSE(containsString("text", "([", kRegularExpressionSearch));
    EXPECT_TRUE(containsString("a\0b"s, "\0"s));
}

TEST(WordLists, CountsMatchesAndEquality) {
    const std::vector<std::string> words{"vpn", "tun", "", "missing", "vpn"};
    EXPECT_EQ(numberOfHitsFromArray("openvpn over tunnel", words), 3);
    EXPECT_EQ(numberOfHitsFromArray("openvpn", {}), 0);
    EXPECT_TRUE(containsWordInArray("openvpn", words));
    EXPECT_FALSE(containsWordInArray("nothing", words));
    EXPECT_FALSE(containsWordInArray("openvpn", {}));
    EXPECT_TRUE(isEqualToWordInArray("tun", words));
    EXPECT_FALSE(isEqualToWordInArray("Tun", words));
    EXPECT_FALSE(isEqualToWordInArray("tunnel", words));
    EXPECT_TRUE(isEqualToWordInArray("", words));
}

TEST(Base64Text, CharacterEncodings) {
    EXPECT_EQ(stringByEncodingBase64("ABC", StringEncoding::UTF8), "QUJD");
    EXPECT_EQ(stringByDecodingBase64("QUJD", StringEncoding::ASCII), "ABC");
    EXPECT_EQ(stringByEncodingBase64("\u00e9", StringEncoding::ISOLatin1), "6Q==");
    EXPECT_EQ(stringByDecodingBase64("6Q==", StringEncoding::ISOLatin1), "\u00e9");
    EXPECT_EQ(stringByEncodingBase64("\u00e9", StringEncoding::UTF8), "w6k=");
    EXPECT_EQ(stringByEncodingBase64("A", StringEncoding::UTF16BigEndian), "AEE=");
    EXPECT_EQ(stringByEncodingBase64("A", StringEncoding::Unicode), "//5BAA==");
    EXPECT_EQ(stringByDecodingBase64("//5BAA==", StringEncoding::Unicode), "A");
    EXPECT_EQ(stringByDecodingBase64("AEE=", StringEncoding::Unicode), "A");
    // Bytes that are not valid in the encoding, or text it cannot hold.
    EXPECT_EQ(stringByDecodingBase64("6Q==", StringEncoding::ASCII), std::nullopt);
    EXPECT_EQ(stringByDecodingBase64("6Q==", StringEncoding::UTF8), std::nullopt);
    EXPECT_EQ(stringByDecodingBase64("2AA=", StringEncoding::UTF16BigEndian), std::nullopt);
    EXPECT_EQ(stringByEncodingBase64("\u00e9", StringEncoding::ASCII), std::nullopt);
    EXPECT_EQ(stringByEncodingBase64("a\u200b", StringEncoding::ASCII), std::nullopt);
    EXPECT_EQ(stringByEncodingBase64("\ufff5", StringEncoding::WindowsCP1252), std::nullopt);
    EXPECT_EQ(stringByEncodingBase64("x", static_cast<StringEncoding>(999)), std::nullopt);
    for (const auto encoding : {StringEncoding::UTF8, StringEncoding::Unicode, StringEncoding::UTF32,
                                StringEncoding::ShiftJIS, StringEncoding::UTF16LittleEndian}) {
        const auto encoded = stringByEncodingBase64("\u65e5\u672c abc", encoding);
        ASSERT_TRUE(encoded);
        EXPECT_EQ(stringByDecodingBase64(*encoded, encoding), "\u65e5\u672c abc");
    }
}

TEST(BadInput, IllFormedUTF8ReadsAsReplacementCharacters) {
    const std::string bad = "a\xff\xc3" "b\xed\xa0\x80" "c";  // stray byte, cut sequence, surrogate
    const std::string read = "a\ufffd\ufffdb\ufffd\ufffd\ufffdc";
    EXPECT_EQ(stringByStrippingDoubleSpaces(bad), read);
    EXPECT_EQ(stringWithOpenVPNSlashEscapes(bad), read);
    EXPECT_EQ(stringByHumanizingProfileName(bad), read);
    std::string line;
    appendStringLine(line, bad);
    EXPECT_EQ(line, read + "\n");
    EXPECT_TRUE(containsString(bad, "\ufffdb"));
    EXPECT_TRUE(isEqualToWordInArray(bad, std::vector<std::string>{read}));
    EXPECT_EQ(stringByDecodingBase64(base64EncodedString(bytesOf(bad)), StringEncoding::UTF8), std::nullopt);
}

TEST(BadInput, LongRepetitiveTextStaysLinear) {
    const std::string text(1 << 20, 'a');
    const std::string needle = std::string(1 << 19, 'a') + "b";
    EXPECT_FALSE(containsString(text, needle));
    EXPECT_FALSE(containsString(text, needle, kLiteralSearch));
    EXPECT_FALSE(containsString(text, needle, kCaseInsensitiveSearch));
    std::string target = text;
    replacePlaceholder(target, needle, "x", std::nullopt);
    EXPECT_EQ(target, text);
    EXPECT_EQ(stringByStrippingDoubleSpaces(std::string(1 << 20, ' ')), " ");
    EXPECT_FALSE(isValidIPAddress(text));
}

}  // namespace
}  // namespace korvo
