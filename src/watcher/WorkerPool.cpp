#include "watcher/WorkerPool.h"

#include <algorithm>
#include <iterator>
#include <system_error>
#include <utility>

namespace harbex
{

WorkerPool::WorkerPool(std::chrono::milliseconds idleTime) : m_idleTime(idleTime) {}

WorkerPool::~WorkerPool()
{
    stop();
}

void WorkerPool::run(Task task)
{
    const MutexLock lock(m_mutex);
    if (m_stopped) return;
    m_ready.push_back(std::move(task));
    addThreadIfNeeded();
    m_changed.notifyOne();
}

void WorkerPool::runAt(Clock::time_point when, Task task)
{
    const MutexLock lock(m_mutex);
    if (m_stopped) return;
    m_delayed.emplace(when, std::move(task));
    addThreadIfNeeded();
    // All of them, because the one that a single notification reaches may be waiting to end.
    m_changed.notifyAll();
}

void WorkerPool::stop()
{
    m_stop.request_stop();
    Threads threads;
    // Letting go of a task may end in a call of this pool, so it is done without the lock.
    std::deque<Task> ready;
    std::multimap<Clock::time_point, Task> delayed;
    {
        const MutexLock lock(m_mutex);
        m_stopped = true;
        ready.swap(m_ready);
        delayed.swap(m_delayed);
        m_changed.notifyAll();
        threads.splice(threads.end(), m_threads);
        threads.splice(threads.end(), m_ended);
    }
    ready.clear();
    delayed.clear();
    for (std::thread& thread : threads)
        thread.join();
}

std::size_t WorkerPool::threadCount()
{
    const MutexLock lock(m_mutex);
    return m_threads.size();
}

void WorkerPool::addThreadIfNeeded()
{
    for (std::thread& thread : m_ended)
        thread.join();
    m_ended.clear();

    // A delayed task needs one thread that waits for it; a ready one needs a thread of its own.
    const std::size_t wanted = m_ready.empty() ? 1 : m_ready.size();
    if (m_idle >= wanted || m_threads.size() >= maximumThreads) return;

    m_threads.emplace_back();
    const auto self = std::prev(m_threads.end());
    try {
        *self = std::thread([this, self] { work(self); });
        ++m_idle;
    } catch (const std::system_error&) {
        // The user's limit of processes. The task waits for a thread that there is, or for the next call.
        m_threads.erase(self);
    }
}

void WorkerPool::work(Threads::iterator self)
{
    m_mutex.lock();
    while (Task task = nextTask()) {
        m_mutex.unlock();
        task();
        task = nullptr;
        m_mutex.lock();
        ++m_idle;
    }
    --m_idle;
    // stop() has taken the list over already and joins.
    if (!m_stopped) m_ended.splice(m_ended.end(), m_threads, self);
    m_mutex.unlock();
}

WorkerPool::Task WorkerPool::nextTask()
{
    const Clock::time_point idleEnd = Clock::now() + m_idleTime;
    for (;;) {
        if (m_stopped) return {};

        const Clock::time_point now = Clock::now();
        while (!m_delayed.empty() && m_delayed.begin()->first <= now) {
            m_ready.push_back(std::move(m_delayed.begin()->second));
            m_delayed.erase(m_delayed.begin());
        }
        if (!m_ready.empty()) {
            Task task = std::move(m_ready.front());
            m_ready.pop_front();
            --m_idle;
            // Several may have fallen due at once, or this was the thread that waited for the rest.
            if (!m_ready.empty() || !m_delayed.empty()) addThreadIfNeeded();
            return task;
        }

        // The last one stays: a task that comes when the system refuses a thread must find one.
        const bool needed = m_idle == 1 && (!m_delayed.empty() || m_threads.size() == 1);
        if (now >= idleEnd && !needed) return {};
        if (needed && m_delayed.empty()) {
            m_changed.wait(m_mutex);
            continue;
        }
        Clock::time_point wake = m_delayed.empty() ? idleEnd : m_delayed.begin()->first;
        if (!needed) wake = std::min(wake, idleEnd);
        m_changed.waitUntil(m_mutex, wake);
    }
}

} // namespace harbex
