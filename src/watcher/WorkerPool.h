#pragma once

#include "base/Mutex.h"

#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <stop_token>
#include <thread>

namespace harbex
{

/// Threads that run tasks off the main thread: at most 64 at once, started when there is work and ended
/// when there was none for a while. The last one stays, asleep, so that a task always finds a thread even
/// when the system refuses a new one.
class WorkerPool
{
public:
    using Clock = Condition::Clock;
    using Task = std::function<void()>;

    static constexpr std::size_t maximumThreads = 64;

    /// `idleTime` is how long a thread without work stays, unless it is the last.
    explicit WorkerPool(std::chrono::milliseconds idleTime = std::chrono::seconds(5));

    /// Stops and waits for the tasks that run.
    ~WorkerPool();

    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    /// Has `task` run as soon as a thread is free. Any thread; does nothing once the pool was stopped.
    void run(Task task);

    /// Has `task` run as soon as a thread is free after `when`. Any thread.
    void runAt(Clock::time_point when, Task task);

    /// Drops the tasks that have not begun and waits until those that run have ended.
    /// Called by one thread that is not of the pool.
    void stop();

    /// Asked to stop when the pool is: for work that takes long inside one task.
    [[nodiscard]] std::stop_token stopToken() const { return m_stop.get_token(); }

    /// How many threads there are now. Any thread.
    [[nodiscard]] std::size_t threadCount();

private:
    using Threads = std::list<std::thread>;

    void addThreadIfNeeded() REQUIRES(m_mutex);
    void work(Threads::iterator self);
    /// The next task that may run, waiting for one; empty when the thread shall end.
    Task nextTask() REQUIRES(m_mutex);

    const std::chrono::milliseconds m_idleTime;
    std::stop_source m_stop;

    Mutex m_mutex;
    /// Told of new tasks, of a nearer due time and of the stop.
    Condition m_changed;
    std::deque<Task> m_ready GUARDED_BY(m_mutex);
    std::multimap<Clock::time_point, Task> m_delayed GUARDED_BY(m_mutex);
    Threads m_threads GUARDED_BY(m_mutex);
    /// Threads that have left the loop and wait to be joined.
    Threads m_ended GUARDED_BY(m_mutex);
    /// How many threads have no task, those included that have yet to begin.
    std::size_t m_idle GUARDED_BY(m_mutex) = 0;
    bool m_stopped GUARDED_BY(m_mutex) = false;
};

} // namespace harbex
