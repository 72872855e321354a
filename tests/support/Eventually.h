#pragma once

#include <chrono>
#include <functional>
#include <thread>

namespace harbex::test
{

/// Whether something comes to pass within a time that is long even for a busy machine. For conditions that
/// other threads bring about; no events of the main loop are processed meanwhile.
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
