#include "support/Eventually.h"
#include "support/TestMain.h"
#include "support/ThreadGroup.h"
#include "watcher/SerialQueue.h"

#include <QScopeGuard>

#include <algorithm>
#include <array>
#include <atomic>
#include <concepts>
#include <future>
#include <latch>
#include <memory>
#include <numeric>
#include <pthread.h>
#include <thread>
#include <utility>
#include <vector>

using namespace harbex;
using namespace harbex::test;
using namespace std::chrono_literals;

namespace
{

using Clock = SerialQueue::Clock;
using Token = SerialQueue::Token;
using QueuePointer = std::shared_ptr<SerialQueue>;

/// Adds a task and waits until it runs. Returns false on timeout.
[[nodiscard]] bool runAndWait(SerialQueue& queue)
{
    const auto done = std::make_shared<std::promise<void>>();
    queue.async([done](Token) { done->set_value(); });
    return done->get_future().wait_for(30s) == std::future_status::ready;
}

/// Adds a task after a delay, or at once without one.
void addTask(SerialQueue& queue, std::chrono::microseconds delay, const SerialQueue::Task& task)
{
    if (delay > 0us)
        queue.asyncAt(Clock::now() + delay, task);
    else
        queue.async(task);
}

/// Returns false on timeout.
[[nodiscard]] bool reaches(const std::atomic<int>& count, std::integral auto expected)
{
    return eventually([&] { return std::cmp_equal(count.load(), expected); });
}

/// Queues with a task each that blocks until open() or the end of the scope.
class Blockers
{
public:
    Blockers(WorkerPool& pool, size_t count, bool mayBlock = false)
    {
        for (size_t i = 0; i < count; ++i) {
            m_queues.push_back(pool.makeQueue("blocker"));
            m_queues.back()->setMayBlock(mayBlock);
            m_queues.back()->async([began = m_began, opened = m_opened](Token) {
                ++*began;
                opened.wait();
            });
        }
    }

    void open() { m_gate.set_value(); }
    [[nodiscard]] const std::atomic<int>& began() const { return *m_began; }
    [[nodiscard]] bool allBegan() const { return reaches(*m_began, m_queues.size()); }
    [[nodiscard]] const QueuePointer& first() const { return m_queues.front(); }

private:
    // The end of the promise opens the gate too, so that a failing test does not hang.
    std::promise<void> m_gate;
    const std::shared_future<void> m_opened = m_gate.get_future().share();
    std::vector<QueuePointer> m_queues;
    std::shared_ptr<std::atomic<int>> m_began = std::make_shared<std::atomic<int>>(0);
};

/// Sets the size of the stacks of new threads. Returns the size until now.
size_t setStackSize(size_t size)
{
    size_t before = 0;
    pthread_attr_t attributes;
    ::pthread_getattr_default_np(&attributes);
    ::pthread_attr_getstacksize(&attributes, &before);
    ::pthread_attr_setstacksize(&attributes, size);
    if (::pthread_setattr_default_np(&attributes) != 0) qFatal("cannot set the size of stacks");
    ::pthread_attr_destroy(&attributes);
    return before;
}

/// Makes the system refuse every new thread until the end of the scope: the stacks do not fit into memory.
[[nodiscard]] auto refuseThreads()
{
    return qScopeGuard([before = setStackSize(size_t(1) << 62)] { setStackSize(before); });
}

/// Owns a queue whose tasks own the Owner, as objects of the engine do.
struct Owner {
    QueuePointer queue;
};

std::vector<int> upTo(int count)
{
    std::vector<int> numbers(static_cast<size_t>(count));
    std::iota(numbers.begin(), numbers.end(), 0);
    return numbers;
}

} // namespace

