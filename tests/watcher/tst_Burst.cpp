#include "support/EngineOutput.h"
#include "support/EngineProbe.h"
#include "support/EngineResources.h"

#include <QElapsedTimer>

#include <algorithm>
#include <filesystem>
#include <memory>

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

/// Many entries at once. How long it takes is printed for people; a test that failed on a busy machine would
/// say nothing about the engine.
class TestBurst : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void everyFileOfABurstIntoOneFolderArrives();
    void burstsIntoManyFoldersUseFewThreadsAndNoneAfterwards();

private:
    std::unique_ptr<ScratchFolder> m_scratch;
    std::unique_ptr<EngineOutput> m_output;
};

void TestBurst::init()
{
    m_scratch = std::make_unique<ScratchFolder>();
    m_output = std::make_unique<EngineOutput>();
}

void TestBurst::cleanup()
{
    m_output.reset();
}

void TestBurst::everyFileOfABurstIntoOneFolderArrives()
{
    constexpr int count = 2000;
    const std::string prepared = m_scratch->makeFolder("prepared");
    const std::string inbox = m_scratch->makeFolder("inbox");
    const std::string out = m_scratch->makeFolder("out");
    for (int i = 0; i < count; ++i)
        writeFile(prepared + '/' + nameOf(i), std::to_string(i));
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(inbox, {takeAll(out)})}));

    QElapsedTimer timer;
    timer.start();
    for (int i = 0; i < count; ++i)
        renameEntry(prepared + '/' + nameOf(i), inbox + '/' + nameOf(i));
    const double renames = static_cast<double>(timer.nsecsElapsed()) / 1e9;
    timer.restart();
    // Nearly as often as it can be asked, to measure the engine rather than the waiting.
    QTRY_VERIFY_WITH_TIMEOUT(countEntries(out) == count, patience);
    const double elapsed = static_cast<double>(timer.nsecsElapsed()) / 1e9;
    qInfo("%d files moved %.3f s after the last arrival: two waits of 0.15 s and a loop of renames (%.3f s) "
          "times %.2f",
          count, elapsed, renames, elapsed / (0.30 + renames));

    for (int i = 0; i < count; ++i)
        QCOMPARE(contents(out + '/' + nameOf(i)), QByteArray::number(i));
    QCOMPARE(countEntries(inbox), 0);
    QTRY_COMPARE_WITH_TIMEOUT(engine.logs().size(), 200, patience);
    for (const QString& message : messages(engine))
        QVERIFY2(message.startsWith(u"Moved "), qPrintable(message));
}

void TestBurst::burstsIntoManyFoldersUseFewThreadsAndNoneAfterwards()
{
    constexpr int folderCount = 20;
    constexpr int count = 1000;
    const auto path = [&](const char* what, int folder) {
        return m_scratch->path() + '/' + what + ' ' + std::to_string(folder);
    };
    std::vector<WatchedFolder> folders;
    for (int folder = 0; folder < folderCount; ++folder) {
        makeFolder(path("prepared", folder));
        makeFolder(path("inbox", folder));
        makeFolder(path("out", folder));
        for (int i = 0; i < count; ++i)
            writeFile(path("prepared", folder) + '/' + nameOf(i), std::to_string(i));
        folders.push_back(watched(path("inbox", folder), {takeAll(path("out", folder))}));
    }

    const size_t threadsBefore = threadCount();
    auto engine = std::make_unique<DownloadImageRedirector>();
    QVERIFY(startAndWait(*engine, folders));
    const auto foldersAbove = std::ranges::count(path("inbox", 0), '/');
    QCOMPARE(kernelWatchCount(), static_cast<size_t>(folderCount + foldersAbove));
    for (int i = 0; i < count; ++i) {
        for (int folder = 0; folder < folderCount; ++folder)
            renameEntry(path("prepared", folder) + '/' + nameOf(i), path("inbox", folder) + '/' + nameOf(i));
    }
    QElapsedTimer timer;
    timer.start();
    size_t mostThreads = 0;
    for (int folder = 0; folder < folderCount; ++folder) {
        const auto areThere = [&] {
            mostThreads = std::max(mostThreads, threadCount());
            return countEntries(path("out", folder)) == count;
        };
        QTRY_VERIFY_WITH_TIMEOUT(areThere(), patience);
    }
    qInfo("%d files in %d folders moved %lld ms after the last arrival, by at most %zu threads",
          folderCount * count, folderCount, timer.elapsed(), mostThreads - threadsBefore);

    // One more reads the events.
    QVERIFY(mostThreads - threadsBefore <= WorkerPool::maximumThreads + 1);
    QVERIFY(engine->threadCount() <= WorkerPool::maximumThreads);
    for (int folder = 0; folder < folderCount; ++folder) {
        QCOMPARE(countEntries(path("inbox", folder)), 0);
        for (int i = 0; i < count; ++i)
            QCOMPARE(contents(path("out", folder) + '/' + nameOf(i)), QByteArray::number(i));
    }
    QTRY_COMPARE_WITH_TIMEOUT(engine->threadCount(), 1U, patience);
    QTRY_COMPARE_WITH_TIMEOUT(threadCount(), threadsBefore + 2, patience);
    engine.reset();
    QCOMPARE(threadCount(), threadsBefore);
}

HARBEX_ENGINE_TEST_MAIN(TestBurst)

#include "tst_Burst.moc"
