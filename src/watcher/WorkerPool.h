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

/// The worker threads that run serial queues, and their timer. The pool starts threads on demand. Idle
/// threads end after a while, except the last one: it can run tasks even if the system refuses a new thread.
class WorkerPool
{
public:
    using Clock = SerialQueue::Clock;

    /// Maximum number of threads. Threads that run a queue with setMayBlock() do not count.
    static constexpr std::size_t maximumThreads = 64;

    /// An idle thread ends after `idleTime`, unless it is the last one.
    explicit WorkerPool(std::chrono::milliseconds idleTime = std::chrono::seconds(5));

    /// Calls stop().
    ~WorkerPool();

    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    /// Creates a queue whose tasks run on this pool. Thread-safe.
    [[nodiscard]] std::shared_ptr<SerialQueue> makeQueue(std::string label);

    /// Drops the tasks that have not started and waits for the running ones. Call from one thread only, and
    /// not from a thread of the pool.
    void stop();

    /// Returns the token that stop() triggers. Long tasks must check it. Thread-safe.
    [[nodiscard]] std::stop_token stopToken() const { return m_stop.get_token(); }

    /// Returns the current number of threads. Thread-safe.
    [[nodiscard]] std::size_t threadCount();

private:
    friend class SerialQueue;
    using Threads = std::list<std::thread>;
    using QueuePointer = std::shared_ptr<SerialQueue>;

    void schedule(QueuePointer queue);
    void scheduleAt(Clock::time_point when, QueuePointer queue, SerialQueue::Task task);

    void addThreadIfNeeded() REQUIRES(m_mutex);
    void work(Threads::iterator self);
    /// Waits for a queue that has tasks and returns it; null if the thread must end.
    QueuePointer nextQueue() REQUIRES(m_mutex);

    const std::chrono::milliseconds m_idleTime;
    std::stop_source m_stop;

    // Lock order: this mutex before the mutex of a queue.
    Mutex m_mutex;
    /// Notified of new tasks and of stop().
    Condition m_changed;
    std::deque<QueuePointer> m_ready GUARDED_BY(m_mutex);
    std::multimap<Clock::time_point, std::pair<QueuePointer, SerialQueue::Task>>
        m_delayed GUARDED_BY(m_mutex);
    Threads m_threads GUARDED_BY(m_mutex);
    /// Threads that have ended and must be joined.
    Threads m_ended GUARDED_BY(m_mutex);
    /// Number of threads without a queue, including threads that are about to start.
    std::size_t m_idle GUARDED_BY(m_mutex) = 0;
    /// Number of threads that run a queue with setMayBlock().
    std::size_t m_mayBlock GUARDED_BY(m_mutex) = 0;
    bool m_stopped GUARDED_BY(m_mutex) = false;
};

} // namespace harbex
