#pragma once

#include "base/Mutex.h"
#include "watcher/WorkerPool.h"

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>

namespace harbex
{

/// Runs tasks one after the other on whatever thread of a WorkerPool is free: those of async() in the order
/// in which they came, those of asyncAt() in the order in which they fall due. Nothing is blocked while a
/// task waits for its time. The pool must live longer; when it stops, the tasks that have not begun are
/// dropped.
class SerialQueue : public std::enable_shared_from_this<SerialQueue>
{
public:
    using Clock = WorkerPool::Clock;

    /// Proof of running on a queue. Only a queue makes one: a function that takes it cannot be called from
    /// anywhere else.
    class Token
    {
        friend class SerialQueue;
        Token() = default;
    };

    using Task = std::function<void(Token)>;

    /// `label` names the queue for people who debug.
    [[nodiscard]] static std::shared_ptr<SerialQueue> create(WorkerPool& pool, std::string label);

    SerialQueue(const SerialQueue&) = delete;
    SerialQueue& operator=(const SerialQueue&) = delete;

    /// Has `task` run after those that wait already. Any thread.
    void async(Task task);

    /// Has `task` run once `when` has come. Any thread.
    void asyncAt(Clock::time_point when, Task task);

    [[nodiscard]] const std::string& label() const { return m_label; }

private:
    SerialQueue(WorkerPool& pool, std::string label);

    void dropTasks();
    [[nodiscard]] bool isStopped() const { return m_stopToken.stop_requested(); }
    void runIfNeeded() REQUIRES(m_mutex);
    void runTasks();
    void armTimer() REQUIRES(m_mutex);
    void timerFired(Clock::time_point when);

    WorkerPool& m_pool;
    const std::string m_label;

    Mutex m_mutex;
    std::deque<Task> m_tasks GUARDED_BY(m_mutex);
    std::multimap<Clock::time_point, Task> m_delayed GUARDED_BY(m_mutex);
    /// When the pool calls timerFired() next.
    std::optional<Clock::time_point> m_timer GUARDED_BY(m_mutex);
    /// Whether the pool has runTasks() waiting or under way.
    bool m_busy GUARDED_BY(m_mutex) = false;

    const std::stop_token m_stopToken;
    /// Tasks may hold what holds this queue; without this they would keep each other alive for good.
    std::stop_callback<std::function<void()>> m_onStop;
};

} // namespace harbex
