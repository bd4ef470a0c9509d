// What a child wrote into a pipe, collected on the process watcher's thread
// and read once the pipe has ended. Bounded, so that a runaway child cannot
// fill the helper's memory: either the first or the last limit bytes are
// kept.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <span>
#include <string>

namespace korvo {

class PipeOutput {
public:
    enum class Keep { Head, Tail };

    PipeOutput(std::size_t limit, Keep keep) : limit_(limit), keep_(keep) {}

    void append(std::span<const std::uint8_t> bytes);
    // The pipe has ended (or cannot be watched).
    void end();
    // Everything collected until the pipe ended, or until grace has passed
    // (a grandchild may hold the pipe open long after the child is gone).
    std::string takeWhenEnded(std::chrono::milliseconds grace);

private:
    const std::size_t limit_;
    const Keep keep_;
    std::mutex mutex_;
    std::condition_variable endedCondition_;
    std::string text_;
    bool ended_ = false;
};

}  // namespace korvo
