#include "support/Eventually.h"
#include "support/Gate.h"
#include "support/TestMain.h"
#include "support/ThreadGroup.h"
#include "watcher/SerialQueue.h"
#include "watcher/WorkerPool.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <functional>
#include <latch>
#include <memory>
#include <pthread.h>
#include <thread>
#include <type_traits>
#include <vector>

using namespace harbex;
using namespace harbex::test;
using namespace std::chrono_literals;

namespace
{

using Clock = SerialQueue::Clock;
using Token = SerialQueue::Token;
using QueuePointer = std::shared_ptr<SerialQueue>;

/// Runs `task` on the queue and waits for its end; false when it does not come.
bool runAndWait(SerialQueue& queue, const std::function<void()>& task = [] {})
{
    const auto done = std::make_shared<std::promise<void>>();
    queue.async([done, task](Token) {
        task();
        done->set_value();
    });
    return done->get_future().wait_for(30s) == std::future_status::ready;
}

/// Queues whose tasks occupy a thread each until the gate is opened.
class Blockers
{
public:
    Blockers(WorkerPool& pool, const Gate& gate, size_t count, bool mayBlock = false)
    {
        for (size_t i = 0; i < count; ++i) {
            m_queues.push_back(pool.makeQueue("blocker"));
            m_queues.back()->setMayBlock(mayBlock);
            m_queues.back()->async([began = m_began, opened = gate.opened()](Token) {
                ++*began;
                opened.wait();
            });
        }
    }

    [[nodiscard]] size_t began() const { return *m_began; }
    [[nodiscard]] bool allBegan() const
    {
        return eventually([this] { return began() == m_queues.size(); });
    }
    [[nodiscard]] SerialQueue& first() const { return *m_queues.front(); }

private:
    std::vector<QueuePointer> m_queues;
    std::shared_ptr<std::atomic<size_t>> m_began = std::make_shared<std::atomic<size_t>>(0);
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

/// What many objects of the engine are: something that has a queue, whose tasks have it.
struct Owner {
    QueuePointer queue;
};

/// The tasks of a queue must leave this in order.
std::vector<int> upTo(int count)
{
    std::vector<int> numbers;
    for (int i = 0; i < count; ++i)
        numbers.push_back(i);
    return numbers;
}

} // namespace

/// The worker pool and its queues, which are of no use without each other.
class TestSerialQueue : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // Tasks.
    void onlyAQueueMakesTokens();
    void tasksRunOneAtATimeInOrder();
    void taskAddedByATaskRunsAfterIt();
    void runHereComesFirst();
    void taskThatIsLetGoMayUseThePool_data();
    void taskThatIsLetGoMayUseThePool();
    void queueThatWasLetGoRunsItsTasks();

    // Delayed tasks.
    void delayedTaskRunsNotBeforeItsTime();
    void delayedTasksRunInTheOrderOfTheirTimes_data();
    void delayedTasksRunInTheOrderOfTheirTimes();
    void delayedTaskOfThePastRunsAtOnce();
    void nearerTaskAddedLaterRunsFirst();
    void queuesDueTogetherRunBesideEachOther();
    void delayedTaskRunsAlthoughTheThreadThatWaitedIsTaken();
    void nothingIsBlockedWhileTasksWaitForTheirTime();

    // Threads.
    void everyBusyQueueHasAThread();
    void neverMoreThan64Threads();
    void queuesThatMayBlockLeaveOthersRunning();
    void idleThreadsEndButTheLast();
    void idleThreadsStayForTheIdleTime();
    void refusedThreadLosesNoTask();

    // Stopping.
    void stopAsksAndWaitsForTheTaskThatRuns_data();
    void stopAsksAndWaitsForTheTaskThatRuns();
    void stopDropsTasksThatWait_data();
    void stopDropsTasksThatWait();
    void stopBreaksCyclesOfSeveralQueues();
    void tasksAfterStopAreDropped();
    void stopWhileManyThreadsAddTasks();
};

void TestSerialQueue::onlyAQueueMakesTokens()
{
    QVERIFY((!std::is_constructible_v<Token>));
    QVERIFY(!std::is_aggregate_v<Token>);
    WorkerPool pool;
    QCOMPARE(pool.makeQueue("label \xff")->label(), std::string("label \xff"));
    QCOMPARE(pool.threadCount(), size_t(0));
}

