#pragma once

#include <cstddef>
#include <functional>
#include <thread>
#include <vector>

namespace harbex::test
{

/// Threads that all do the same at once. Waits for them at the end of its life.
class ThreadGroup
{
public:
    /// Each thread calls `work` with its number, from 0 up.
    ThreadGroup(std::size_t count, const std::function<void(std::size_t)>& work) : m_threads(count)
    {
        for (std::size_t i = 0; i < count; ++i)
            m_threads[i] = std::jthread(work, i);
    }

private:
    std::vector<std::jthread> m_threads;
};

} // namespace harbex::test
