#include "support/EngineResources.h"
#include "support/EngineTest.h"

#include <algorithm>
#include <filesystem>

using namespace harbex;
using namespace harbex::test;

namespace
{

std::string nameOf(int i)
{
    return "photo-" + std::to_string(i) + ".jpg";
}

ptrdiff_t countEntries(const std::string& folder)
{
    return std::distance(std::filesystem::directory_iterator(folder), std::filesystem::directory_iterator());
}

} // namespace

/// Many entries at once. The elapsed times are printed but not checked, because they depend on the machine.
class TestBurst : public EngineTest
{
    Q_OBJECT

private Q_SLOTS:
    void everyFileOfABurstIntoOneFolderArrives()
    {
        constexpr int count = 2000;
        const std::string prepared = m_memory.makeFolder("prepared");
        const std::string inbox = m_memory.makeFolder("inbox");
        const std::string out = m_memory.makeFolder("out");
        for (int i = 0; i < count; ++i)
            writeFile(prepared + '/' + nameOf(i), std::to_string(i));
        QVERIFY(start({watched(inbox, {takeAll(out)})}));
        for (int i = 0; i < count; ++i)
            renameEntry(prepared + '/' + nameOf(i), inbox + '/' + nameOf(i));
        QElapsedTimer timer;
        timer.start();
        QVERIFY(waitFor([&] { return countEntries(out) == count; }));
        qInfo("%d files moved %lld ms after the last arrival", count, timer.elapsed());

        for (int i = 0; i < count; ++i)
            QCOMPARE(contents(out + '/' + nameOf(i)), QByteArray::number(i));
        QCOMPARE(countEntries(inbox), 0);
        QVERIFY(waitFor([this] { return log("Moved ").size() == 200; }));
        QCOMPARE(log().size(), 200);
    }

    /// Each folder has a queue for scans and one for moves.
    void burstsIntoManyFoldersUseFewThreadsAndNoneAfterwards()
    {
        constexpr int folderCount = 70;
        constexpr int count = 20;
        static_assert(folderCount > WorkerPool::maximumThreads);
        const auto path = [this](const char* what, int folder) {
            return m_memory.path() + '/' + what + ' ' + std::to_string(folder);
        };
        std::vector<WatchedFolder> folders;
        for (int folder = 0; folder < folderCount; ++folder) {
            for (const char* what : {"prepared", "burst", "moved"})
                makeFolder(path(what, folder));
            for (int i = 0; i < count; ++i)
                writeFile(path("prepared", folder) + '/' + nameOf(i), std::to_string(i));
            folders.push_back(watched(path("burst", folder), {takeAll(path("moved", folder))}));
        }
        QVERIFY(start(folders));
        const auto foldersAbove = std::ranges::count(path("burst", 0), '/');
        QCOMPARE(kernelWatchCount(), static_cast<size_t>(folderCount + foldersAbove));
        for (int i = 0; i < count; ++i) {
            for (int folder = 0; folder < folderCount; ++folder)
                renameEntry(path("prepared", folder) + '/' + nameOf(i),
                            path("burst", folder) + '/' + nameOf(i));
        }
        QElapsedTimer timer;
        timer.start();
        size_t mostThreads = 0;
        for (int folder = 0; folder < folderCount; ++folder) {
            QVERIFY(waitFor([&] {
                mostThreads = std::max(mostThreads, threadCount() - m_threads);
                return countEntries(path("moved", folder)) == count;
            }));
        }
        qInfo("%d files in %d folders moved %lld ms after the last arrival, by at most %zu threads",
              folderCount * count, folderCount, timer.elapsed(), mostThreads);

        // One more thread reads the events.
        QVERIFY(mostThreads <= WorkerPool::maximumThreads + 1);
        QVERIFY(engine().threadCount() <= WorkerPool::maximumThreads);
        for (int folder = 0; folder < folderCount; ++folder) {
            QCOMPARE(countEntries(path("burst", folder)), 0);
            for (int i = 0; i < count; ++i)
                QCOMPARE(contents(path("moved", folder) + '/' + nameOf(i)), QByteArray::number(i));
        }
        QTRY_COMPARE_WITH_TIMEOUT(engine().threadCount(), 1U, patience);
        QTRY_COMPARE_WITH_TIMEOUT(threadCount(), m_threads + 2, patience);
    }

private:
    /// Usually a volume in memory, where many files are created in less time.
    const ScratchFolder m_memory{folderOnAnotherVolume()};
};

HARBEX_ENGINE_TEST(TestBurst)

#include "tst_Burst.moc"
