#include "process/CapturedProcessOutput.h"

#include "util/CharacterSets.h"
#include "util/Utf8.h"

namespace korvo {

void CSCapturedProcessOutput::appendData(std::span<const std::uint8_t> bytes) {
    std::lock_guard lock(mutex_);
    if (bytes.size() >= kCapacity) {
        buffer_.assign(bytes.end() - static_cast<std::ptrdiff_t>(kCapacity), bytes.end());
        return;
    }
    buffer_.insert(buffer_.end(), bytes.begin(), bytes.end());
    if (buffer_.size() > kCapacity) {
        buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(buffer_.size() - kCapacity));
    }
}

std::optional<std::string> CSCapturedProcessOutput::capturedText() const {
    std::string bytes;
    {
        std::lock_guard lock(mutex_);
        if (buffer_.empty()) return std::nullopt;
        bytes.assign(buffer_.begin(), buffer_.end());
    }
    // The tail may start in the middle of a multi-byte character; like any
    // other ill-formed text it then has no string form.
    if (!isValidUTF8(bytes)) return std::nullopt;
    return std::string(trimmedWhitespaceAndNewlines(bytes));
}

}  // namespace korvo
