#pragma once

#include "base/Mutex.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <stop_token>
#include <string>
#include <thread>
#include <utility>

namespace harbex
{

class WorkerPool;

/// Runs tasks one after the other on the threads of a WorkerPool, in the order in which they were added or
/// became due. A delayed task does not block the others. WorkerPool::makeQueue() creates queues; the pool
/// must outlive them. When the pool stops, it drops the tasks that have not started.
class SerialQueue : public std::enable_shared_from_this<SerialQueue>
{
public:
    using Clock = Condition::Clock;

    /// Proof that the caller runs on some queue, because only a queue can create a Token. It does not prove
    /// which queue.
    class Token
    {
        friend class SerialQueue;
        Token() = default;
    };

    using Task = std::function<void(Token)>;

    SerialQueue(const SerialQueue&) = delete;
    SerialQueue& operator=(const SerialQueue&) = delete;

    /// Adds `task` at the end of the queue. Thread-safe.
    void async(Task task);

    /// Adds `task` at the end of the queue at the time `when`. Thread-safe.
    void asyncAt(Clock::time_point when, Task task);

    /// Runs `task` on the calling thread. Tasks added meanwhile run after it. Call it before any other task
    /// is added, and from one thread only.
    void runHere(const Task& task);

    /// Sets whether tasks may block on a remote server. The thread limit of the pool does not count such
    /// queues, because they could use up all threads. Counts from the next time that a thread takes the
    /// queue. Thread-safe.
    void setMayBlock(bool mayBlock) { m_mayBlock = mayBlock; }

    /// Returns the label of the queue, for debugging.
    [[nodiscard]] const std::string& label() const { return m_label; }

private:
    friend class WorkerPool;

    SerialQueue(WorkerPool& pool, std::string label) : m_pool(pool), m_label(std::move(label)) {}

    /// Appends a task. Returns whether the caller must schedule the queue on a thread.
    [[nodiscard]] bool push(Task task);
    /// Runs tasks until the queue is empty.
    void runTasks();
    void dropTasks();

    WorkerPool& m_pool;
    const std::string m_label;
    std::atomic<bool> m_mayBlock = false;

    Mutex m_mutex;
    std::deque<Task> m_tasks GUARDED_BY(m_mutex);
    /// A thread runs the tasks or is going to.
    bool m_isScheduled GUARDED_BY(m_mutex) = false;
};

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
