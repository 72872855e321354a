#pragma once

#include <chrono>
#include <functional>
#include <thread>

namespace harbex::test
{

/// Waits until a condition is true. Returns false after 30 seconds. Use it for conditions that other threads
/// change, because it does not process events of the main loop.
[[nodiscard]] inline bool eventually(const std::function<bool()>& condition)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return true;
}

} // namespace harbex::test
