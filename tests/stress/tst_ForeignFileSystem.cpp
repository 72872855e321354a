#include "support/EngineOutput.h"
#include "support/EngineProbe.h"
#include "support/FuseMount.h"
#include "support/MovePlaces.h"
#include "support/PrivateMounts.h"
#include "support/Stress.h"

#include <array>
#include <chrono>
#include <memory>
#include <thread>
#include <utility>

using namespace harbex;
using namespace harbex::test;

namespace
{

/// Where a move begins and ends: inside or outside the file system.
using Direction = std::pair<const char*, const char*>;
constexpr std::array<Direction, 3> directions = {
    {{"inside", "inside"}, {"inside", "outside"}, {"outside", "inside"}}};

} // namespace

/// Moves and the engine on a real FUSE file system, which lacks some operations of Linux file systems.
class TestForeignFileSystem : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        m_here = std::make_unique<ScratchFolder>();
        m_real = m_here->makeFolder("real");
        m_mounted = m_here->makeFolder("mounted");
        m_mount = std::make_unique<FuseMount>(m_real, m_mounted);
    }

    void cleanup() { m_mount.reset(); }

    void moves_data()
    {
        QTest::addColumn<QByteArray>("kind");
        QTest::addColumn<QByteArray>("from");
        QTest::addColumn<QByteArray>("into");
        for (const char* kind : {"file", "folder", "full folder", "link", "dangling link"}) {
            for (const auto& [from, into] : directions)
                QTest::addRow("%s, from %s to %s", kind, from, into)
                    << QByteArray(kind) << QByteArray(from) << QByteArray(into);
        }
    }

    void moves()
    {
        QFETCH(const QByteArray, kind);
        QFETCH(const QByteArray, from);
        QFETCH(const QByteArray, into);
        MovePlaces places;
        places.makePlaces(folderFor(into), folderFor(from));
        const auto tryMove = [&places] {
            places.remember();
            return places.result(errorOfMove(places.source, places.target));
        };
        makeObstacle(kind.toStdString(), places.source);
        for (const char* obstacle : obstacleKinds) {
            makeObstacle(obstacle, places.target);
            QCOMPARE(obstacle + tryMove(), obstacle + MovePlaces::kept(EEXIST));
            std::filesystem::remove_all(places.target);
        }
        QCOMPARE(tryMove(), MovePlaces::moved());
        reportRuns(std::size(obstacleKinds) + 1);
    }

    void throughTheEngine()
    {
        const int count = stressSize(50, 200);
        const EngineOutput output;
        std::vector<WatchedFolder> folders;
        for (const auto& [from, into] : directions) {
            makeFolder(inboxOf(from, into));
            makeFolder(outOf(from, into));
            folders.push_back(watched(inboxOf(from, into), {takeAll(outOf(from, into))}));
        }
        DownloadImageRedirector engine;
        QVERIFY(startAndWatch(engine, folders));
        const auto nameOf = [](int i) { return "/photo " + std::to_string(i) + ".jpg"; };
        for (int i = 0; i < count; ++i) {
            for (const auto& [from, into] : directions)
                writeFile(inboxOf(from, into) + nameOf(i), std::to_string(i));
        }
        for (const auto& [from, into] : directions) {
            const std::string out = outOf(from, into);
            // The sources are removed last. Until then staging directories count as names of `out`.
            QTRY_COMPARE_WITH_TIMEOUT(namesIn(inboxOf(from, into)), QByteArrayList(), patience);
            QCOMPARE(namesIn(out).size(), qsizetype(count));
            for (int i = 0; i < count; ++i)
                QCOMPARE(contents(out + nameOf(i)), QByteArray::number(i));
        }
        reportRuns(directions.size() * size_t(count));
    }

    // The kernel does not report these files, as if another computer wrote them. FUSE caches the size of a
    // file for one second, longer than both samples take.
    void filesWrittenByOthersAreNoticed()
    {
        const EngineOutput output;
        const std::string inbox = m_mounted + "/inbox";
        const std::string out = m_here->makeFolder("out");
        const std::string growing = m_real + "/inbox/film.mp4";
        makeFolder(inbox);
        DownloadImageRedirector engine;
        QVERIFY(startAndWatch(engine, {watched(inbox, {takeAll(out)})}));
        {
            const GrowingFiles writer({growing});
            for (const char* name : {"/first.jpg", "/second.jpg"}) {
                m_here->arrive(m_real + "/inbox" + name, "content");
                QTRY_COMPARE_WITH_TIMEOUT(contents(out + name), QByteArray("content"), patience);
            }
            QTRY_COMPARE_WITH_TIMEOUT(countMessages(engine, QStringLiteral("Skipped busy file: film.mp4")), 1,
                                      patience);
        }
        // The sources are removed last.
        QTRY_COMPARE_WITH_TIMEOUT(namesIn(m_real + "/inbox"), QByteArrayList{"film.mp4"}, patience);
        QCOMPARE(namesIn(out), (QByteArrayList{"first.jpg", "second.jpg"}));
    }

    void aKilledServerAffectsNothingElse()
    {
        const EngineOutput output;
        const std::string remote = m_mounted + "/inbox";
        const std::string remoteOut = m_mounted + "/out";
        const std::string local = m_here->makeFolder("local");
        const std::string out = m_here->makeFolder("local out");
        makeFolder(remote);
        makeFolder(remoteOut);
        Sentinel sentinel(*m_here, local);
        const std::vector<WatchedFolder> folders = {watched(remote, {takeAll(out)}),
                                                    watched(local, {sentinel.rule(), takeAll(remoteOut)})};
        DownloadImageRedirector engine;
        QVERIFY(startAndWatch(engine, folders));
        m_mount->killServer();
        m_here->arrive(local + "/photo.jpg", "content");
        QTRY_COMPARE_WITH_TIMEOUT(
            lastMessage(engine),
            QStringLiteral("Move failed for photo.jpg: Transport endpoint is not connected"), patience);
        QCOMPARE(contents(local + "/photo.jpg"), QByteArray("content"));
        QVERIFY(sentinel.passes(engine));

        m_mount.reset();
        m_mount = std::make_unique<FuseMount>(m_real, m_mounted);
        QVERIFY(restartAndWait(engine, folders));
        QVERIFY(watchesAll(engine, folders));
        m_here->arrive(m_real + "/inbox/film.mp4", "film");
        QTRY_COMPARE_WITH_TIMEOUT(contents(out + "/film.mp4"), QByteArray("film"), patience);
        m_here->arrive(local + "/other.jpg", "other");
        QTRY_COMPARE_WITH_TIMEOUT(contents(m_real + "/out/other.jpg"), QByteArray("other"), patience);
    }

