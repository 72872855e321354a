#pragma once

#include "base/ThreadSafety.h"

#include <cassert>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace harbex
{

/// std::mutex with the attributes of clang's thread-safety analysis.
class CAPABILITY("mutex") Mutex
{
public:
    void lock() ACQUIRE() { m_mutex.lock(); }
    void unlock() RELEASE() { m_mutex.unlock(); }

private:
    friend class Condition;
    std::mutex m_mutex;
};

/// Locks a Mutex in the constructor and unlocks it in the destructor.
class SCOPED_CAPABILITY MutexLock
{
public:
    explicit MutexLock(Mutex& mutex) ACQUIRE(mutex) : m_mutex(mutex) { m_mutex.lock(); }
    ~MutexLock() RELEASE() { m_mutex.unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

private:
    Mutex& m_mutex;
};

/// A condition variable for Mutex. Spurious wakeups are possible: callers check their condition in a loop.
class Condition
{
public:
    using Clock = std::chrono::steady_clock;

    void notifyOne() { m_condition.notify_one(); }
    void notifyAll() { m_condition.notify_all(); }

    void wait(Mutex& mutex) REQUIRES(mutex)
    {
        std::unique_lock lock(mutex.m_mutex, std::adopt_lock);
        m_condition.wait(lock);
        lock.release();
    }

    void waitUntil(Mutex& mutex, Clock::time_point when) REQUIRES(mutex)
    {
        std::unique_lock lock(mutex.m_mutex, std::adopt_lock);
        m_condition.wait_until(lock, when);
        lock.release();
    }

private:
    std::condition_variable m_condition;
};

/// Restricts data to one thread, the one that creates the role. The data is GUARDED_BY the role. A function
/// that accesses it must first call assertHere(): clang checks that it does, and a build with assertions
/// checks the thread.
class CAPABILITY("thread") ThreadRole
{
public:
    void assertHere() const ASSERT_CAPABILITY(this) { assert(std::this_thread::get_id() == m_thread); }

private:
    std::thread::id m_thread = std::this_thread::get_id();
};

} // namespace harbex
