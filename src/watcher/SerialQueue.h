#pragma once

#include "base/Mutex.h"

#include <atomic>
#include <deque>
#include <functional>
#include <memory>
#include <string>

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

    /// Proof that the caller runs on a queue, because only a queue can create a Token.
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

    /// Runs `task` on the calling thread. Tasks added meanwhile run after it. Only as the first use of the
    /// queue.
    void runHere(const Task& task);

    /// Sets whether tasks may block on a remote server. The thread limit of the pool does not count such
    /// queues, because they could use up all threads. Thread-safe.
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

} // namespace harbex
