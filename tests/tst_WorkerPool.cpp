#include "support/Eventually.h"
#include "support/Gate.h"
#include "support/TestMain.h"
#include "support/ThreadGroup.h"
#include "watcher/WorkerPool.h"

#include <algorithm>
#include <atomic>
#include <functional>
#include <latch>
#include <memory>
#include <pthread.h>
#include <thread>
#include <vector>

using namespace harbex;
using namespace harbex::test;
using namespace std::chrono_literals;

namespace
{

using Clock = WorkerPool::Clock;

/// Runs a task and waits for its end; false when it does not come.
bool runAndWait(WorkerPool& pool)
{
    const auto done = std::make_shared<std::promise<void>>();
    pool.run([done] { done->set_value(); });
    return done->get_future().wait_for(30s) == std::future_status::ready;
}

/// Occupies threads of a pool from its making until its gate is opened.
class Blockers
{
public:
    Blockers(WorkerPool& pool, const Gate& gate, int count) : m_count(count)
    {
        for (int i = 0; i < count; ++i) {
            pool.run([began = m_began, opened = gate.opened()] {
                ++*began;
                opened.wait();
            });
        }
    }

    [[nodiscard]] bool allBegan() const
    {
        return eventually([this] { return *m_began == m_count; });
    }

private:
    int m_count;
    std::shared_ptr<std::atomic<int>> m_began = std::make_shared<std::atomic<int>>(0);
};

/// Lets the system refuse every new thread for as long as it lives: their stacks would not fit into memory.
class NoMoreThreads
{
public:
    NoMoreThreads()
    {
        ::pthread_getattr_default_np(&m_before);
        pthread_attr_t attributes;
        ::pthread_getattr_default_np(&attributes);
        ::pthread_attr_setstacksize(&attributes, size_t(1) << 62);
        if (::pthread_setattr_default_np(&attributes) != 0) qFatal("cannot set the size of stacks");
        ::pthread_attr_destroy(&attributes);
    }
    ~NoMoreThreads()
    {
        ::pthread_setattr_default_np(&m_before);
        ::pthread_attr_destroy(&m_before);
    }
    NoMoreThreads(const NoMoreThreads&) = delete;
    NoMoreThreads& operator=(const NoMoreThreads&) = delete;

private:
    pthread_attr_t m_before;
};

} // namespace

class TestWorkerPool : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // Threads.
    void hasNoThreadsAtFirst();
    void runsTasksOnOtherThreads();
    void runsEveryTaskOfManyThreads();
    void sixtyFourTasksRunAtOnce();
    void neverMoreThan64Threads();
    void threadsEndWhenIdle();
    void threadsStayForTheIdleTime();
    void oneTaskAfterTheOtherUsesTheSameThreads();
    void startsNoMoreThreadsThanThereAreTasks();
    void tasksMayRunTasks();
    void tasksAreReleasedWhenTheyHaveRun();
    void taskThatIsLetGoMayUseThePool_data();
    void taskThatIsLetGoMayUseThePool();
    void refusedThreadLosesNoTask();
    void refusedThreadIsNotNeededByOneTaskAtATime();

    // Delayed tasks.
    void delayedTaskRunsNotBeforeItsTime();
    void delayedTasksRunInTheOrderOfTheirTimes();
    void delayedTaskOfThePastRunsAtOnce();
    void nearerTaskAddedLaterRunsFirst();
    void delayedTasksDueTogetherRunAtOnce();
    void delayedTaskRunsAlthoughTheThreadThatWaitedIsTaken();
    void delayedTaskRunsOnceAThreadIsFree();
    void delayedTaskHoldsOneThread();
    void delayedTaskOutlivesTheIdleTime();

    // Stopping.
    void stopWaitsForTasksThatRun();
    void stopDropsTasksThatWait();
    void stopDropsDelayedTasks();
    void stopAsksThroughTheTokenFirst();
    void runAfterStopIsIgnored();
    void stopTwiceIsHarmless();
    void destructionStops();
    void destructionOfAnIdlePoolEndsItsThreads();
    void stopWhileManyThreadsRunTasks();
};

void TestWorkerPool::hasNoThreadsAtFirst()
{
    WorkerPool pool;
    QCOMPARE(pool.threadCount(), size_t(0));
    QVERIFY(!pool.stopToken().stop_requested());
}

