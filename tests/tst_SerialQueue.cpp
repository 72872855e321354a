#include "support/Eventually.h"
#include "support/Gate.h"
#include "support/TestMain.h"
#include "support/ThreadGroup.h"
#include "watcher/SerialQueue.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <functional>
#include <memory>
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

/// Keeps a queue busy until the gate is opened. Returns when it is.
bool block(SerialQueue& queue, const Gate& gate)
{
    const auto began = std::make_shared<std::promise<void>>();
    queue.async([began, opened = gate.opened()](Token) {
        began->set_value();
        opened.wait();
    });
    return began->get_future().wait_for(30s) == std::future_status::ready;
}

/// What many objects of the engine are: something that has a queue, whose tasks have it.
struct Owner {
    std::shared_ptr<SerialQueue> queue;
};

} // namespace

class TestSerialQueue : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // Tasks.
    void onlyAQueueMakesTokens();
    void keepsItsLabel();
    void runsOnAnotherThread();
    void tasksRunInTheOrderInWhichTheyCame();
    void tasksOfOneThreadKeepTheirOrderAmongThoseOfOthers();
    void neverRunsTwoTasksAtOnce();
    void queuesRunBesideEachOther();
    void taskAddedByATaskRunsAfterIt();
    void manyQueuesShareFewThreads();
    void tasksAreReleasedWhenTheyHaveRun();

    // Delayed tasks.
    void delayedTaskRunsNotBeforeItsTime();
    void delayedTasksRunInTheOrderOfTheirTimes();
    void delayedTasksRunInOrderEvenWhenLate();
    void delayedTasksRunInOrderEvenWhenThePoolIsFull();
    void delayedTasksOfOneTimeRunInTheOrderInWhichTheyCame();
    void delayedTasksNeverRunBesideOthers();
    void delayedTaskOfThePastRunsAtOnce();
    void nearerTaskAddedLaterRunsFirst();
    void fartherTaskStillRunsAfterANearerOne();
    void nothingIsBlockedWhileATaskWaitsForItsTime();

    // The end.
    void queueThatWasLetGoRunsItsTasks();
    void lastReferenceMayBeHeldByATask();
    void stopDropsTasksThatHoldTheirQueue();
    void stopDropsDelayedTasksThatHoldTheirQueue();
    void stopBreaksCyclesOfSeveralQueues();
    void stopWaitsForTheTaskThatRuns();
    void tasksAfterStopAreDropped();
    void taskMayAddTasksWhileThePoolStops();
    void queueMadeAfterStopDropsItsTasks();
    void queueLetGoBeforeStopIsForgotten();
    void stopWhileManyThreadsAddTasks();
};

void TestSerialQueue::onlyAQueueMakesTokens()
{
    QVERIFY((!std::is_constructible_v<Token>));
    QVERIFY(!std::is_aggregate_v<Token>);
}

void TestSerialQueue::keepsItsLabel()
{
    WorkerPool pool;
    QCOMPARE(SerialQueue::create(pool, "label \xff")->label(), std::string("label \xff"));
}

void TestSerialQueue::runsOnAnotherThread()
{
    WorkerPool pool;
    const auto queue = SerialQueue::create(pool, "queue");
    std::thread::id id;
    QVERIFY(runAndWait(*queue, [&] { id = std::this_thread::get_id(); }));
    QVERIFY(id != std::thread::id());
    QVERIFY(id != std::this_thread::get_id());
}

