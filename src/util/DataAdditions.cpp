#include "util/DataAdditions.h"

#include <sys/random.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>

#include "util/Digest.h"

namespace korvo {

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::uint8_t kSkip = 65;
constexpr std::size_t kBytesPerLine = 48;

constexpr std::array<std::uint8_t, 256> makeDecodingTable() {
    std::array<std::uint8_t, 256> table{};
    table.fill(kSkip);
    for (std::uint8_t value = 0; value < 64; ++value) {
        table[static_cast<unsigned char>(kAlphabet[value])] = value;
    }
    return table;
}

constexpr std::array<std::uint8_t, 256> kDecodingTable = makeDecodingTable();

void appendGroup(std::string& output, const std::uint8_t* group) {
    output.push_back(kAlphabet[group[0] >> 2]);
    output.push_back(kAlphabet[((group[0] & 0x03) << 4) | (group[1] >> 4)]);
    output.push_back(kAlphabet[((group[1] & 0x0F) << 2) | (group[2] >> 6)]);
    output.push_back(kAlphabet[group[2] & 0x3F]);
}

}  // namespace

Data base64Decode(std::string_view input) {
    Data output((input.size() + 3) / 4 * 3);
    // Signed on purpose: an empty last group takes one byte back.
    std::ptrdiff_t length = 0;
    std::size_t index = 0;
    while (index < input.size()) {
        std::array<std::uint8_t, 4> values{};
        std::size_t count = 0;
        while (index < input.size() && count < 4) {
            const std::uint8_t value = kDecodingTable[static_cast<unsigned char>(input[index++])];
            if (value != kSkip) values[count++] = value;
        }
        std::uint8_t* out = output.data() + std::max<std::ptrdiff_t>(length, 0);
        if (count >= 2) out[0] = static_cast<std::uint8_t>((values[0] << 2) | (values[1] >> 4));
        if (count >= 3) out[1] = static_cast<std::uint8_t>((values[1] << 4) | (values[2] >> 2));
        if (count >= 4) out[2] = static_cast<std::uint8_t>((values[2] << 6) | values[3]);
        length += static_cast<std::ptrdiff_t>(count) - 1;
    }
    // Only input without a single alphabet character ends below zero.
    output.resize(static_cast<std::size_t>(std::max<std::ptrdiff_t>(length, 0)));
    return output;
}

std::string base64Encode(ByteSpan bytes, bool withLineBreaks) {
    const std::size_t length = bytes.size();
    std::size_t outputSize = (length + 2) / 3 * 4;
    if (withLineBreaks) outputSize += outputSize / 64 * 2;
    std::string output;
    output.reserve(outputSize);

    const std::size_t lineLength = withLineBreaks ? kBytesPerLine : length;
    std::size_t index = 0;
    std::size_t lineEnd = lineLength;
    while (true) {
        lineEnd = std::min(lineEnd, length);
        for (; index + 3 <= lineEnd; index += 3) appendGroup(output, bytes.data() + index);
        if (lineEnd == length) break;
        output += "\r\n";
        lineEnd += lineLength;
    }
    const std::size_t remaining = length - index;
    if (remaining > 0) {
        std::array<std::uint8_t, 3> last{};
        std::copy_n(bytes.data() + index, remaining, last.begin());
        appendGroup(output, last.data());
        output.replace(output.size() - (3 - remaining), 3 - remaining, 3 - remaining, '=');
    }
    return output;
}

Data dataFromBase64String(std::string_view text) {
    const bool ascii = std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
    if (!ascii) return {};
    return base64Decode(text);
}

std::string base64EncodedString(ByteSpan bytes) { return base64Encode(bytes, false); }

std::string base64EncodedStringWithNewlines(ByteSpan bytes) { return base64Encode(bytes, true); }

Data MD5Digest(ByteSpan bytes) { return digestOf(DigestAlgorithm::MD5, bytes); }

std::string MD5HexDigest(ByteSpan bytes) { return hexString(MD5Digest(bytes)); }

Data SHA256Digest(ByteSpan bytes) { return digestOf(DigestAlgorithm::SHA256, bytes); }

std::string SHA256HexDigest(ByteSpan bytes) { return hexString(SHA256Digest(bytes)); }

Data randomDataWithBytes(std::size_t count) {
    Data bytes(count);
    std::size_t filled = 0;
    while (filled < count) {
        const ssize_t got = getrandom(bytes.data() + filled, count - filled, 0);
        if (got < 0) {
            if (errno == EINTR) continue;
            // Only a kernel without getrandom gets here; predictable bytes
            // must never stand in for random ones.
            std::abort();
        }
        filled += static_cast<std::size_t>(got);
    }
    return bytes;
}

}  // namespace korvo
