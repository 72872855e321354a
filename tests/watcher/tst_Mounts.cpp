#include "support/EngineOutput.h"
#include "support/EngineProbe.h"
#include "support/EngineResources.h"
#include "support/PrivateMounts.h"

#include <algorithm>
#include <memory>

using namespace harbex;
using namespace harbex::test;

/// Watched folders and destinations on volumes that appear, disappear, are full or read-only, and a limit of
/// watches. Runs in a private namespace.
class TestMounts : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        m_scratch = std::make_unique<ScratchFolder>();
        m_output = std::make_unique<EngineOutput>();
        m_inbox = m_scratch->makeFolder("inbox");
        m_out = m_scratch->makeFolder("out");
    }

    void cleanup() { m_output.reset(); }

    void aWatchedVolumeCanBeUnmounted()
    {
        const std::string other = m_scratch->makeFolder("other");
        Sentinel sentinel(*m_scratch, other);
        writeFile(m_inbox + "/beneath.jpg", "was there before");
        Mount volume = Mount::memory(m_inbox);
        const std::vector<WatchedFolder> folders = {watched(m_inbox, {takeAll(m_out)}),
                                                    watched(other, {sentinel.rule()})};
        DownloadImageRedirector engine;
        QVERIFY(startAndWait(engine, folders));
        writeFile(m_inbox + "/a.jpg", "");
        QTRY_COMPARE_WITH_TIMEOUT(namesIn(m_out), QByteArrayList{"a.jpg"}, patience);

        // A scan keeps the volume busy for a moment.
        const std::vector<int> before = engine.activeFDs();
        QTRY_VERIFY_WITH_TIMEOUT(volume.unmount(), patience);
        // The folder below the mount is watched now. Its content is known.
        QTRY_VERIFY_WITH_TIMEOUT(isWatchedAgain(engine, before), patience);
        writeFile(m_inbox + "/b.jpg", "");
        QTRY_COMPARE_WITH_TIMEOUT(namesIn(m_out), QByteArrayList({"a.jpg", "b.jpg"}), patience);
        QVERIFY(sentinel.passes(engine));
        QCOMPARE(namesIn(m_inbox), QByteArrayList{"beneath.jpg"});
    }

    void anEngineAtRestHoldsNoVolume()
    {
        const size_t threads = threadCount();
        Mount inbox = Mount::memory(m_inbox);
        Mount out = Mount::memory(m_out);
        DownloadImageRedirector engine;
        QVERIFY(startAndWait(engine, folders()));
        writeFile(m_inbox + "/a.jpg", "content");
        makeFolder(m_inbox + "/b");
        QTRY_COMPARE_WITH_TIMEOUT(namesIn(m_out), QByteArrayList({"a.jpg", "b"}), patience);
        // The reader of events is left, and one worker.
        QTRY_COMPARE_WITH_TIMEOUT(threadCount(), threads + 2, patience);
        QVERIFY(inbox.unmount());
        QVERIFY(out.unmount());
    }

    void aVolumeMountedOverTheFolderIsWatchedInstead()
    {
        const std::string other = m_scratch->makeFolder("other");
        const std::string behind = m_scratch->makeFolder("behind");
        const Mount again = Mount::again(m_inbox, behind);
        Sentinel sentinel(*m_scratch, other);
        DownloadImageRedirector engine;
        QVERIFY(
            startAndWait(engine, {watched(m_inbox, {takeAll(m_out)}), watched(other, {sentinel.rule()})}));
        const std::string full = m_scratch->makeFolder("full");
        writeFile(full + "/over.jpg", "was there before");
        std::vector<int> before = engine.activeFDs();
        Mount over = Mount::again(full, m_inbox);
        QTRY_VERIFY_WITH_TIMEOUT(isWatchedAgain(engine, before), patience);
        // The first folder is hidden, but still exists.
        writeFile(behind + "/hidden.jpg", "");
        writeFile(m_inbox + "/a.jpg", "");
        QTRY_COMPARE_WITH_TIMEOUT(namesIn(m_out), QByteArrayList{"a.jpg"}, patience);
        QVERIFY(sentinel.passes(engine));
        QCOMPARE(namesIn(full), QByteArrayList{"over.jpg"});
        QCOMPARE(namesIn(behind), QByteArrayList{"hidden.jpg"});

        before = engine.activeFDs();
        QTRY_VERIFY_WITH_TIMEOUT(over.unmount(), patience);
        QTRY_VERIFY_WITH_TIMEOUT(isWatchedAgain(engine, before), patience);
        writeFile(behind + "/b.jpg", "");
        QTRY_COMPARE_WITH_TIMEOUT(namesIn(m_out), QByteArrayList({"a.jpg", "b.jpg"}), patience);
        QVERIFY(sentinel.passes(engine));
        QCOMPARE(namesIn(behind), QByteArrayList{"hidden.jpg"});
    }

    /// A rename between two mounts is refused even when both show the same volume.
    void twoMountsOfOneVolumeAreMovedBetween()
    {
        const std::string real = m_scratch->makeFolder("real");
        const Mount out = Mount::again(real, m_out);
        DownloadImageRedirector engine;
        QVERIFY(startAndWait(engine, folders()));
        m_scratch->arrive(m_inbox + "/photo.jpg", "content");
        QTRY_COMPARE_WITH_TIMEOUT(lastMessage(engine), QStringLiteral("Moved photo.jpg -> photo.jpg"),
                                  patience);
        QCOMPARE(namesIn(real), QByteArrayList{"photo.jpg"});
        QCOMPARE(contents(real + "/photo.jpg"), QByteArray("content"));
        QVERIFY(namesIn(m_inbox).isEmpty());
    }

    void aFullVolumeIsLoggedAndLeftClean()
    {
        const Mount small = Mount::memory(m_out, "size=1m");
        const std::string content(4 << 20, 'x');
        DownloadImageRedirector engine;
        QVERIFY(startAndWait(engine, folders()));
        m_scratch->arrive(m_inbox + "/film.mp4", content);
        QTRY_COMPARE_WITH_TIMEOUT(lastMessage(engine),
                                  QStringLiteral("Move failed for film.mp4: No space left on device"),
                                  patience);
        QVERIFY(contents(m_inbox + "/film.mp4") == content.c_str());
        QVERIFY(namesIn(m_out).isEmpty());

        const std::string folder = m_scratch->makeFolder("Notes");
        writeFile(folder + "/film.mp4", content);
        renameEntry(folder, m_inbox + "/Notes");
        QTRY_COMPARE_WITH_TIMEOUT(lastMessage(engine),
                                  QStringLiteral("Move failed for Notes: No space left on device"), patience);
        QVERIFY(contents(m_inbox + "/Notes/film.mp4") == content.c_str());
        QVERIFY(namesIn(m_out).isEmpty());

        // A smaller file is still moved.
        m_scratch->arrive(m_inbox + "/photo.jpg", "content");
        QTRY_COMPARE_WITH_TIMEOUT(namesIn(m_out), QByteArrayList{"photo.jpg"}, patience);
    }

    void aReadOnlyVolumeIsLogged_data()
    {
        QTest::addColumn<bool>("isInbox");
        QTest::newRow("destination") << false;
        // The entries cannot be removed, so they must not be copied either.
        QTest::newRow("watched folder") << true;
    }

    void aReadOnlyVolumeIsLogged()
    {
        QFETCH(const bool, isInbox);
        const std::string behind = m_scratch->makeFolder("behind");
        const Mount volume = Mount::memory(behind);
        const Mount readOnly = Mount::again(behind, isInbox ? m_inbox : m_out);
        readOnly.makeReadOnly();
        DownloadImageRedirector engine;
        QVERIFY(startAndWait(engine, folders()));
        writeFile((isInbox ? behind : m_inbox) + "/photo.jpg", "content");
        QTRY_COMPARE_WITH_TIMEOUT(lastMessage(engine),
                                  QStringLiteral("Move failed for photo.jpg: Read-only file system"),
                                  patience);
        QCOMPARE(contents(m_inbox + "/photo.jpg"), QByteArray("content"));
        QVERIFY(namesIn(m_out).isEmpty());
    }

    void aRefusedWatchLeavesTheOtherFoldersWatched()
    {
        const std::string second = m_scratch->makeFolder("second");
        // Enough for the folders above, and for one of the two.
        const auto foldersAbove = int(std::ranges::count(m_inbox, '/'));
        limitWatches(foldersAbove + 1);
        DownloadImageRedirector engine;
        QVERIFY(
            startAndWait(engine, {watched(m_inbox, {takeAll(m_out)}), watched(second, {takeAll(m_out)})}));
        QTRY_COMPARE(messages(engine), QStringList({QStringLiteral("Failed to open folder: second"),
                                                    QStringLiteral("Started watchers.")}));
        QCOMPARE(engine.activeFDs().size(), 1U);
        m_scratch->arrive(second + "/a.jpg", "");
        m_scratch->arrive(m_inbox + "/b.jpg", "");
        QTRY_COMPARE_WITH_TIMEOUT(namesIn(m_out), QByteArrayList{"b.jpg"}, patience);
        QCOMPARE(namesIn(second), QByteArrayList{"a.jpg"});

        limitWatches(foldersAbove + 2);
        QVERIFY(
            restartAndWait(engine, {watched(m_inbox, {takeAll(m_out)}), watched(second, {takeAll(m_out)})}));
        QCOMPARE(engine.activeFDs().size(), 2U);
        QCOMPARE(countMessages(engine, QStringLiteral("Failed to open folder: second")), 1);
    }

private:
    [[nodiscard]] std::vector<WatchedFolder> folders() const { return {watched(m_inbox, {takeAll(m_out)})}; }

    std::unique_ptr<ScratchFolder> m_scratch;
    std::unique_ptr<EngineOutput> m_output;
    std::string m_inbox;
    std::string m_out;
};

HARBEX_MAIN(TestMounts)
{
    enterPrivateNamespace();
    reportApartFromStandardOutput();
    return runTest<QCoreApplication, TestMounts>(argc, argv);
}

#include "tst_Mounts.moc"
