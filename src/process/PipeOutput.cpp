#include "process/PipeOutput.h"

#include <algorithm>

namespace korvo {

void PipeOutput::append(std::span<const std::uint8_t> bytes) {
    const auto* data = reinterpret_cast<const char*>(bytes.data());
    std::lock_guard lock(mutex_);
    if (keep_ == Keep::Head) {
        const std::size_t room = limit_ - std::min(limit_, text_.size());
        text_.append(data, std::min(room, bytes.size()));
        return;
    }
    text_.append(data, bytes.size());
    // Trimmed in batches, not on every append.
    if (text_.size() > 2 * limit_) text_.erase(0, text_.size() - limit_);
}

void PipeOutput::end() {
    {
        std::lock_guard lock(mutex_);
        ended_ = true;
    }
    endedCondition_.notify_all();
}

std::string PipeOutput::takeWhenEnded(std::chrono::milliseconds grace) {
    std::unique_lock lock(mutex_);
    endedCondition_.wait_for(lock, grace, [this] { return ended_; });
    if (keep_ == Keep::Tail && text_.size() > limit_) text_.erase(0, text_.size() - limit_);
    return std::move(text_);
}

}  // namespace korvo
