#pragma once

#include <chrono>
#include <functional>
#include <thread>

namespace harbex::test
{

/// Waits until a condition is true. Returns false if that takes longer than `limit`. Use it for conditions
/// that other threads change, because it does not process events of the main loop.
[[nodiscard]] inline bool eventually(const std::function<bool()>& condition,
                                     std::chrono::seconds limit = std::chrono::seconds(30))
{
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return true;
}

} // namespace harbex::test