/// The worker pool and its queues.
class TestSerialQueue : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void tasksRunOneAtATimeInOrder()
    {
        constexpr int perCaller = 2'000;
        std::atomic<int> inside = 0;
        std::atomic<int> overlaps = 0;
        std::atomic<int> done = 0;
        // Not atomic on purpose: only the queue prevents concurrent changes.
        std::array<std::vector<int>, 4> orders;
        int delayed = 0;
        WorkerPool pool;
        const QueuePointer queue = pool.makeQueue("queue");
        const auto alone = [&](const auto& task) {
            if (++inside > 1) ++overlaps;
            task();
            --inside;
            ++done;
        };
        {
            const ThreadGroup callers(orders.size(), [&](size_t caller) {
                for (int i = 0; i < perCaller; ++i) {
                    queue->async([&, caller, i](Token) { alone([&] { orders[caller].push_back(i); }); });
                    queue->asyncAt(Clock::now() + std::chrono::microseconds(i % 50 * 100),
                                   [&](Token) { alone([&] { ++delayed; }); });
                    // Lets the queue become empty, so that threads change.
                    if (i % 16 == 0) std::this_thread::yield();
                }
            });
        }
        QVERIFY(reaches(done, 8 * perCaller));
        pool.stop();
        QCOMPARE(overlaps, 0);
        QCOMPARE(delayed, 4 * perCaller);
        for (const std::vector<int>& order : orders)
            QCOMPARE(order, upTo(perCaller));
    }

    void runHereComesFirst()
    {
        for (int round = 0; round < 50; ++round) {
            const int count = round == 0 ? 0 : 10;
            std::vector<int> order;
            std::thread::id thread;
            std::atomic<int> done = 0;
            WorkerPool pool;
            const QueuePointer queue = pool.makeQueue("queue");
            queue->runHere([&](Token) {
                thread = std::this_thread::get_id();
                for (int i = 1; i <= count; ++i) {
                    // Half of them reach the queue from the thread that waits for their time.
                    addTask(*queue, i % 2 == 0 ? 1us : 0us, [&, i](Token) {
                        order.push_back(i);
                        ++done;
                    });
                }
                std::this_thread::sleep_for(2ms);
                order.push_back(0);
            });
            QCOMPARE(thread, std::this_thread::get_id());
            // Afterwards it is an ordinary queue.
            QVERIFY(reaches(done, count));
            QVERIFY(runAndWait(*queue));
            QCOMPARE(order.front(), 0);
            std::ranges::sort(order);
            QCOMPARE(order, upTo(count + 1));
        }
    }

    void queueThatWasLetGoRunsItsTasks()
    {
        std::atomic<int> done = 0;
        WorkerPool pool(1h);
        std::promise<void> gate;
        QueuePointer queue = pool.makeQueue("queue");
        const std::weak_ptr<SerialQueue> observer = queue;
        queue->async([opened = gate.get_future().share()](Token) { opened.wait(); });
        for (int i = 0; i < 10; ++i)
            queue->async([&, queue](Token) { ++done; });
        queue->asyncAt(Clock::now() + 5ms, [&, queue](Token) { ++done; });
        queue.reset();
        QVERIFY(!observer.expired());
        gate.set_value();
        QVERIFY(reaches(done, 11));
        // The last of its tasks had the last reference, and no thread keeps it.
        QVERIFY(eventually([&] { return observer.expired(); }));
    }

    void delayedTaskRunsNotBeforeItsTime()
    {
        std::atomic<int> early = 0;
        std::atomic<int> done = 0;
        // Idle threads end meanwhile, but not the one that waits for delayed tasks.
        WorkerPool pool(1ms);
        const QueuePointer queue = pool.makeQueue("queue");
        const Clock::time_point start = Clock::now();
        for (const Clock::time_point past : {start - 1h, Clock::time_point(), Clock::time_point::min()})
            queue->asyncAt(past, [&](Token) { ++done; });
        QVERIFY(reaches(done, 3));
        for (int i = 0; i < 100; ++i) {
            const Clock::time_point due = start + std::chrono::microseconds(i * 777);
            queue->asyncAt(due, [&, due](Token) {
                if (Clock::now() < due) ++early;
                ++done;
            });
            // Threads that are busy now and idle a moment later.
            pool.makeQueue("other")->async([](Token) {});
        }
        QVERIFY(reaches(done, 103));
        QCOMPARE(early, 0);
    }

    void delayedTasksRunInTheOrderOfTheirTimes_data()
    {
        QTest::addColumn<size_t>("busy");
        QTest::addColumn<std::chrono::microseconds>("step");
        QTest::newRow("in time") << size_t(0) << 1'000us;
        QTest::newRow("at one time, as they came") << size_t(0) << 0us;
        QTest::newRow("late, behind another task") << size_t(1) << 200us;
        QTest::newRow("late, without a free thread") << WorkerPool::maximumThreads << 200us;
    }

    void delayedTasksRunInTheOrderOfTheirTimes()
    {
        QFETCH(const size_t, busy);
        QFETCH(const std::chrono::microseconds, step);
        std::vector<int> order;
        std::atomic<int> done = 0;
        WorkerPool pool;
        Blockers blockers(pool, busy);
        QVERIFY(blockers.allBegan());
        const QueuePointer queue = busy == 1 ? blockers.first() : pool.makeQueue("queue");
        // All tasks are added before the first one is due. A task that is late when it is added has no order.
        const Clock::time_point start = Clock::now() + 300ms;
        for (int i = 0; i < 100; ++i) {
            const int place = step == 0us ? i : i * 37 % 100;
            queue->asyncAt(start + place * step, [&, place](Token) {
                order.push_back(place);
                ++done;
            });
        }
        QVERIFY(Clock::now() < start);
        if (busy > 0) {
            std::this_thread::sleep_until(start + 100 * step);
            QCOMPARE(done, 0);
        }
        // All threads become free at the same time.
        blockers.open();
        QVERIFY(reaches(done, 100));
        pool.stop();
        QCOMPARE(order, upTo(100));
    }

    void nearerTaskAddedLaterRunsFirst()
    {
        std::atomic<int> done = 0;
        // The end of the idle time does not wake the thread.
        WorkerPool pool(1h);
        const QueuePointer queue = pool.makeQueue("queue");
        queue->asyncAt(Clock::now() + 1h, [&](Token) { done += 100; });
        for (int i = 1; i <= 20; ++i) {
            // The thread falls asleep until the later time.
            std::this_thread::sleep_for(5ms);
            queue->asyncAt(Clock::now() + 3ms, [&](Token) { ++done; });
            queue->asyncAt(Clock::now() + 1ms, [&](Token) { ++done; });
            QVERIFY(reaches(done, 2 * i));
        }
        pool.stop();
        QCOMPARE(done, 40);
    }

    void queuesDueTogetherRunBesideEachOther()
    {
        const auto meeting = std::make_shared<std::latch>(20);
        std::atomic<int> done = 0;
        WorkerPool pool;
        const Clock::time_point due = Clock::now() + 20ms;
        for (int i = 0; i < 20; ++i) {
            pool.makeQueue("queue")->asyncAt(due, [&, meeting](Token) {
                meeting->arrive_and_wait();
                ++done;
            });
        }
        QVERIFY(reaches(done, 20));
        pool.stop();
    }

    void delayedTaskRunsAlthoughTheThreadThatWaitedIsTaken()
    {
        std::atomic<bool> done = false;
        // The one that waits from then on must not end because it is idle.
        WorkerPool pool(1ms);
        pool.makeQueue("queue")->asyncAt(Clock::now() + 50ms, [&](Token) { done = true; });
        QVERIFY(eventually([&] { return pool.threadCount() == 1; }));
        const Blockers blockers(pool, 1);
        QVERIFY(eventually([&] { return done.load(); }));
        QVERIFY(blockers.allBegan());
    }

    /// Every other busy queue has a thread too, up to the limit.
    void queuesThatMayBlockLeaveOthersRunning()
    {
        constexpr size_t limit = WorkerPool::maximumThreads;
        WorkerPool pool(10ms);
        {
            Blockers remote(pool, 2 * limit, true);
            QVERIFY(remote.allBegan());
            Blockers busy(pool, limit + 1);
            QVERIFY(reaches(busy.began(), limit));
            QCOMPARE(pool.threadCount(), 3 * limit);

            // The change applies from the next task on.
            remote.first()->setMayBlock(false);
            busy.open();
            QVERIFY(busy.allBegan());
            remote.open();
            QVERIFY(runAndWait(*remote.first()));
        }
        // The pool counts no queue as blocked any more.
        QVERIFY(eventually([&] { return pool.threadCount() == 1; }));
        const Blockers busy(pool, limit + 10);
        QVERIFY(reaches(busy.began(), limit));
        QCOMPARE(pool.threadCount(), limit);
    }

    void idleThreadsEndButTheLast()
    {
        for (const int delayedTasks : {0, 200}) {
            WorkerPool pool(20ms);
            // One thread waits for all of them.
            for (int i = 0; i < delayedTasks; ++i)
                pool.makeQueue("queue")->asyncAt(Clock::now() + 1h, [](Token) {});
            for (int round = 0; round < 3; ++round) {
                Blockers blockers(pool, 10);
                QVERIFY(blockers.allBegan());
                blockers.open();
                QVERIFY(eventually([&] { return pool.threadCount() == 1; }));
            }
            // It is needed where the system refuses another.
            const auto limit = refuseThreads();
            const QueuePointer queue = pool.makeQueue("queue");
            for (int i = 0; i < 100; ++i)
                QVERIFY(runAndWait(*queue));
            QCOMPARE(pool.threadCount(), size_t(1));
        }
    }

    void idleThreadsStayForTheIdleTime()
    {
        WorkerPool pool(1h);
        {
            const Blockers blockers(pool, 10);
            QVERIFY(blockers.allBegan());
        }
        const QueuePointer queue = pool.makeQueue("queue");
        for (int i = 0; i < 1'000; ++i) {
            QVERIFY(runAndWait(*queue));
            QVERIFY(pool.threadCount() >= 10);
        }
        // One that has just ended its task may not be idle yet when the next task comes.
        QVERIFY(pool.threadCount() < 32);
    }

    void refusedThreadLosesNoTask()
    {
        std::atomic<int> done = 0;
        WorkerPool pool;
        {
            const auto limit = refuseThreads();
            pool.makeQueue("queue")->async([&](Token) { ++done; });
            pool.makeQueue("queue")->asyncAt(Clock::now(), [&](Token) { ++done; });
            QCOMPARE(pool.threadCount(), size_t(0));
        }
        pool.makeQueue("queue")->async([&](Token) { ++done; });
        QVERIFY(reaches(done, 3));

        // A thread that is there does the work of those that are refused.
        Blockers blockers(pool, pool.threadCount());
        QVERIFY(blockers.allBegan());
        const auto limit = refuseThreads();
        for (int i = 0; i < 100; ++i)
            pool.makeQueue("queue")->async([&](Token) { ++done; });
        blockers.open();
        QVERIFY(reaches(done, 103));
    }

    void stopAsksAndWaitsForTheTaskThatRuns()
    {
        for (const bool byDestruction : {false, true}) {
            std::atomic<bool> began = false;
            std::atomic<bool> ended = false;
            auto pool = std::make_unique<WorkerPool>();
            const QueuePointer queue = pool->makeQueue("queue");
            queue->async([&, token = pool->stopToken()](Token) {
                began = true;
                while (!token.stop_requested())
                    std::this_thread::yield();
                // Long enough for a stop that does not wait to come back first.
                std::this_thread::sleep_for(30ms);
                ended = true;
            });
            QVERIFY(eventually([&] { return began.load(); }));
            QVERIFY(!pool->stopToken().stop_requested());
            if (byDestruction)
                pool.reset();
            else
                pool->stop();
            QVERIFY(ended);
            if (pool) QCOMPARE(pool->threadCount(), size_t(0));
        }
    }

    void stopDropsTasksAndTheirEndMayUseThePool_data()
    {
        QTest::addColumn<bool>("stopsFirst");
        QTest::addColumn<size_t>("busy");
        QTest::addColumn<std::chrono::seconds>("delay");
        QTest::newRow("they have run") << false << size_t(0) << 0s;
        QTest::newRow("they wait for the one that runs") << false << size_t(1) << 0s;
        QTest::newRow("they wait for a free thread") << false << WorkerPool::maximumThreads << 0s;
        QTest::newRow("they wait for their time") << false << size_t(0) << 3600s;
        QTest::newRow("they come after the stop") << true << size_t(0) << 0s;
        QTest::newRow("they come after the stop, and wait for their time") << true << size_t(0) << 3600s;
    }

    void stopDropsTasksAndTheirEndMayUseThePool()
    {
        QFETCH(const bool, stopsFirst);
        QFETCH(const size_t, busy);
        QFETCH(const std::chrono::seconds, delay);
        std::atomic<int> ran = 0;
        WorkerPool pool;
        Blockers blockers(pool, busy);
        QVERIFY(blockers.allBegan());
        const auto useThePool = [](Owner* owner) {
            owner->queue->async([](Token) {});
            owner->queue->asyncAt(Clock::now(), [](Token) {});
            delete owner;
        };
        std::shared_ptr<Owner> owner(new Owner{busy == 1 ? blockers.first() : pool.makeQueue("queue")},
                                     useThePool);
        const std::weak_ptr<Owner> observer = owner;
        const std::weak_ptr<SerialQueue> queueObserver = owner->queue;
        if (stopsFirst) pool.stop();
        for (int i = 0; i < 10; ++i)
            addTask(*owner->queue, delay, [&ran, owner](Token) { ++ran; });
        owner.reset();
        const bool mayRun = !stopsFirst && busy == 0 && delay == 0s;
        QVERIFY(reaches(ran, mayRun ? 10 : 0));
        QVERIFY(observer.expired() == stopsFirst || mayRun);
        bool isDroppedAtOnce = true;
        {
            const std::jthread stopper([&] { pool.stop(); });
            // Tasks behind a running one are dropped after it, the others while it runs.
            isDroppedAtOnce = eventually(
                [&] { return pool.stopToken().stop_requested() && (observer.expired() || busy == 1); });
            blockers.open();
        }
        QVERIFY(isDroppedAtOnce);
        QVERIFY(observer.expired());
        QVERIFY(queueObserver.expired() || busy == 1);
        QCOMPARE(ran, mayRun ? 10 : 0);
    }

    void stopWhileManyThreadsAddTasks()
    {
        for (int round = 0; round < 20; ++round) {
            std::atomic<bool> enough = false;
            std::atomic<bool> stopped = false;
            std::atomic<int> ran = 0;
            std::atomic<int> late = 0;
            // Threads that are idle, that are just ending and that have ended.
            WorkerPool pool(std::chrono::milliseconds(round % 3));
            std::vector<std::shared_ptr<Owner>> owners;
            for (int i = 0; i < 5; ++i)
                owners.push_back(std::make_shared<Owner>(Owner{pool.makeQueue("queue")}));
            const std::vector<std::weak_ptr<Owner>> observers(owners.begin(), owners.end());
            {
                const ThreadGroup callers(4, [&](size_t) {
                    for (size_t i = 0; !enough; ++i) {
                        const std::shared_ptr<Owner>& owner = owners[i % owners.size()];
                        const std::chrono::microseconds delay(i % 3 == 0 ? i % 700 : 0);
                        addTask(*owner->queue, delay, [&, owner](Token) {
                            if (stopped) ++late;
                            ++ran;
                        });
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
            owners.clear();
            QCOMPARE(late, 0);
            QCOMPARE(pool.threadCount(), size_t(0));
            for (const auto& observer : observers)
                QVERIFY(observer.expired());
        }
    }
};

HARBEX_TEST(TestSerialQueue)

#include "tst_SerialQueue.moc"
