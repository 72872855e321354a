#include "watcher/SerialQueue.h"

#include <utility>

namespace harbex
{

std::shared_ptr<SerialQueue> SerialQueue::create(WorkerPool& pool, std::string label)
{
    // Not make_shared: the constructor is private.
    return std::shared_ptr<SerialQueue>(new SerialQueue(pool, std::move(label)));
}

SerialQueue::SerialQueue(WorkerPool& pool, std::string label)
    : m_pool(pool), m_label(std::move(label)), m_stopToken(pool.stopToken()),
      m_onStop(m_stopToken, [this] { dropTasks(); })
{
}

void SerialQueue::dropTasks()
{
    // Letting go of the last task can let go of this queue.
    const std::shared_ptr<SerialQueue> self = weak_from_this().lock();
    std::deque<Task> tasks;
    std::multimap<Clock::time_point, Task> delayed;
    const MutexLock lock(m_mutex);
    tasks.swap(m_tasks);
    delayed.swap(m_delayed);
}

void SerialQueue::async(Task task)
{
    const MutexLock lock(m_mutex);
    if (isStopped()) return;
    m_tasks.push_back(std::move(task));
    runIfNeeded();
}

void SerialQueue::asyncAt(Clock::time_point when, Task task)
{
    const MutexLock lock(m_mutex);
    if (isStopped()) return;
    m_delayed.emplace(when, std::move(task));
    armTimer();
}

void SerialQueue::runIfNeeded()
{
    if (m_busy || m_tasks.empty()) return;
    m_busy = true;
    m_pool.run([self = shared_from_this()] { self->runTasks(); });
}

void SerialQueue::runTasks()
{
    for (;;) {
        Task task;
        {
            const MutexLock lock(m_mutex);
            if (m_tasks.empty()) {
                m_busy = false;
                return;
            }
            task = std::move(m_tasks.front());
            m_tasks.pop_front();
        }
        task(Token());
    }
}

// The queue keeps its delayed tasks itself and asks the pool for one call only, for the next of them: two
// tasks that the pool had fallen due together could change places on its threads.
void SerialQueue::armTimer()
{
    if (m_delayed.empty()) return;
    const Clock::time_point next = m_delayed.begin()->first;
    if (m_timer && *m_timer <= next) return;
    m_timer = next;
    m_pool.runAt(next, [self = shared_from_this(), next] { self->timerFired(next); });
}

void SerialQueue::timerFired(Clock::time_point when)
{
    const MutexLock lock(m_mutex);
    // A call for a later time, asked for before a nearer task came, goes on to be the timer of the rest.
    if (m_timer == when) m_timer.reset();
    const auto due = m_delayed.upper_bound(Clock::now());
    for (auto delayed = m_delayed.begin(); delayed != due; ++delayed)
        m_tasks.push_back(std::move(delayed->second));
    m_delayed.erase(m_delayed.begin(), due);
    armTimer();
    runIfNeeded();
}

} // namespace harbex
