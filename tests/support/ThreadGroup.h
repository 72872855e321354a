#pragma once

#include <cstddef>
#include <functional>
#include <thread>
#include <vector>

namespace harbex::test
{

/// Threads that run the same function at the same time. The destructor waits for them.
class ThreadGroup
{
public:
    /// Starts the threads. Each one calls `work` with its number, from 0.
    ThreadGroup(std::size_t count, const std::function<void(std::size_t)>& work) : m_threads(count)
    {
        for (std::size_t i = 0; i < count; ++i)
            m_threads[i] = std::jthread(work, i);
    }

private:
    std::vector<std::jthread> m_threads;
};

} // namespace harbex::test