void TestSerialQueue::tasksRunOneAtATimeInOrder()
{
    constexpr int perCaller = 2'000;
    std::atomic<int> inside = 0;
    std::atomic<int> overlaps = 0;
    std::atomic<int> done = 0;
    // Not atomic on purpose: the queue alone keeps changes apart.
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
                // Lets the queue run empty, so that it is handed from thread to thread.
                if (i % 16 == 0) std::this_thread::yield();
            }
        });
    }
    QVERIFY(eventually([&] { return done == 8 * perCaller; }));
    pool.stop();
    QCOMPARE(overlaps, 0);
    QCOMPARE(delayed, 4 * perCaller);
    for (const std::vector<int>& order : orders)
        QCOMPARE(order, upTo(perCaller));
}

void TestSerialQueue::taskAddedByATaskRunsAfterIt()
{
    std::vector<int> order;
    std::atomic<int> left = 1'000;
    WorkerPool pool;
    const QueuePointer queue = pool.makeQueue("queue");
    // Also at the moment at which the queue runs empty.
    const std::function<void()> next = [&] {
        const int number = 1'000 - left;
        queue->async([&](Token) {
            if (--left > 0) next();
        });
        order.push_back(number);
    };
    QVERIFY(runAndWait(*queue, next));
    QVERIFY(eventually([&] { return left == 0; }));
    pool.stop();
    QCOMPARE(order, upTo(1'000));
}

void TestSerialQueue::runHereComesFirst()
{
    for (int round = 0; round < 50; ++round) {
        std::vector<int> order;
        std::atomic<int> done = 0;
        WorkerPool pool;
        const QueuePointer queue = pool.makeQueue("queue");
        std::thread::id thread;
        queue->runHere([&](Token) {
            thread = std::this_thread::get_id();
            for (int i = 1; i <= 10; ++i) {
                const auto task = [&, i](Token) {
                    order.push_back(i);
                    ++done;
                };
                // Half of them reach the queue from the thread that waits for their time.
                if (i % 2 == 0)
                    queue->asyncAt(Clock::now(), task);
                else
                    queue->async(task);
            }
            const Clock::time_point later = Clock::now() + 2ms;
            QVERIFY(eventually([&] { return Clock::now() > later; }));
            order.push_back(0);
        });
        QCOMPARE(thread, std::this_thread::get_id());
        // From here on as any other queue, also when nothing has come meanwhile.
        QVERIFY(eventually([&] { return done == 10; }));
        QVERIFY(runAndWait(*queue));
        QCOMPARE(order.front(), 0);
        std::ranges::sort(order);
        QCOMPARE(order, upTo(11));
    }
    WorkerPool pool;
    const QueuePointer queue = pool.makeQueue("queue");
    queue->runHere([](Token) {});
    QVERIFY(runAndWait(*queue));
}

void TestSerialQueue::taskThatIsLetGoMayUseThePool_data()
{
    QTest::addColumn<bool>("isPoolFull");
    QTest::addColumn<bool>("stopsFirst");
    QTest::addColumn<std::chrono::seconds>("delay");
    QTest::newRow("because it has run") << false << false << 0s;
    QTest::newRow("because the pool stops while it waits for its time") << false << false << 3600s;
    QTest::newRow("because the pool stops while it waits for a thread") << true << false << 0s;
    QTest::newRow("because the pool was stopped") << false << true << 3600s;
    QTest::newRow("because the pool was stopped, at once") << false << true << 0s;
}

void TestSerialQueue::taskThatIsLetGoMayUseThePool()
{
    QFETCH(const bool, isPoolFull);
    QFETCH(const bool, stopsFirst);
    QFETCH(const std::chrono::seconds, delay);
    std::atomic<bool> used = false;
    std::atomic<bool> wasPossible = false;
    WorkerPool pool;
    Gate gate;
    const Blockers blockers(pool, gate, isPoolFull ? WorkerPool::maximumThreads : 0);
    QVERIFY(blockers.allBegan());
    const QueuePointer queue = pool.makeQueue("queue");
    std::jthread user;
    std::shared_ptr<void> held(nullptr, [&](void*) {
        // On another thread, so that the test comes to an end where it is not possible.
        user = std::jthread([&] {
            queue->async([](Token) {});
            queue->asyncAt(Clock::now(), [](Token) {});
            used = true;
        });
        wasPossible = eventually([&] { return used.load(); });
        gate.open();
    });
    if (stopsFirst) pool.stop();
    if (delay > 0s)
        queue->asyncAt(Clock::now() + delay, [held](Token) {});
    else
        queue->async([held](Token) {});
    held.reset();
    if (delay == 0s && !isPoolFull) QVERIFY(eventually([&] { return used.load(); }));
    pool.stop();
    QVERIFY(wasPossible);
}

void TestSerialQueue::queueThatWasLetGoRunsItsTasks()
{
    std::atomic<int> done = 0;
    WorkerPool pool(1h);
    Gate gate;
    QueuePointer queue = pool.makeQueue("queue");
    const std::weak_ptr<SerialQueue> observer = queue;
    queue->async([opened = gate.opened()](Token) { opened.wait(); });
    for (int i = 0; i < 10; ++i)
        queue->async([&, queue](Token) { ++done; });
    queue->asyncAt(Clock::now() + 5ms, [&, queue](Token) { ++done; });
    queue.reset();
    QVERIFY(!observer.expired());
    gate.open();
    QVERIFY(eventually([&] { return done == 11; }));
    // The last of its tasks had the last reference, and no thread keeps it.
    QVERIFY(eventually([&] { return observer.expired(); }));
}

void TestSerialQueue::delayedTaskRunsNotBeforeItsTime()
{
    std::atomic<int> early = 0;
    std::atomic<int> done = 0;
    // Threads end while tasks wait: the one that waits for them must not be among those.
    WorkerPool pool(1ms);
    const QueuePointer queue = pool.makeQueue("queue");
    const Clock::time_point start = Clock::now();
    for (int i = 0; i < 100; ++i) {
        const Clock::time_point due = start + std::chrono::microseconds(i * 777);
        queue->asyncAt(due, [&, due](Token) {
            if (Clock::now() < due) ++early;
            ++done;
        });
        // Threads that are busy now and idle a moment later.
        pool.makeQueue("other")->async([](Token) {});
    }
    QVERIFY(eventually([&] { return done == 100; }));
    QCOMPARE(early, 0);
}

void TestSerialQueue::delayedTasksRunInTheOrderOfTheirTimes_data()
{
    QTest::addColumn<bool>("isQueueBusy");
    QTest::addColumn<bool>("isPoolFull");
    QTest::addColumn<std::chrono::microseconds>("step");
    QTest::newRow("in time") << false << false << 1'000us;
    QTest::newRow("at one time, as they came") << false << false << 0us;
    QTest::newRow("late, behind another task") << true << false << 200us;
    QTest::newRow("late, without a free thread") << false << true << 200us;
}

void TestSerialQueue::delayedTasksRunInTheOrderOfTheirTimes()
{
    QFETCH(const bool, isQueueBusy);
    QFETCH(const bool, isPoolFull);
    QFETCH(const std::chrono::microseconds, step);
    std::vector<int> order;
    std::atomic<int> done = 0;
    WorkerPool pool;
    const QueuePointer queue = pool.makeQueue("queue");
    Gate gate;
    const Blockers blockers(pool, gate, isPoolFull ? WorkerPool::maximumThreads : 0);
    QVERIFY(blockers.allBegan());
    if (isQueueBusy) queue->async([opened = gate.opened()](Token) { opened.wait(); });
    // All are put in before the first falls due: one that is late when it comes has no place among the
    // others.
    const Clock::time_point start = Clock::now() + 300ms;
    for (int i = 0; i < 100; ++i) {
        const int place = step == 0us ? i : i * 37 % 100;
        queue->asyncAt(start + place * step, [&, place](Token) {
            order.push_back(place);
            ++done;
        });
    }
    QVERIFY(Clock::now() < start);
    if (isQueueBusy || isPoolFull) {
        QVERIFY(eventually([&] { return Clock::now() > start + 100 * step; }));
        QCOMPARE(done, 0);
    }
    // All threads at once are free now for what the queue has asked of the pool.
    gate.open();
    QVERIFY(eventually([&] { return done == 100; }));
    pool.stop();
    QCOMPARE(order, upTo(100));
}

void TestSerialQueue::delayedTaskOfThePastRunsAtOnce()
{
    std::atomic<int> done = 0;
    WorkerPool pool;
    const QueuePointer queue = pool.makeQueue("queue");
    for (const Clock::time_point past : {Clock::now() - 1h, Clock::time_point(), Clock::time_point::min()})
        queue->asyncAt(past, [&](Token) { ++done; });
    QVERIFY(eventually([&] { return done == 3; }));
    pool.stop();
}

void TestSerialQueue::nearerTaskAddedLaterRunsFirst()
{
    std::atomic<int> done = 0;
    WorkerPool pool;
    const QueuePointer queue = pool.makeQueue("queue");
    queue->asyncAt(Clock::now() + 1h, [&](Token) { done += 100; });
    for (int i = 1; i <= 20; ++i) {
        // Meanwhile the thread has gone to sleep until the far time.
        const Clock::time_point asleep = Clock::now() + 5ms;
        QVERIFY(eventually([&] { return Clock::now() > asleep; }));
        queue->asyncAt(Clock::now() + 3ms, [&](Token) { ++done; });
        queue->asyncAt(Clock::now() + 1ms, [&](Token) { ++done; });
        QVERIFY(eventually([&] { return done == 2 * i; }));
    }
    pool.stop();
    QCOMPARE(done, 40);
}

void TestSerialQueue::queuesDueTogetherRunBesideEachOther()
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
    QVERIFY(eventually([&] { return done == 20; }));
    pool.stop();
}

void TestSerialQueue::delayedTaskRunsAlthoughTheThreadThatWaitedIsTaken()
{
    std::atomic<bool> done = false;
    // The one that waits from then on must not end because it is idle.
    WorkerPool pool(1ms);
    const Gate gate;
    pool.makeQueue("queue")->asyncAt(Clock::now() + 50ms, [&](Token) { done = true; });
    QVERIFY(eventually([&] { return pool.threadCount() == 1; }));
    const Blockers blockers(pool, gate, 1);
    QVERIFY(eventually([&] { return done.load(); }));
    QVERIFY(blockers.allBegan());
}

void TestSerialQueue::nothingIsBlockedWhileTasksWaitForTheirTime()
{
    std::atomic<int> done = 0;
    WorkerPool pool(10ms);
    std::vector<QueuePointer> queues;
    for (int i = 0; i < 200; ++i) {
        queues.push_back(pool.makeQueue("queue"));
        queues.back()->asyncAt(Clock::now() + 1h, [](Token) {});
        queues.back()->async([&](Token) { ++done; });
    }
    QVERIFY(eventually([&] { return done == 200; }));
    // One thread waits for all of them.
    QVERIFY(eventually([&] { return pool.threadCount() == 1; }));
}

void TestSerialQueue::everyBusyQueueHasAThread()
{
    for (int round = 0; round < 10; ++round) {
        WorkerPool pool;
        const Gate gate;
        const Blockers blockers(pool, gate, 20);
        QVERIFY(blockers.allBegan());
        QCOMPARE(pool.threadCount(), size_t(20));
    }
}

void TestSerialQueue::neverMoreThan64Threads()
{
    QCOMPARE(WorkerPool::maximumThreads, size_t(64));
    WorkerPool pool;
    Gate gate;
    const Blockers blockers(pool, gate, 300);
    QVERIFY(eventually([&] { return blockers.began() == 64; }));
    // Neither for what falls due.
    std::atomic<bool> done = false;
    const Clock::time_point due = Clock::now() + 5ms;
    pool.makeQueue("late")->asyncAt(due, [&](Token) { done = true; });
    QVERIFY(eventually([&] { return Clock::now() > due + 5ms; }));
    QCOMPARE(pool.threadCount(), size_t(64));
    QCOMPARE(blockers.began(), size_t(64));
    QVERIFY(!done);
    gate.open();
    QVERIFY(blockers.allBegan());
    QVERIFY(eventually([&] { return done.load(); }));
}

void TestSerialQueue::queuesThatMayBlockLeaveOthersRunning()
{
    WorkerPool pool(10ms);
    Gate servers;
    {
        const Blockers remote(pool, servers, 2 * WorkerPool::maximumThreads, true);
        QVERIFY(remote.allBegan());
        const QueuePointer local = pool.makeQueue("local");
        QVERIFY(runAndWait(*local));
        // All 64 of the others.
        Gate gate;
        const Blockers busy(pool, gate, WorkerPool::maximumThreads + 1);
        QVERIFY(eventually([&] { return busy.began() == WorkerPool::maximumThreads; }));
        QCOMPARE(pool.threadCount(), 3 * WorkerPool::maximumThreads);

        // What a queue does from now on counts; the task that runs does not change sides.
        remote.first().setMayBlock(false);
        gate.open();
        QVERIFY(busy.allBegan());
        servers.open();
        QVERIFY(runAndWait(remote.first()));
    }
    // None is counted as blocked that no longer is.
    QVERIFY(eventually([&] { return pool.threadCount() == 1; }));
    const Gate gate;
    const Blockers busy(pool, gate, WorkerPool::maximumThreads + 10);
    QVERIFY(eventually([&] { return busy.began() == WorkerPool::maximumThreads; }));
    QCOMPARE(pool.threadCount(), WorkerPool::maximumThreads);
}

void TestSerialQueue::idleThreadsEndButTheLast()
{
    WorkerPool pool(20ms);
    for (int round = 0; round < 3; ++round) {
        Gate gate;
        const Blockers blockers(pool, gate, 10);
        QVERIFY(blockers.allBegan());
        gate.open();
        QVERIFY(eventually([&] { return pool.threadCount() == 1; }));
    }
    // It is needed where the system refuses another.
    const NoMoreThreads limit;
    const QueuePointer queue = pool.makeQueue("queue");
    for (int i = 0; i < 100; ++i)
        QVERIFY(runAndWait(*queue));
    QCOMPARE(pool.threadCount(), size_t(1));
}

void TestSerialQueue::idleThreadsStayForTheIdleTime()
{
    WorkerPool pool(1h);
    {
        const Gate gate;
        const Blockers blockers(pool, gate, 10);
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

void TestSerialQueue::refusedThreadLosesNoTask()
{
    std::atomic<int> done = 0;
    WorkerPool pool;
    {
        const NoMoreThreads limit;
        pool.makeQueue("queue")->async([&](Token) { ++done; });
        pool.makeQueue("queue")->asyncAt(Clock::now(), [&](Token) { ++done; });
        QCOMPARE(pool.threadCount(), size_t(0));
    }
    pool.makeQueue("queue")->async([&](Token) { ++done; });
    QVERIFY(eventually([&] { return done == 3; }));

    // A thread that is there does the work of those that are refused.
    Gate gate;
    const Blockers blockers(pool, gate, pool.threadCount());
    QVERIFY(blockers.allBegan());
    const NoMoreThreads limit;
    for (int i = 0; i < 100; ++i)
        pool.makeQueue("queue")->async([&](Token) { ++done; });
    gate.open();
    QVERIFY(eventually([&] { return done == 103; }));
}

void TestSerialQueue::stopAsksAndWaitsForTheTaskThatRuns_data()
{
    QTest::addColumn<bool>("byDestruction");
    QTest::newRow("stop") << false;
    QTest::newRow("destruction") << true;
}

void TestSerialQueue::stopAsksAndWaitsForTheTaskThatRuns()
{
    QFETCH(const bool, byDestruction);
    std::atomic<bool> began = false;
    std::atomic<bool> ended = false;
    auto pool = std::make_unique<WorkerPool>();
    const QueuePointer queue = pool->makeQueue("queue");
    queue->async([&, token = pool->stopToken()](Token) {
        began = true;
        // Ends only because it is asked to.
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

void TestSerialQueue::stopDropsTasksThatWait_data()
{
    QTest::addColumn<bool>("isPoolFull");
    QTest::addColumn<std::chrono::seconds>("delay");
    QTest::newRow("for the one that runs") << false << 0s;
    QTest::newRow("for a free thread") << true << 0s;
    QTest::newRow("for their time") << false << 3600s;
}

void TestSerialQueue::stopDropsTasksThatWait()
{
    QFETCH(const bool, isPoolFull);
    QFETCH(const std::chrono::seconds, delay);
    std::atomic<int> ran = 0;
    WorkerPool pool;
    Gate gate;
    const Blockers blockers(pool, gate, isPoolFull ? WorkerPool::maximumThreads : 0);
    QVERIFY(blockers.allBegan());
    std::atomic<bool> began = isPoolFull || delay > 0s;
    auto owner = std::make_shared<Owner>(Owner{pool.makeQueue("queue")});
    if (!began) {
        owner->queue->async([&, opened = gate.opened()](Token) {
            began = true;
            opened.wait();
        });
    }
    QVERIFY(eventually([&] { return began.load(); }));
    const std::weak_ptr<Owner> observer = owner;
    const std::weak_ptr<SerialQueue> queueObserver = owner->queue;
    for (int i = 0; i < 10; ++i) {
        const SerialQueue::Task task = [&ran, owner](Token) { ++ran; };
        if (delay > 0s)
            owner->queue->asyncAt(Clock::now() + delay, task);
        else
            owner->queue->async(task);
    }
    owner.reset();
    QVERIFY(!observer.expired());
    bool isDroppedAtOnce = true;
    {
        const std::jthread stopper([&] { pool.stop(); });
        // While other tasks run; those of a queue whose task runs are dropped after that one.
        isDroppedAtOnce = eventually(
            [&] { return pool.stopToken().stop_requested() && (observer.expired() || !isPoolFull); });
        gate.open();
    }
    QVERIFY(isDroppedAtOnce);
    QVERIFY(observer.expired());
    QVERIFY(queueObserver.expired());
    QCOMPARE(ran, 0);
}

void TestSerialQueue::stopBreaksCyclesOfSeveralQueues()
{
    std::vector<std::weak_ptr<SerialQueue>> observers;
    WorkerPool pool;
    {
        std::vector<QueuePointer> queues(50);
        for (QueuePointer& queue : queues)
            queue = pool.makeQueue("queue");
        for (size_t i = 0; i < queues.size(); ++i) {
            const QueuePointer& next = queues[(i + 1) % queues.size()];
            queues[i]->asyncAt(Clock::now() + 1h, [next](Token) {});
            observers.emplace_back(queues[i]);
        }
    }
    const auto isExpired = [](const auto& observer) { return observer.expired(); };
    QVERIFY(std::ranges::none_of(observers, isExpired));
    pool.stop();
    QVERIFY(std::ranges::all_of(observers, isExpired));
}

void TestSerialQueue::tasksAfterStopAreDropped()
{
    std::atomic<bool> began = false;
    std::atomic<int> ran = 0;
    WorkerPool pool;
    auto owner = std::make_shared<Owner>(Owner{pool.makeQueue("queue")});
    const std::weak_ptr<Owner> observer = owner;
    const auto addTasks = [&ran](const std::shared_ptr<Owner>& to) {
        for (int i = 0; i < 100; ++i) {
            to->queue->async([&ran, to](Token) { ++ran; });
            to->queue->asyncAt(Clock::now(), [&ran, to](Token) { ++ran; });
        }
    };
    // By a task that runs while the pool stops.
    owner->queue->async([&, owner, token = pool.stopToken()](Token) {
        began = true;
        while (!token.stop_requested())
            std::this_thread::yield();
        addTasks(owner);
    });
    QVERIFY(eventually([&] { return began.load(); }));
    pool.stop();
    // By others, to a queue that was there and to one that is new, and from the task that a queue begins
    // with.
    addTasks(owner);
    auto fresh = std::make_shared<Owner>(Owner{pool.makeQueue("fresh")});
    const std::weak_ptr<Owner> freshObserver = fresh;
    fresh->queue->runHere([&](Token) { addTasks(fresh); });
    pool.stop();
    owner.reset();
    fresh.reset();
    QVERIFY(observer.expired());
    QVERIFY(freshObserver.expired());
    QCOMPARE(ran, 0);
    QCOMPARE(pool.threadCount(), size_t(0));
}

void TestSerialQueue::stopWhileManyThreadsAddTasks()
{
    for (int round = 0; round < 20; ++round) {
        struct State {
            std::atomic<int> inside = 0;
            int count = 0;
            QueuePointer queue;
        };
        std::atomic<bool> enough = false;
        std::atomic<bool> stopped = false;
        std::atomic<int> ran = 0;
        std::atomic<int> wrong = 0;
        // Threads that are idle, that are just ending and that have ended.
        WorkerPool pool(std::chrono::milliseconds(round % 3));
        std::vector<std::weak_ptr<State>> observers;
        {
            std::vector<std::shared_ptr<State>> states;
            for (int i = 0; i < 5; ++i) {
                states.push_back(std::make_shared<State>());
                states.back()->queue = pool.makeQueue("queue");
                observers.emplace_back(states.back());
            }
            const ThreadGroup callers(4, [&](size_t) {
                for (size_t i = 0; !enough; ++i) {
                    const std::shared_ptr<State>& state = states[i % states.size()];
                    const SerialQueue::Task task = [&, state](Token) {
                        if (++state->inside > 1 || stopped) ++wrong;
                        ++state->count;
                        ++ran;
                        --state->inside;
                    };
                    if (i % 3 == 0)
                        state->queue->asyncAt(Clock::now() + std::chrono::microseconds(i % 700), task);
                    else
                        state->queue->async(task);
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
        QCOMPARE(wrong, 0);
        QCOMPARE(pool.threadCount(), size_t(0));
        for (const auto& observer : observers)
            QVERIFY(observer.expired());
    }
}

HARBEX_TEST_MAIN(TestSerialQueue)

#include "tst_SerialQueue.moc"
