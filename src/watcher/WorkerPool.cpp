#include "watcher/WorkerPool.h"

#include <algorithm>
#include <iterator>
#include <system_error>

namespace harbex
{

WorkerPool::WorkerPool(std::chrono::milliseconds idleTime) : m_idleTime(idleTime) {}

WorkerPool::~WorkerPool()
{
    stop();
}

std::shared_ptr<SerialQueue> WorkerPool::makeQueue(std::string label)
{
    // Not make_shared: the constructor is private.
    return QueuePointer(new SerialQueue(*this, std::move(label)));
}

void WorkerPool::schedule(QueuePointer queue)
{
    {
        const MutexLock lock(m_mutex);
        if (!m_stopped) {
            m_ready.push_back(std::move(queue));
            addThreadIfNeeded();
            m_changed.notifyOne();
            return;
        }
    }
    // Its first task came while the pool stopped.
    queue->dropTasks();
}

void WorkerPool::scheduleAt(Clock::time_point when, QueuePointer queue, SerialQueue::Task task)
{
    const MutexLock lock(m_mutex);
    if (m_stopped) return;
    m_delayed.emplace(when, std::make_pair(std::move(queue), std::move(task)));
    addThreadIfNeeded();
    // All of them, because the one that a single notification reaches may be waiting to end.
    m_changed.notifyAll();
}

void WorkerPool::stop()
{
    m_stop.request_stop();
    Threads threads;
    // Letting go of a task may end in a call of this pool, so it is done without the lock.
    decltype(m_ready) ready;
    decltype(m_delayed) delayed;
    {
        const MutexLock lock(m_mutex);
        m_stopped = true;
        ready.swap(m_ready);
        delayed.swap(m_delayed);
        m_changed.notifyAll();
        threads.splice(threads.end(), m_threads);
        threads.splice(threads.end(), m_ended);
    }
    for (const QueuePointer& queue : ready)
        queue->dropTasks();
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

    // Delayed tasks need one thread that waits for them; a ready queue needs a thread of its own.
    const std::size_t wanted = m_ready.empty() ? 1 : m_ready.size();
    if (m_idle >= wanted || m_threads.size() >= maximumThreads + m_mayBlock) return;

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
    while (QueuePointer queue = nextQueue()) {
        const std::size_t mayBlock = queue->m_mayBlock ? 1 : 0;
        m_mayBlock += mayBlock;
        // Several may have fallen due at once, or this was the thread that waited for the rest.
        if (!m_ready.empty() || !m_delayed.empty()) addThreadIfNeeded();
        m_mutex.unlock();
        queue->runTasks();
        queue.reset();
        m_mutex.lock();
        m_mayBlock -= mayBlock;
        ++m_idle;
    }
    --m_idle;
    // stop() has taken the list over already and joins.
    if (!m_stopped) m_ended.splice(m_ended.end(), m_threads, self);
    m_mutex.unlock();
}

WorkerPool::QueuePointer WorkerPool::nextQueue()
{
    const Clock::time_point idleEnd = Clock::now() + m_idleTime;
    for (;;) {
        if (m_stopped) return {};

        const Clock::time_point now = Clock::now();
        // Here and in this order: threads that each took one of them could change their places.
        while (!m_delayed.empty() && m_delayed.begin()->first <= now) {
            auto& [queue, task] = m_delayed.begin()->second;
            if (queue->push(std::move(task))) m_ready.push_back(std::move(queue));
            m_delayed.erase(m_delayed.begin());
        }
        if (!m_ready.empty()) {
            QueuePointer queue = std::move(m_ready.front());
            m_ready.pop_front();
            --m_idle;
            return queue;
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
