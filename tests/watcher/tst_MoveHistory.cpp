#include "watcher/MoveHistory.h"

#include "support/EngineFiles.h"
#include "support/TestMain.h"
#include "watcher/WatchedDirectory.h"

using namespace harbex;
using namespace harbex::test;
using namespace std::chrono_literals;

namespace
{

using Clock = MoveHistory::Clock;
using FolderKey = MoveHistory::FolderKey;
using Trail = MoveHistory::Trail;

constexpr FolderKey first{1, 10};
constexpr FolderKey second{1, 20};
/// The same inode number on another volume.
constexpr FolderKey elsewhere{2, 10};

} // namespace

class TestMoveHistory : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void aFolderIsWatchedUntilItIsRemovedAsOftenAsAdded()
    {
        MoveHistory history;
        QVERIFY(!history.isWatched(first));
        for (int times = 0; times < 2; ++times) {
            history.addWatched(first);
            history.addWatched(first);
            QVERIFY(history.isWatched(first));
            QVERIFY(!history.isWatched(second));
            QVERIFY(!history.isWatched(elsewhere));
            history.removeWatched(first);
            QVERIFY(history.isWatched(first));
            history.removeWatched(first);
            QVERIFY(!history.isWatched(first));
        }
    }

    void aTrailIsTakenOnce()
    {
        MoveHistory history;
        const Trail trail{{first, Clock::now() - 1s}, {elsewhere, Clock::now()}};
        history.expect(second, "name \xff", {{first, Clock::now()}});
        // The later one replaces the earlier one.
        history.expect(second, "name \xff", trail);
        history.expect(second, "other", {});
        QCOMPARE(history.take(first, "name \xff"), Trail());
        QCOMPARE(history.take(elsewhere, "name \xff"), Trail());
        QCOMPARE(history.take(second, "name"), Trail());
        QCOMPARE(history.take(second, "name \xff"), trail);
        QCOMPARE(history.take(second, "name \xff"), Trail());
    }

    void aTrailLeadsOutOfItsFoldersForAMinute()
    {
        const Clock::time_point now = Clock::now();
        struct {
            const char* description;
            Trail trail;
            bool leadsOutOfFirst;
        } const cases[] = {
            {"none", {}, false},
            {"just now", {{first, now}}, true},
            {"half a minute ago", {{first, now - 30s}}, true},
            {"more than a minute ago", {{first, now - 61s}}, false},
            {"another folder", {{second, now}}, false},
            {"same inode number on another volume", {{elsewhere, now}}, false},
            {"at the beginning of a chain", {{first, now - 2s}, {second, now - 1s}, {elsewhere, now}}, true},
            {"long ago, and again", {{first, now - 61s}, {second, now - 2s}, {first, now - 1s}}, true},
        };
        for (const auto& each : cases)
            QVERIFY2(MoveHistory::leadsOutOf(first, each.trail) == each.leadsOutOfFirst, each.description);
    }

    void namesAreExpectedInTheirFolderFromTheirTimeOn()
    {
        MoveHistory history;
        const Clock::time_point before = Clock::now();
        history.expect(first, "a", {});
        history.expect(first, "b", {});
        history.expect(second, "c", {});
        history.expect(elsewhere, "d", {});
        const Clock::time_point after = Clock::now() + 1ns;
        QCOMPARE(history.expectedBefore(first, before), std::vector<std::string>());
        QCOMPARE(history.expectedBefore(first, after), (std::vector<std::string>{"a", "b"}));
        QCOMPARE(history.expectedBefore(second, after), std::vector<std::string>{"c"});
        static_cast<void>(history.take(first, "a"));
        QCOMPARE(history.expectedBefore(first, after), std::vector<std::string>{"b"});
    }

    void anEntryThatReturnsBetweenTwoListingsLeavesNoTrail()
    {
        const ScratchFolder scratch;
        const std::string inbox = scratch.makeFolder("inbox");
        writeFile(inbox + "/returned", {});
        DirectoryEvents events;
        MoveHistory history;
        WorkerPool pool;
        const auto handler = std::make_shared<const std::function<void()>>([] {});
        const auto directory = WatchedDirectory::open(events, history, inbox, handler);
        QVERIFY(directory);
        const FolderKey folder = MoveHistory::keyOf((*directory)->identity());
        const Trail trail{{second, Clock::now()}};
        for (const char* name : {"returned", "new", "not there yet"})
            history.expect(folder, name, trail);
        writeFile(inbox + "/new", {});

        const auto queue = pool.makeQueue("test");
        const auto takeNewNames = [&] {
            Outcome<std::vector<std::string>> names = SystemError{EBUSY};
            queue->runHere([&](SerialQueue::Token token) { names = (*directory)->takeNewNames(token); });
            return names ? *names : std::vector<std::string>{"failed"};
        };
        QCOMPARE(takeNewNames(), std::vector<std::string>{"new"});
        QCOMPARE(history.take(folder, "returned"), Trail());
        QCOMPARE(history.take(folder, "new"), trail);
        QCOMPARE(history.take(folder, "not there yet"), trail);

        // The same in a folder without a change.
        history.expect(folder, "returned", trail);
        QCOMPARE(takeNewNames(), std::vector<std::string>());
        QCOMPARE(history.take(folder, "returned"), Trail());
        pool.stop();
    }
};

HARBEX_TEST(TestMoveHistory)

#include "tst_MoveHistory.moc"