void TestWorkerPool::runsTasksOnOtherThreads()
{
    WorkerPool pool;
    std::atomic<std::thread::id> id;
    pool.run([&] { id = std::this_thread::get_id(); });
    QVERIFY(eventually([&] { return id.load() != std::thread::id(); }));
    QVERIFY(id.load() != std::this_thread::get_id());
    QCOMPARE(pool.threadCount(), size_t(1));
    pool.stop();
}

void TestWorkerPool::runsEveryTaskOfManyThreads()
{
    constexpr size_t perThread = 2'000;
    std::vector<std::atomic<int>> runs(8 * perThread);
    std::atomic<size_t> done = 0;
    {
        WorkerPool pool;
        const ThreadGroup callers(8, [&](size_t caller) {
            for (size_t i = 0; i < perThread; ++i) {
                pool.run([&, index = caller * perThread + i] {
                    ++runs[index];
                    ++done;
                });
            }
        });
        QVERIFY(eventually([&] { return done == 8 * perThread; }));
        QVERIFY(pool.threadCount() <= WorkerPool::maximumThreads);
    }
    QVERIFY(std::all_of(runs.begin(), runs.end(), [](const auto& count) { return count == 1; }));
}

void TestWorkerPool::sixtyFourTasksRunAtOnce()
{
    WorkerPool pool;
    const Gate gate;
    const Blockers blockers(pool, gate, 64);
    QVERIFY(blockers.allBegan());
    QCOMPARE(pool.threadCount(), size_t(64));
}

void TestWorkerPool::neverMoreThan64Threads()
{
    QCOMPARE(WorkerPool::maximumThreads, size_t(64));
    std::atomic<int> inside = 0;
    std::atomic<int> most = 0;
    std::atomic<int> done = 0;
    WorkerPool pool;
    Gate gate;
    for (int i = 0; i < 300; ++i) {
        const WorkerPool::Task task = [&, opened = gate.opened()] {
            const int now = ++inside;
            for (int before = most; before < now && !most.compare_exchange_weak(before, now);) {
            }
            opened.wait();
            --inside;
            ++done;
        };
        if (i % 3 == 0)
            pool.runAt(Clock::now(), task);
        else
            pool.run(task);
        QVERIFY(pool.threadCount() <= 64);
    }
    QVERIFY(eventually([&] { return inside == 64; }));
    gate.open();
    QVERIFY(eventually([&] { return done == 300; }));
    QCOMPARE(most, 64);
    pool.stop();
}

void TestWorkerPool::threadsEndWhenIdle()
{
    WorkerPool pool(20ms);
    for (int round = 0; round < 3; ++round) {
        Gate gate;
        const Blockers blockers(pool, gate, 10);
        QVERIFY(blockers.allBegan());
        QVERIFY(pool.threadCount() >= 10);
        gate.open();
        QVERIFY(eventually([&] { return pool.threadCount() == 1; }));
    }
}

void TestWorkerPool::threadsStayForTheIdleTime()
{
    WorkerPool pool(1h);
    {
        const Gate gate;
        const Blockers blockers(pool, gate, 10);
        QVERIFY(blockers.allBegan());
    }
    for (int i = 0; i < 100; ++i) {
        QVERIFY(runAndWait(pool));
        QVERIFY(pool.threadCount() >= 10);
    }
}

