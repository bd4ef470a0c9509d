// The tail of a child's output, kept for error messages.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace korvo {

class CSCapturedProcessOutput {
public:
    static constexpr std::size_t kCapacity = 4096;

    // Appends bytes, keeping only the last kCapacity of everything appended.
    void appendData(std::span<const std::uint8_t> bytes);
    // nullopt when empty or not UTF-8; otherwise the text trimmed of white
    // space and line ends at both ends.
    std::optional<std::string> capturedText() const;

private:
    mutable std::mutex mutex_;
    std::vector<std::uint8_t> buffer_;
};

}  // namespace korvo
