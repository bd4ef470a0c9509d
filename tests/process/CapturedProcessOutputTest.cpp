#include "process/CapturedProcessOutput.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "process/ProcessProbe.h"

namespace korvo {
namespace {

std::span<const std::uint8_t> bytesOf(const std::string& text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

std::string numbered(std::size_t count) {
    std::string text;
    for (std::size_t i = 0; text.size() < count; ++i) text += std::to_string(i % 10);
    text.resize(count);
    return text;
}

TEST(CapturedProcessOutputTest, KeepsExactlyTheLastBytesWhateverTheChunking) {
    const std::string all = numbered(10000);
    for (const std::size_t chunk : {std::size_t{1}, std::size_t{7}, std::size_t{4096}, std::size_t{5000}, all.size()}) {
        CSCapturedProcessOutput output;
        for (std::size_t at = 0; at < all.size(); at += chunk) {
            output.appendData(bytesOf(all.substr(at, chunk)));
        }
        EXPECT_EQ(output.capturedText(), all.substr(all.size() - 4096)) << "chunk " << chunk;
    }
}

TEST(CapturedProcessOutputTest, TextIsTrimmedAndNilWhenEmptyOrNotUTF8) {
    CSCapturedProcessOutput output;
    EXPECT_EQ(output.capturedText(), std::nullopt);
    output.appendData(bytesOf(" \n\t error: bad key \r\n\u2028"));
    EXPECT_EQ(output.capturedText(), "error: bad key");

    CSCapturedProcessOutput invalid;
    invalid.appendData(bytesOf("abc\xff"));
    EXPECT_EQ(invalid.capturedText(), std::nullopt);

    CSCapturedProcessOutput blank;
    blank.appendData(bytesOf(" \n "));
    EXPECT_EQ(blank.capturedText(), "");
}

TEST(CapturedProcessOutputTest, ConcurrentWritersAndReadersSeeConsistentTails) {
    CSCapturedProcessOutput output;
    std::vector<std::thread> writers;
    for (int w = 0; w < 4; ++w) {
        writers.emplace_back([&output] {
            const std::string line(100, 'x');
            for (int i = 0; i < 2000; ++i) output.appendData(bytesOf(line));
        });
    }
    for (int i = 0; i < 2000; ++i) {
        const auto text = output.capturedText();
        if (text) {
            ASSERT_LE(text->size(), CSCapturedProcessOutput::kCapacity);
        }
    }
    for (auto& t : writers) t.join();
    EXPECT_EQ(output.capturedText(), std::string(4096, 'x'));
}

}  // namespace
}  // namespace korvo