void TestWorkerPool::oneTaskAfterTheOtherUsesTheSameThreads()
{
    WorkerPool pool;
    for (int i = 0; i < 1'000; ++i)
        QVERIFY(runAndWait(pool));
    // One that has just ended its task may not be idle yet when the next task comes.
    QVERIFY(pool.threadCount() < 32);
}

void TestWorkerPool::startsNoMoreThreadsThanThereAreTasks()
{
    for (int round = 0; round < 10; ++round) {
        WorkerPool pool;
        const Gate gate;
        const Blockers blockers(pool, gate, 20);
        QVERIFY(blockers.allBegan());
        QCOMPARE(pool.threadCount(), size_t(20));
    }
}

void TestWorkerPool::tasksMayRunTasks()
{
    WorkerPool pool;
    std::atomic<int> left = 5'000;
    std::function<void()> next = [&] {
        if (--left > 0) pool.run(next);
    };
    pool.run(next);
    QVERIFY(eventually([&] { return left == 0; }));
    pool.stop();
}

void TestWorkerPool::tasksAreReleasedWhenTheyHaveRun()
{
    WorkerPool pool(1h);
    auto held = std::make_shared<int>(0);
    const std::weak_ptr<int> observer = held;
    pool.run([held] {});
    pool.runAt(Clock::now() + 5ms, [held] {});
    held.reset();
    QVERIFY(eventually([&] { return observer.expired(); }));
}

void TestWorkerPool::taskThatIsLetGoMayUseThePool_data()
{
    QTest::addColumn<bool>("stopsFirst");
    QTest::addColumn<int>("delay");
    QTest::newRow("because it has run") << false << 0;
    QTest::newRow("because the pool stops") << false << 3600;
    QTest::newRow("because the pool was stopped") << true << 3600;
}

void TestWorkerPool::taskThatIsLetGoMayUseThePool()
{
    QFETCH(const bool, stopsFirst);
    QFETCH(const int, delay);
    std::atomic<bool> used = false;
    std::atomic<bool> wasPossible = false;
    WorkerPool pool;
    std::jthread user;
    std::shared_ptr<void> held(nullptr, [&](void*) {
        // On another thread, so that the test comes to an end where it is not possible.
        user = std::jthread([&] {
            pool.run([] {});
            used = true;
        });
        wasPossible = eventually([&] { return used.load(); });
    });
    if (stopsFirst) pool.stop();
    pool.runAt(Clock::now() + std::chrono::seconds(delay), [held] {});
    held.reset();
    if (delay == 0) QVERIFY(eventually([&] { return used.load(); }));
    pool.stop();
    QVERIFY(wasPossible);
}

void TestWorkerPool::refusedThreadLosesNoTask()
{
    std::atomic<int> done = 0;
    WorkerPool pool;
    {
        const NoMoreThreads limit;
        pool.run([&] { ++done; });
        pool.runAt(Clock::now(), [&] { ++done; });
        QCOMPARE(pool.threadCount(), size_t(0));
    }
    pool.run([&] { ++done; });
    QVERIFY(eventually([&] { return done == 3; }));

    // A thread that is there does the work of those that are refused.
    Gate gate;
    const Blockers blockers(pool, gate, 1);
    QVERIFY(blockers.allBegan());
    const NoMoreThreads limit;
    for (int i = 0; i < 100; ++i)
        pool.run([&] { ++done; });
    gate.open();
    QVERIFY(eventually([&] { return done == 103; }));
    pool.stop();
}

void TestWorkerPool::refusedThreadIsNotNeededByOneTaskAtATime()
{
    WorkerPool pool(1ms);
    {
        const Gate gate;
        const Blockers blockers(pool, gate, 5);
        QVERIFY(blockers.allBegan());
    }
    QVERIFY(eventually([&] { return pool.threadCount() == 1; }));
    const NoMoreThreads limit;
    for (int i = 0; i < 100; ++i)
        QVERIFY(runAndWait(pool));
    QCOMPARE(pool.threadCount(), size_t(1));
}

void TestWorkerPool::delayedTaskRunsNotBeforeItsTime()
{
    std::atomic<int> done = 0;
    std::atomic<int> early = 0;
    WorkerPool pool;
    const Clock::time_point start = Clock::now();
    for (int i = 0; i < 100; ++i) {
        const Clock::time_point due = start + std::chrono::microseconds(i * 777);
        pool.runAt(due, [&, due] {
            if (Clock::now() < due) ++early;
            ++done;
        });
        // Threads that are busy now and idle a moment later.
        pool.run([] {});
    }
    QVERIFY(eventually([&] { return done == 100; }));
    QCOMPARE(early, 0);
    pool.stop();
}

void TestWorkerPool::delayedTasksRunInTheOrderOfTheirTimes()
{
    Mutex mutex;
    std::vector<int> order;
    std::atomic<int> done = 0;
    WorkerPool pool;
    const Clock::time_point start = Clock::now();
    for (const int i : {3, 1, 4, 0, 2}) {
        pool.runAt(start + 60ms * (i + 1), [&, i] {
            const MutexLock lock(mutex);
            order.push_back(i);
            ++done;
        });
    }
    QVERIFY(eventually([&] { return done == 5; }));
    pool.stop();
    QCOMPARE(order, std::vector({0, 1, 2, 3, 4}));
}

void TestWorkerPool::delayedTaskOfThePastRunsAtOnce()
{
    std::atomic<int> done = 0;
    WorkerPool pool;
    pool.runAt(Clock::now() - 1h, [&] { ++done; });
    pool.runAt(Clock::time_point(), [&] { ++done; });
    pool.runAt(Clock::time_point::min(), [&] { ++done; });
    QVERIFY(eventually([&] { return done == 3; }));
    pool.stop();
}

void TestWorkerPool::nearerTaskAddedLaterRunsFirst()
{
    std::atomic<int> done = 0;
    WorkerPool pool;
    pool.runAt(Clock::now() + 1h, [&] { done += 100; });
    for (int i = 1; i <= 20; ++i) {
        // Meanwhile the thread has gone to sleep until the far time.
        const Clock::time_point asleep = Clock::now() + 5ms;
        QVERIFY(eventually([&] { return Clock::now() > asleep; }));
        pool.runAt(Clock::now() + 3ms, [&] { ++done; });
        pool.runAt(Clock::now() + 1ms, [&] { ++done; });
        QVERIFY(eventually([&] { return done == 2 * i; }));
    }
    pool.stop();
    QCOMPARE(done, 40);
}

void TestWorkerPool::delayedTasksDueTogetherRunAtOnce()
{
    const auto meeting = std::make_shared<std::latch>(20);
    std::atomic<int> done = 0;
    WorkerPool pool;
    const Clock::time_point due = Clock::now() + 20ms;
    for (int i = 0; i < 20; ++i) {
        pool.runAt(due, [&, meeting] {
            meeting->arrive_and_wait();
            ++done;
        });
    }
    QVERIFY(eventually([&] { return done == 20; }));
    pool.stop();
}

void TestWorkerPool::delayedTaskRunsAlthoughTheThreadThatWaitedIsTaken()
{
    std::atomic<bool> done = false;
    WorkerPool pool;
    const Gate gate;
    pool.runAt(Clock::now() + 50ms, [&] { done = true; });
    QVERIFY(eventually([&] { return pool.threadCount() == 1; }));
    const Blockers blockers(pool, gate, 1);
    QVERIFY(eventually([&] { return done.load(); }));
    QVERIFY(blockers.allBegan());
}

void TestWorkerPool::delayedTaskRunsOnceAThreadIsFree()
{
    std::atomic<bool> done = false;
    WorkerPool pool;
    Gate gate;
    const Blockers blockers(pool, gate, 64);
    QVERIFY(blockers.allBegan());
    const Clock::time_point due = Clock::now() + 5ms;
    pool.runAt(due, [&] { done = true; });
    QVERIFY(eventually([&] { return Clock::now() > due; }));
    QVERIFY(!done);
    gate.open();
    QVERIFY(eventually([&] { return done.load(); }));
    pool.stop();
}

void TestWorkerPool::delayedTaskHoldsOneThread()
{
    WorkerPool pool(10ms);
    for (int i = 0; i < 5; ++i)
        pool.runAt(Clock::now() + 1h, [] {});
    {
        const Gate gate;
        const Blockers blockers(pool, gate, 10);
        QVERIFY(blockers.allBegan());
    }
    QVERIFY(eventually([&] { return pool.threadCount() == 1; }));
    pool.stop();
    QCOMPARE(pool.threadCount(), size_t(0));
}

void TestWorkerPool::delayedTaskOutlivesTheIdleTime()
{
    std::atomic<int> done = 0;
    WorkerPool pool(1ms);
    for (int i = 0; i < 20; ++i) {
        pool.runAt(Clock::now() + std::chrono::milliseconds(i * 5), [&] { ++done; });
        pool.run([] {});
    }
    QVERIFY(eventually([&] { return done == 20; }));
    QVERIFY(eventually([&] { return pool.threadCount() == 1; }));
}

void TestWorkerPool::stopWaitsForTasksThatRun()
{
    std::atomic<int> began = 0;
    std::atomic<int> ended = 0;
    WorkerPool pool;
    for (int i = 0; i < 10; ++i) {
        pool.run([&, token = pool.stopToken()] {
            ++began;
            while (!token.stop_requested())
                std::this_thread::yield();
            // Long enough for a stop that does not wait to come back first.
            std::this_thread::sleep_for(30ms);
            ++ended;
        });
    }
    QVERIFY(eventually([&] { return began == 10; }));
    pool.stop();
    QCOMPARE(ended, 10);
    QCOMPARE(pool.threadCount(), size_t(0));
}

void TestWorkerPool::stopDropsTasksThatWait()
{
    std::atomic<int> ran = 0;
    auto held = std::make_shared<int>(0);
    const std::weak_ptr<int> observer = held;
    WorkerPool pool;
    Gate gate;
    const Blockers blockers(pool, gate, 64);
    for (int i = 0; i < 100; ++i)
        pool.run([&ran, held] { ++ran; });
    held.reset();
    QVERIFY(blockers.allBegan());

    const std::jthread stopper([&] { pool.stop(); });
    // Dropped at once, while those that run still do.
    QVERIFY(eventually([&] { return observer.expired(); }));
    gate.open();
    QVERIFY(eventually([&] { return pool.threadCount() == 0; }));
    QCOMPARE(ran, 0);
}

void TestWorkerPool::stopDropsDelayedTasks()
{
    std::atomic<int> ran = 0;
    auto held = std::make_shared<int>(0);
    const std::weak_ptr<int> observer = held;
    WorkerPool pool;
    pool.runAt(Clock::now() + 1h, [&ran, held] { ++ran; });
    pool.runAt(Clock::now() + 2h, [&ran, held] { ++ran; });
    held.reset();
    QVERIFY(!observer.expired());
    pool.stop();
    QVERIFY(observer.expired());
    QCOMPARE(ran, 0);
}

void TestWorkerPool::stopAsksThroughTheTokenFirst()
{
    // The task ends only because it is asked to.
    std::atomic<bool> began = false;
    WorkerPool pool;
    pool.run([&, token = pool.stopToken()] {
        began = true;
        while (!token.stop_requested())
            std::this_thread::yield();
    });
    QVERIFY(eventually([&] { return began.load(); }));
    const std::stop_token token = pool.stopToken();
    QVERIFY(!token.stop_requested());
    pool.stop();
    QVERIFY(token.stop_requested());
}

void TestWorkerPool::runAfterStopIsIgnored()
{
    std::atomic<int> ran = 0;
    auto held = std::make_shared<int>(0);
    const std::weak_ptr<int> observer = held;
    WorkerPool pool;
    pool.run([&] { ++ran; });
    QVERIFY(eventually([&] { return ran == 1; }));
    pool.stop();
    pool.run([&ran, held] { ++ran; });
    pool.runAt(Clock::now(), [&ran, held] { ++ran; });
    held.reset();
    QVERIFY(observer.expired());
    QCOMPARE(pool.threadCount(), size_t(0));
    QCOMPARE(ran, 1);
}

void TestWorkerPool::stopTwiceIsHarmless()
{
    WorkerPool pool;
    pool.stop();
    pool.stop();
    pool.run([] {});
    pool.stop();
    QCOMPARE(pool.threadCount(), size_t(0));
}

void TestWorkerPool::destructionStops()
{
    std::atomic<bool> began = false;
    std::atomic<bool> ended = false;
    std::stop_token token;
    {
        WorkerPool pool;
        token = pool.stopToken();
        pool.run([&, token] {
            began = true;
            while (!token.stop_requested())
                std::this_thread::yield();
            std::this_thread::sleep_for(20ms);
            ended = true;
        });
        pool.runAt(Clock::now() + 1h, [] {});
        QVERIFY(eventually([&] { return began.load(); }));
    }
    QVERIFY(ended);
    QVERIFY(token.stop_requested());
}

void TestWorkerPool::destructionOfAnIdlePoolEndsItsThreads()
{
    for (int round = 0; round < 50; ++round) {
        // Threads that are idle, that are just ending and that have ended.
        WorkerPool pool(std::chrono::milliseconds(round % 3));
        std::atomic<int> done = 0;
        for (int i = 0; i < 5; ++i)
            pool.run([&] { ++done; });
        QVERIFY(eventually([&] { return done == 5; }));
        pool.stop();
    }
}

void TestWorkerPool::stopWhileManyThreadsRunTasks()
{
    for (int round = 0; round < 20; ++round) {
        std::atomic<bool> enough = false;
        std::atomic<bool> stopped = false;
        std::atomic<int> ran = 0;
        std::atomic<int> late = 0;
        WorkerPool pool(1ms);
        {
            const ThreadGroup callers(4, [&](size_t) {
                for (int i = 0; !enough; ++i) {
                    const WorkerPool::Task task = [&] {
                        ++ran;
                        if (stopped) ++late;
                    };
                    if (i % 2 == 0)
                        pool.run(task);
                    else
                        pool.runAt(Clock::now() + std::chrono::microseconds(i % 500), task);
                    if (i % 64 == 0) std::this_thread::sleep_for(100us);
                }
            });
            const bool isRunning = eventually([&] { return ran > 100; });
            pool.stop();
            stopped = true;
            for (int i = 0; i < 100; ++i)
                std::this_thread::yield();
            enough = true;
            QVERIFY(isRunning);
        }
        QCOMPARE(late, 0);
        QCOMPARE(pool.threadCount(), size_t(0));
    }
}

HARBEX_TEST_MAIN(TestWorkerPool)

#include "tst_WorkerPool.moc"
