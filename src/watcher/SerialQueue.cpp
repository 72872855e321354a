#include "watcher/SerialQueue.h"

#include <algorithm>
#include <iterator>
#include <system_error>
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
    // Reached if the pool stopped after the queue accepted the task.
    queue->dropTasks();
}

void WorkerPool::scheduleAt(Clock::time_point when, QueuePointer queue, SerialQueue::Task task)
{
    const MutexLock lock(m_mutex);
    if (m_stopped) return;
    m_delayed.emplace(when, std::make_pair(std::move(queue), std::move(task)));
    addThreadIfNeeded();
    // Wake all threads: a single notification could wake one whose idle time is over and which then ends.
    m_changed.notifyAll();
}

void WorkerPool::stop()
{
    m_stop.request_stop();
    Threads threads;
    // Destroy tasks without the lock, because their destructors may call this pool.
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

    // One thread waits for all delayed tasks. Each ready queue needs its own thread.
    const std::size_t wanted = m_ready.empty() ? 1 : m_ready.size();
    if (m_idle >= wanted || m_threads.size() >= maximumThreads + m_mayBlock) return;

    m_threads.emplace_back();
    const auto self = std::prev(m_threads.end());
    try {
        *self = std::thread([this, self] { work(self); });
        ++m_idle;
    } catch (const std::system_error&) {
        // The process limit is reached. The task waits for an existing thread or for the next call.
        m_threads.erase(self);
    }
}

void WorkerPool::work(Threads::iterator self)
{
    m_mutex.lock();
    while (QueuePointer queue = nextQueue()) {
        const std::size_t mayBlock = queue->m_mayBlock ? 1 : 0;
        m_mayBlock += mayBlock;
        // Several tasks may have become due at once, or this thread was the one that waited for delayed
        // tasks.
        if (!m_ready.empty() || !m_delayed.empty()) addThreadIfNeeded();
        m_mutex.unlock();
        queue->runTasks();
        queue.reset();
        m_mutex.lock();
        m_mayBlock -= mayBlock;
        ++m_idle;
    }
    --m_idle;
    // After stop(), the thread is in a list of stop(), which joins it.
    if (!m_stopped) m_ended.splice(m_ended.end(), m_threads, self);
    m_mutex.unlock();
}

WorkerPool::QueuePointer WorkerPool::nextQueue()
{
    const Clock::time_point idleEnd = Clock::now() + m_idleTime;
    for (;;) {
        if (m_stopped) return {};

        const Clock::time_point now = Clock::now();
        // Queue all due tasks under one lock. Separate threads could change the order of tasks.
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

        // Keep the last idle thread for delayed tasks, and the last thread of all in any case: the system may
        // refuse a new one.
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
