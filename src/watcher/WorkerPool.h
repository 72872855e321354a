#pragma once

#include "base/Mutex.h"
#include "watcher/SerialQueue.h"

#include <chrono>
#include <cstddef>
#include <deque>
#include <list>
#include <map>
#include <memory>
#include <stop_token>
#include <string>
#include <thread>
#include <utility>

namespace harbex
{

/// The threads that run serial queues off the main thread, and their timer. Threads are started when there is
/// work and end when there was none for a while. The last one stays, asleep, so that a task always finds a
/// thread even when the system refuses a new one.
class WorkerPool
{
public:
    using Clock = SerialQueue::Clock;

    /// How many threads there are at most, those left out that run queues which may block.
    static constexpr std::size_t maximumThreads = 64;

    /// `idleTime` is how long a thread without work stays, unless it is the last.
    explicit WorkerPool(std::chrono::milliseconds idleTime = std::chrono::seconds(5));

    /// Stops and waits for the tasks that run.
    ~WorkerPool();

    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    /// Any thread.
    [[nodiscard]] std::shared_ptr<SerialQueue> makeQueue(std::string label);

    /// Drops the tasks that have not begun and waits until those that run have ended.
    /// Called by one thread that is not of the pool.
    void stop();

    /// Asked to stop when the pool is: for work that takes long inside one task.
    [[nodiscard]] std::stop_token stopToken() const { return m_stop.get_token(); }

    /// How many threads there are now. Any thread.
    [[nodiscard]] std::size_t threadCount();

private:
    friend class SerialQueue;
    using Threads = std::list<std::thread>;
    using QueuePointer = std::shared_ptr<SerialQueue>;

    void schedule(QueuePointer queue);
    void scheduleAt(Clock::time_point when, QueuePointer queue, SerialQueue::Task task);

    void addThreadIfNeeded() REQUIRES(m_mutex);
    void work(Threads::iterator self);
    /// The next queue that has tasks, waiting for one; null when the thread shall end.
    QueuePointer nextQueue() REQUIRES(m_mutex);

    const std::chrono::milliseconds m_idleTime;
    std::stop_source m_stop;

    // Locked before the mutex of a queue.
    Mutex m_mutex;
    /// Told of new tasks, of a nearer due time and of the stop.
    Condition m_changed;
    std::deque<QueuePointer> m_ready GUARDED_BY(m_mutex);
    std::multimap<Clock::time_point, std::pair<QueuePointer, SerialQueue::Task>>
        m_delayed GUARDED_BY(m_mutex);
    Threads m_threads GUARDED_BY(m_mutex);
    /// Threads that have left the loop and wait to be joined.
    Threads m_ended GUARDED_BY(m_mutex);
    /// How many threads have no task, those included that have yet to begin.
    std::size_t m_idle GUARDED_BY(m_mutex) = 0;
    /// How many threads run a queue that may block.
    std::size_t m_mayBlock GUARDED_BY(m_mutex) = 0;
    bool m_stopped GUARDED_BY(m_mutex) = false;
};

} // namespace harbex
