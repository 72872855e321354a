#include "support/EngineResources.h"
#include "support/EngineTest.h"

#include <algorithm>

using namespace harbex;
using namespace harbex::test;

/// Many entries at once. The elapsed time is printed but not checked, because it depends on the machine.
class TestBurst : public EngineTest
{
    Q_OBJECT

private Q_SLOTS:
    void everyFileArrivesAndFewThreadsAreUsed_data()
    {
        QTest::addColumn<int>("folderCount");
        QTest::addColumn<int>("count");
        QTest::newRow("one folder") << 1 << 2000;
        // Each folder has a queue for scans and one for moves.
        QTest::newRow("more folders than threads") << int(WorkerPool::maximumThreads) + 6 << 20;
    }

    void everyFileArrivesAndFewThreadsAreUsed()
    {
        QFETCH(const int, folderCount);
        QFETCH(const int, count);
        // Usually a volume in memory, where many files are created in less time.
        const ScratchFolder memory(folderOnAnotherVolume());
        const auto path = [&](const char* what, int folder) {
            return memory.path() + '/' + what + ' ' + std::to_string(folder);
        };
        const auto file = [&](const char* what, int folder, int i) {
            return path(what, folder) + "/photo-" + std::to_string(i) + ".jpg";
        };
        std::vector<WatchedFolder> folders;
        for (int folder = 0; folder < folderCount; ++folder) {
            for (const char* what : {"prepared", "burst", "moved"})
                makeFolder(path(what, folder));
            for (int i = 0; i < count; ++i)
                writeFile(file("prepared", folder, i), std::to_string(i));
            folders.push_back(watched(path("burst", folder), {takeAll(path("moved", folder))}));
        }
        QVERIFY(start(folders));
        const auto foldersAbove = std::ranges::count(path("burst", 0), '/');
        QCOMPARE(kernelWatchCount(), static_cast<size_t>(folderCount + foldersAbove));
        for (int i = 0; i < count; ++i)
            for (int folder = 0; folder < folderCount; ++folder)
                renameEntry(file("prepared", folder, i), file("burst", folder, i));
        QElapsedTimer timer;
        timer.start();
        size_t mostThreads = 0;
        for (int folder = 0; folder < folderCount; ++folder) {
            QVERIFY(waitFor([&] {
                mostThreads = std::max(mostThreads, threadCount() - m_threads);
                return namesIn(path("moved", folder)).size() == count;
            }));
        }
        qInfo("moved %lld ms after the last arrival, by at most %zu threads", timer.elapsed(), mostThreads);

        // One more thread reads the events.
        QVERIFY(mostThreads <= WorkerPool::maximumThreads + 1);
        QVERIFY(engine().threadCount() <= WorkerPool::maximumThreads);
        for (int folder = 0; folder < folderCount; ++folder) {
            QCOMPARE(namesIn(path("burst", folder)), QByteArrayList());
            for (int i = 0; i < count; ++i)
                QCOMPARE(contents(file("moved", folder, i)), QByteArray::number(i));
        }
        QTRY_COMPARE_WITH_TIMEOUT(log("Moved ").size(), 200, patience);
        QCOMPARE(log().size(), 200);
        QTRY_COMPARE_WITH_TIMEOUT(engine().threadCount(), 1U, patience);
        QTRY_COMPARE_WITH_TIMEOUT(threadCount(), m_threads + 2, patience);
    }
};

HARBEX_TEST(TestBurst)

#include "tst_Burst.moc"