void TestSerialQueue::tasksRunInTheOrderInWhichTheyCame()
{
    std::vector<int> order;
    WorkerPool pool;
    const auto queue = SerialQueue::create(pool, "queue");
    for (int i = 0; i < 10'000; ++i) {
        queue->async([&, i](Token) { order.push_back(i); });
        // Now and then the queue runs empty in between.
        if (i % 1'000 == 0) QVERIFY(runAndWait(*queue));
    }
    QVERIFY(runAndWait(*queue));
    QCOMPARE(order.size(), size_t(10'000));
    for (int i = 0; i < 10'000; ++i)
        QCOMPARE(order[static_cast<size_t>(i)], i);
}

void TestSerialQueue::tasksOfOneThreadKeepTheirOrderAmongThoseOfOthers()
{
    std::array<std::vector<int>, 4> orders;
    WorkerPool pool;
    const auto queue = SerialQueue::create(pool, "queue");
    {
        const ThreadGroup callers(orders.size(), [&](size_t caller) {
            for (int i = 0; i < 1'000; ++i)
                queue->async([&order = orders[caller], i](Token) { order.push_back(i); });
        });
    }
    QVERIFY(runAndWait(*queue));
    for (const std::vector<int>& order : orders) {
        QCOMPARE(order.size(), size_t(1'000));
        QVERIFY(std::is_sorted(order.begin(), order.end()));
    }
}

void TestSerialQueue::neverRunsTwoTasksAtOnce()
{
    std::atomic<int> inside = 0;
    std::atomic<int> overlaps = 0;
    // Not atomic on purpose: the queue alone keeps its changes apart.
    int count = 0;
    WorkerPool pool;
    const auto queue = SerialQueue::create(pool, "queue");
    {
        const ThreadGroup callers(8, [&](size_t) {
            for (int i = 0; i < 1'000; ++i) {
                queue->async([&](Token) {
                    if (++inside > 1) ++overlaps;
                    ++count;
                    --inside;
                });
                // Lets the queue run empty, so that it is handed from thread to thread.
                if (i % 16 == 0) std::this_thread::yield();
            }
        });
    }
    int seen = 0;
    QVERIFY(runAndWait(*queue, [&] { seen = count; }));
    QCOMPARE(seen, 8'000);
    QCOMPARE(overlaps, 0);
}

void TestSerialQueue::queuesRunBesideEachOther()
{
    WorkerPool pool;
    const auto first = SerialQueue::create(pool, "first");
    const auto second = SerialQueue::create(pool, "second");
    const Gate gate;
    QVERIFY(block(*first, gate));
    QVERIFY(runAndWait(*second));
}

void TestSerialQueue::taskAddedByATaskRunsAfterIt()
{
    std::vector<int> order;
    WorkerPool pool;
    const auto queue = SerialQueue::create(pool, "queue");
    const Gate gate;
    QVERIFY(runAndWait(*queue, [&] {
        queue->async([&](Token) { order.push_back(2); });
        queue->asyncAt(Clock::now() - 1s, [&](Token) { order.push_back(3); });
        order.push_back(1);
    }));
    QVERIFY(eventually([&] {
        size_t size = 0;
        return runAndWait(*queue, [&] { size = order.size(); }) && size == 3;
    }));
    QVERIFY(runAndWait(*queue));
    QCOMPARE(order, std::vector({1, 2, 3}));
}

void TestSerialQueue::manyQueuesShareFewThreads()
{
    std::atomic<int> done = 0;
    WorkerPool pool;
    std::vector<std::shared_ptr<SerialQueue>> queues;
    for (int i = 0; i < 2'000; ++i) {
        queues.push_back(SerialQueue::create(pool, std::to_string(i)));
        queues.back()->async([&](Token) { ++done; });
    }
    QVERIFY(pool.threadCount() <= WorkerPool::maximumThreads);
    QVERIFY(eventually([&] { return done == 2'000; }));
    pool.stop();
}

void TestSerialQueue::tasksAreReleasedWhenTheyHaveRun()
{
    WorkerPool pool(1h);
    const auto queue = SerialQueue::create(pool, "queue");
    auto held = std::make_shared<int>(0);
    const std::weak_ptr<int> observer = held;
    queue->async([held](Token) {});
    queue->asyncAt(Clock::now() + 5ms, [held](Token) {});
    held.reset();
    QVERIFY(eventually([&] { return observer.expired(); }));
}

void TestSerialQueue::delayedTaskRunsNotBeforeItsTime()
{
    std::atomic<int> early = 0;
    std::atomic<int> done = 0;
    WorkerPool pool;
    const auto queue = SerialQueue::create(pool, "queue");
    const Clock::time_point start = Clock::now();
    for (int i = 0; i < 100; ++i) {
        const Clock::time_point due = start + std::chrono::microseconds(i * 777);
        queue->asyncAt(due, [&, due](Token) {
            if (Clock::now() < due) ++early;
            ++done;
        });
        queue->async([](Token) {});
    }
    QVERIFY(eventually([&] { return done == 100; }));
    QCOMPARE(early, 0);
    pool.stop();
}

void TestSerialQueue::delayedTasksRunInTheOrderOfTheirTimes()
{
    std::vector<int> order;
    std::atomic<int> done = 0;
    WorkerPool pool;
    const auto queue = SerialQueue::create(pool, "queue");
    const Clock::time_point start = Clock::now();
    for (const int i : {3, 1, 4, 0, 2, 9, 7, 8, 5, 6}) {
        queue->asyncAt(start + 5ms * i, [&, i](Token) {
            order.push_back(i);
            ++done;
        });
    }
    QVERIFY(eventually([&] { return done == 10; }));
    QCOMPARE(order, std::vector({0, 1, 2, 3, 4, 5, 6, 7, 8, 9}));
    pool.stop();
}

void TestSerialQueue::delayedTasksRunInOrderEvenWhenLate()
{
    std::vector<int> order;
    WorkerPool pool;
    const auto queue = SerialQueue::create(pool, "queue");
    Gate gate;
    QVERIFY(block(*queue, gate));
    // All are put in before the first falls due: one that is late when it comes has no place among the
    // others.
    const Clock::time_point start = Clock::now() + std::chrono::milliseconds(500);
    Clock::time_point last;
    for (int i = 0; i < 100; ++i) {
        const int place = i * 37 % 100;
        const Clock::time_point due = start + std::chrono::microseconds(place * 200);
        queue->asyncAt(due, [&, place](Token) { order.push_back(place); });
        last = std::max(last, due);
    }
    QVERIFY(eventually([&] { return Clock::now() > last; }));
    QVERIFY(order.empty());
    gate.open();
    QVERIFY(eventually([&] {
        size_t size = 0;
        return runAndWait(*queue, [&] { size = order.size(); }) && size == 100;
    }));
    QVERIFY(std::is_sorted(order.begin(), order.end()));
}

void TestSerialQueue::delayedTasksRunInOrderEvenWhenThePoolIsFull()
{
    for (int round = 0; round < 20; ++round) {
        std::vector<int> order;
        std::atomic<int> done = 0;
        WorkerPool pool;
        Gate gate;
        for (size_t i = 0; i < WorkerPool::maximumThreads; ++i)
            pool.run([opened = gate.opened()] { opened.wait(); });
        const auto queue = SerialQueue::create(pool, "queue");
        const Clock::time_point start = Clock::now();
        for (int i = 19; i >= 0; --i) {
            queue->asyncAt(start + std::chrono::microseconds(i), [&, i](Token) {
                order.push_back(i);
                ++done;
            });
        }
        QVERIFY(eventually([&] { return Clock::now() > start + 20us; }));
        // Now all threads at once are free for what the queue has asked of the pool.
        gate.open();
        QVERIFY(eventually([&] { return done == 20; }));
        QVERIFY(std::is_sorted(order.begin(), order.end()));
        pool.stop();
    }
}

void TestSerialQueue::delayedTasksOfOneTimeRunInTheOrderInWhichTheyCame()
{
    std::vector<int> order;
    std::atomic<int> done = 0;
    WorkerPool pool;
    const auto queue = SerialQueue::create(pool, "queue");
    const Clock::time_point due = Clock::now() + 10ms;
    for (int i = 0; i < 100; ++i) {
        queue->asyncAt(due, [&, i](Token) {
            order.push_back(i);
            ++done;
        });
    }
    QVERIFY(eventually([&] { return done == 100; }));
    QVERIFY(std::is_sorted(order.begin(), order.end()));
    pool.stop();
}

void TestSerialQueue::delayedTasksNeverRunBesideOthers()
{
    std::atomic<int> inside = 0;
    std::atomic<int> overlaps = 0;
    std::atomic<int> done = 0;
    int count = 0;
    WorkerPool pool;
    const auto queue = SerialQueue::create(pool, "queue");
    const SerialQueue::Task task = [&](Token) {
        if (++inside > 1) ++overlaps;
        ++count;
        --inside;
        ++done;
    };
    {
        const ThreadGroup callers(4, [&](size_t) {
            for (int i = 0; i < 500; ++i) {
                queue->async(task);
                queue->asyncAt(Clock::now() + std::chrono::microseconds(i % 50 * 100), task);
            }
        });
    }
    QVERIFY(eventually([&] { return done == 4'000; }));
    QCOMPARE(count, 4'000);
    QCOMPARE(overlaps, 0);
    pool.stop();
}

void TestSerialQueue::delayedTaskOfThePastRunsAtOnce()
{
    std::atomic<int> done = 0;
    WorkerPool pool;
    const auto queue = SerialQueue::create(pool, "queue");
    queue->asyncAt(Clock::now() - 1h, [&](Token) { ++done; });
    queue->asyncAt(Clock::time_point::min(), [&](Token) { ++done; });
    QVERIFY(eventually([&] { return done == 2; }));
    pool.stop();
}

void TestSerialQueue::nearerTaskAddedLaterRunsFirst()
{
    std::atomic<int> done = 0;
    WorkerPool pool;
    const auto queue = SerialQueue::create(pool, "queue");
    queue->asyncAt(Clock::now() + 1h, [&](Token) { done += 100; });
    queue->asyncAt(Clock::now() + 30ms, [&](Token) { ++done; });
    queue->asyncAt(Clock::now() + 10ms, [&](Token) { ++done; });
    QVERIFY(eventually([&] { return done == 2; }));
    queue->asyncAt(Clock::now() + 10ms, [&](Token) { ++done; });
    QVERIFY(eventually([&] { return done == 3; }));
    pool.stop();
    QCOMPARE(done, 3);
}

void TestSerialQueue::fartherTaskStillRunsAfterANearerOne()
{
    std::vector<int> order;
    std::atomic<int> done = 0;
    WorkerPool pool;
    const auto queue = SerialQueue::create(pool, "queue");
    const Clock::time_point start = Clock::now();
    for (const int i : {4, 3, 2, 1}) {
        queue->asyncAt(start + 15ms * i, [&, i](Token) {
            order.push_back(i);
            ++done;
        });
    }
    QVERIFY(eventually([&] { return done == 4; }));
    QCOMPARE(order, std::vector({1, 2, 3, 4}));
    // And a task that is added while the timer of a later one still runs.
    queue->asyncAt(Clock::now() + 40ms, [&](Token) { ++done; });
    queue->asyncAt(Clock::now() + 1ms, [&](Token) {
        queue->asyncAt(Clock::now() + 1ms, [&](Token) { ++done; });
        ++done;
    });
    QVERIFY(eventually([&] { return done == 7; }));
    pool.stop();
}

void TestSerialQueue::nothingIsBlockedWhileATaskWaitsForItsTime()
{
    std::atomic<int> done = 0;
    WorkerPool pool;
    std::vector<std::shared_ptr<SerialQueue>> queues;
    for (int i = 0; i < 200; ++i) {
        queues.push_back(SerialQueue::create(pool, "queue"));
        queues.back()->asyncAt(Clock::now() + 1h, [](Token) {});
        queues.back()->async([&](Token) { ++done; });
    }
    QVERIFY(eventually([&] { return done == 200; }));
    pool.stop();
}

void TestSerialQueue::queueThatWasLetGoRunsItsTasks()
{
    std::atomic<int> done = 0;
    WorkerPool pool;
    Gate gate;
    auto queue = SerialQueue::create(pool, "queue");
    const std::weak_ptr<SerialQueue> observer = queue;
    QVERIFY(block(*queue, gate));
    for (int i = 0; i < 10; ++i)
        queue->async([&](Token) { ++done; });
    queue->asyncAt(Clock::now() + 5ms, [&](Token) { ++done; });
    queue.reset();
    QVERIFY(!observer.expired());
    gate.open();
    QVERIFY(eventually([&] { return done == 11; }));
    QVERIFY(eventually([&] { return observer.expired(); }));
}

void TestSerialQueue::lastReferenceMayBeHeldByATask()
{
    WorkerPool pool;
    Gate gate;
    auto queue = SerialQueue::create(pool, "queue");
    const std::weak_ptr<SerialQueue> observer = queue;
    QVERIFY(block(*queue, gate));
    queue->async([queue](Token) {});
    queue->asyncAt(Clock::now(), [queue](Token) {});
    queue.reset();
    gate.open();
    QVERIFY(eventually([&] { return observer.expired(); }));
}

void TestSerialQueue::stopDropsTasksThatHoldTheirQueue()
{
    std::atomic<int> ran = 0;
    WorkerPool pool;
    Gate gate;
    auto owner = std::make_shared<Owner>(Owner{SerialQueue::create(pool, "queue")});
    const std::weak_ptr<Owner> observer = owner;
    const std::weak_ptr<SerialQueue> queueObserver = owner->queue;
    QVERIFY(block(*owner->queue, gate));
    for (int i = 0; i < 10; ++i)
        owner->queue->async([&ran, owner](Token) { ++ran; });
    owner.reset();
    QVERIFY(!observer.expired());

    {
        const std::jthread stopper([&] { pool.stop(); });
        QVERIFY(eventually([&] { return observer.expired(); }));
        // The task that runs still has the queue.
        QVERIFY(!queueObserver.expired());
        gate.open();
    }
    QVERIFY(queueObserver.expired());
    QCOMPARE(ran, 0);
}

void TestSerialQueue::stopDropsDelayedTasksThatHoldTheirQueue()
{
    std::atomic<int> ran = 0;
    WorkerPool pool;
    auto owner = std::make_shared<Owner>(Owner{SerialQueue::create(pool, "queue")});
    const std::weak_ptr<Owner> observer = owner;
    const std::weak_ptr<SerialQueue> queueObserver = owner->queue;
    owner->queue->asyncAt(Clock::now() + 1h, [&ran, owner](Token) { ++ran; });
    owner->queue->asyncAt(Clock::now() + 2h, [&ran, owner](Token) { ++ran; });
    owner.reset();
    QVERIFY(!observer.expired());
    pool.stop();
    QVERIFY(observer.expired());
    QVERIFY(queueObserver.expired());
    QCOMPARE(ran, 0);
}

void TestSerialQueue::stopBreaksCyclesOfSeveralQueues()
{
    std::vector<std::weak_ptr<SerialQueue>> observers;
    WorkerPool pool;
    {
        std::vector<std::shared_ptr<SerialQueue>> queues(50);
        for (auto& queue : queues)
            queue = SerialQueue::create(pool, "queue");
        for (size_t i = 0; i < queues.size(); ++i) {
            const auto& next = queues[(i + 1) % queues.size()];
            queues[i]->asyncAt(Clock::now() + 1h, [next](Token) {});
            observers.emplace_back(queues[i]);
        }
    }
    for (const auto& observer : observers)
        QVERIFY(!observer.expired());
    pool.stop();
    for (const auto& observer : observers)
        QVERIFY(observer.expired());
}

void TestSerialQueue::stopWaitsForTheTaskThatRuns()
{
    std::atomic<bool> began = false;
    std::atomic<bool> ended = false;
    WorkerPool pool;
    const auto queue = SerialQueue::create(pool, "queue");
    queue->async([&, token = pool.stopToken()](Token) {
        began = true;
        while (!token.stop_requested())
            std::this_thread::yield();
        // Long enough for a stop that does not wait to come back first.
        std::this_thread::sleep_for(30ms);
        ended = true;
    });
    QVERIFY(eventually([&] { return began.load(); }));
    pool.stop();
    QVERIFY(ended);
}

void TestSerialQueue::tasksAfterStopAreDropped()
{
    std::atomic<int> ran = 0;
    auto held = std::make_shared<int>(0);
    const std::weak_ptr<int> observer = held;
    WorkerPool pool;
    const auto queue = SerialQueue::create(pool, "queue");
    pool.stop();
    queue->async([&ran, held](Token) { ++ran; });
    queue->asyncAt(Clock::now(), [&ran, held](Token) { ++ran; });
    held.reset();
    QVERIFY(observer.expired());
    QCOMPARE(ran, 0);
}

void TestSerialQueue::taskMayAddTasksWhileThePoolStops()
{
    std::atomic<bool> began = false;
    std::atomic<int> ran = 0;
    WorkerPool pool;
    auto owner = std::make_shared<Owner>(Owner{SerialQueue::create(pool, "queue")});
    const std::weak_ptr<Owner> observer = owner;
    owner->queue->async([&, owner, token = pool.stopToken()](Token) {
        began = true;
        while (!token.stop_requested())
            std::this_thread::yield();
        for (int i = 0; i < 100; ++i) {
            owner->queue->async([&ran, owner](Token) { ++ran; });
            owner->queue->asyncAt(Clock::now(), [&ran, owner](Token) { ++ran; });
        }
    });
    owner.reset();
    QVERIFY(eventually([&] { return began.load(); }));
    pool.stop();
    QCOMPARE(ran, 0);
    QVERIFY(observer.expired());
}

void TestSerialQueue::queueMadeAfterStopDropsItsTasks()
{
    std::atomic<int> ran = 0;
    WorkerPool pool;
    pool.stop();
    auto queue = SerialQueue::create(pool, "queue");
    const std::weak_ptr<SerialQueue> observer = queue;
    queue->async([&ran, queue](Token) { ++ran; });
    queue->asyncAt(Clock::now() + 1h, [&ran, queue](Token) { ++ran; });
    queue.reset();
    QVERIFY(observer.expired());
    QCOMPARE(ran, 0);
}

void TestSerialQueue::queueLetGoBeforeStopIsForgotten()
{
    WorkerPool pool;
    for (int i = 0; i < 100; ++i) {
        auto queue = SerialQueue::create(pool, "queue");
        queue->async([](Token) {});
        queue->asyncAt(Clock::now() + std::chrono::microseconds(i * 10), [](Token) {});
        queue.reset();
        // Some of them end in the very moment of the stop.
        if (i % 10 == 9) SerialQueue::create(pool, "never used").reset();
    }
    pool.stop();
}

void TestSerialQueue::stopWhileManyThreadsAddTasks()
{
    for (int round = 0; round < 20; ++round) {
        struct State {
            std::atomic<int> inside = 0;
            int count = 0;
            std::shared_ptr<SerialQueue> queue;
        };
        std::atomic<bool> enough = false;
        std::atomic<bool> stopped = false;
        std::atomic<int> ran = 0;
        std::atomic<int> wrong = 0;
        WorkerPool pool(1ms);
        std::vector<std::weak_ptr<State>> observers;
        {
            std::vector<std::shared_ptr<State>> states;
            for (int i = 0; i < 5; ++i) {
                states.push_back(std::make_shared<State>());
                states.back()->queue = SerialQueue::create(pool, "queue");
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
        for (const auto& observer : observers)
            QVERIFY(observer.expired());
    }
}

HARBEX_TEST_MAIN(TestSerialQueue)

#include "tst_SerialQueue.moc"
