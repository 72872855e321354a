#include "watcher/SerialQueue.h"

#include "watcher/WorkerPool.h"

#include <utility>

namespace harbex
{

void SerialQueue::async(Task task)
{
    if (push(std::move(task))) m_pool.schedule(shared_from_this());
}

void SerialQueue::asyncAt(Clock::time_point when, Task task)
{
    m_pool.scheduleAt(when, shared_from_this(), std::move(task));
}

void SerialQueue::runHere(const Task& task)
{
    {
        const MutexLock lock(m_mutex);
        m_isScheduled = true;
    }
    task(Token());
    {
        const MutexLock lock(m_mutex);
        m_isScheduled = !m_tasks.empty();
        if (!m_isScheduled) return;
    }
    m_pool.schedule(shared_from_this());
}

bool SerialQueue::push(Task task)
{
    const MutexLock lock(m_mutex);
    // A task can own the owner of this queue. A task kept here would leak both.
    if (m_pool.stopToken().stop_requested()) return false;
    m_tasks.push_back(std::move(task));
    return !std::exchange(m_isScheduled, true);
}

void SerialQueue::runTasks()
{
    for (;;) {
        Task task;
        {
            const MutexLock lock(m_mutex);
            if (m_tasks.empty()) {
                m_isScheduled = false;
                return;
            }
            task = std::move(m_tasks.front());
            m_tasks.pop_front();
        }
        // A dropped task is destroyed without the lock, because it may own the last reference to anything.
        if (!m_pool.stopToken().stop_requested()) task(Token());
    }
}

void SerialQueue::dropTasks()
{
    std::deque<Task> tasks;
    const MutexLock lock(m_mutex);
    tasks.swap(m_tasks);
}

} // namespace harbex