private:
    [[nodiscard]] std::string folderFor(const QByteArray& side) const
    {
        return side == "inside" ? m_mounted : m_here->path();
    }
    [[nodiscard]] std::string inboxOf(const char* from, const char* into) const
    {
        return folderFor(from) + "/inbox to " + into;
    }
    [[nodiscard]] std::string outOf(const char* from, const char* into) const
    {
        return folderFor(into) + "/out from " + from;
    }

    /// Starts the engine and waits until it watches every folder. A folder on a server is watched soon after
    /// the start.
    [[nodiscard]] static bool startAndWatch(DownloadImageRedirector& engine,
                                            const std::vector<WatchedFolder>& folders)
    {
        return startAndWait(engine, folders) && watchesAll(engine, folders);
    }

    [[nodiscard]] static bool watchesAll(const DownloadImageRedirector& engine,
                                         const std::vector<WatchedFolder>& folders)
    {
        return QTest::qWaitFor([&] { return engine.activeFDs().size() == folders.size(); }, patience);
    }

    std::unique_ptr<ScratchFolder> m_here;
    std::unique_ptr<FuseMount> m_mount;
    std::string m_mounted;
    std::string m_real;
};

HARBEX_MAIN(TestForeignFileSystem)
{
    if (!FuseMount::isPossible(argc, argv)) return notPossibleHere;
    reportApartFromStandardOutput();
    return runTest<QCoreApplication, TestForeignFileSystem>(argc, argv);
}

#include "tst_ForeignFileSystem.moc"
