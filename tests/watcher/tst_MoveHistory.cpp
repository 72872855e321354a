#include "support/TestMain.h"
#include "watcher/MoveHistory.h"

using namespace harbex;
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

    void aTrailLeadsOutOfItsFolders_data()
    {
        QTest::addColumn<Trail>("trail");
        QTest::addColumn<bool>("leadsOutOfFirst");
        const Clock::time_point now = Clock::now();
        const auto row = [](const char* what, const Trail& trail, bool leadsOutOfFirst) {
            QTest::newRow(what) << trail << leadsOutOfFirst;
        };
        row("none", {}, false);
        row("just now", {{first, now}}, true);
        row("half a minute ago", {{first, now - 30s}}, true);
        row("more than a minute ago", {{first, now - 61s}}, false);
        row("another folder", {{second, now}}, false);
        row("same inode number on another volume", {{elsewhere, now}}, false);
        row("at the beginning of a chain", {{first, now - 2s}, {second, now - 1s}, {elsewhere, now}}, true);
        row("long ago, and again", {{first, now - 61s}, {second, now - 2s}, {first, now - 1s}}, true);
    }

    void aTrailLeadsOutOfItsFolders()
    {
        QFETCH(const Trail, trail);
        QFETCH(const bool, leadsOutOfFirst);
        QCOMPARE(MoveHistory::leadsOutOf(first, trail), leadsOutOfFirst);
    }
};

HARBEX_TEST(TestMoveHistory)

#include "tst_MoveHistory.moc"
