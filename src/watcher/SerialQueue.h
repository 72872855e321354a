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

/// Runs tasks one after the other on whatever thread of a WorkerPool is free, in the order in which they came
/// or fell due. Nothing is blocked while a task waits for its time. Made by WorkerPool::makeQueue(); the pool
/// must live longer. Once the pool has stopped, tasks that have not begun are dropped.
class SerialQueue : public std::enable_shared_from_this<SerialQueue>
{
public:
    using Clock = Condition::Clock;

    /// Proof of running on a queue. Only a queue makes one: a function that takes it cannot be called from
    /// anywhere else.
    class Token
    {
        friend class SerialQueue;
        Token() = default;
    };

    using Task = std::function<void(Token)>;

    SerialQueue(const SerialQueue&) = delete;
    SerialQueue& operator=(const SerialQueue&) = delete;

    /// Has `task` run after those that wait already. Any thread.
    void async(Task task);

    /// Has `task` run once `when` has come. Any thread.
    void asyncAt(Clock::time_point when, Task task);

    /// Runs `task` on the calling thread before it returns; what is put into the queue meanwhile runs after
    /// it. Only as the first use of the queue.
    void runHere(const Task& task);

    /// Says whether tasks may wait for a server that does not answer. Such tasks do not count towards the
    /// limit of threads, so that they cannot keep others from running. Any thread.
    void setMayBlock(bool mayBlock) { m_mayBlock = mayBlock; }

    /// Names the queue for people who debug.
    [[nodiscard]] const std::string& label() const { return m_label; }

private:
    friend class WorkerPool;

    SerialQueue(WorkerPool& pool, std::string label) : m_pool(pool), m_label(std::move(label)) {}

    /// Appends a task; gives whether the queue must be handed to a thread now.
    [[nodiscard]] bool push(Task task);
    /// Runs tasks until there are none.
    void runTasks();
    void dropTasks();

    WorkerPool& m_pool;
    const std::string m_label;
    std::atomic<bool> m_mayBlock = false;

    Mutex m_mutex;
    std::deque<Task> m_tasks GUARDED_BY(m_mutex);
    /// A thread runs the tasks, or will.
    bool m_isScheduled GUARDED_BY(m_mutex) = false;
};

} // namespace harbex
