#include "fs/FileMove.h"
#include "support/EngineOutput.h"
#include "support/EngineProbe.h"
#include "support/InterceptedMove.h"
#include "support/PrivateMounts.h"
#include "support/Stress.h"
#include "support/TreeSnapshot.h"

#include <QProcess>
#include <QStandardPaths>

#include <chrono>
#include <cstdio>
#include <linux/magic.h>
#include <memory>
#include <sys/vfs.h>
#include <thread>

using namespace harbex;
using namespace harbex::test;

namespace
{

bool isServed(const std::string& folder)
{
    struct statfs volume = {};
    return ::statfs(folder.c_str(), &volume) == 0 && volume.f_type == FUSE_SUPER_MAGIC;
}

/// A folder seen through a file system that runs as an ordinary program (FUSE): bindfs of Debian.
class MirrorMount
{
public:
    /// Shows `folder` at `place`. Where that is impossible, reason() says why.
    MirrorMount(const std::string& folder, const std::string& place) : m_place(QString::fromStdString(place))
    {
        const QString bindfs = QStandardPaths::findExecutable(QStringLiteral("bindfs"));
        if (bindfs.isEmpty()) {
            m_reason = QStringLiteral("bindfs is not installed");
            return;
        }
        m_server.setProcessChannelMode(QProcess::MergedChannels);
        m_server.start(bindfs, {QStringLiteral("-f"), QStringLiteral("--no-allow-other"),
                                QString::fromStdString(folder), m_place});
        const bool isReady = QTest::qWaitFor(
            [&] { return m_server.state() == QProcess::NotRunning || isServed(place); }, patience);
        if (isReady && isServed(place)) return;
        m_reason = QStringLiteral("no FUSE file system can be mounted: ") +
                   QString::fromUtf8(m_server.readAll()).simplified();
    }
    ~MirrorMount()
    {
        if (!m_reason.isEmpty()) return;
        QProcess::execute(QStringLiteral("fusermount"),
                          {QStringLiteral("-u"), QStringLiteral("-z"), m_place});
        killServer();
    }
    MirrorMount(const MirrorMount&) = delete;
    MirrorMount& operator=(const MirrorMount&) = delete;

    [[nodiscard]] const QString& reason() const { return m_reason; }

    /// What is mounted stays so, and answers nothing any more.
    void killServer()
    {
        m_server.kill();
        m_server.waitForFinished(patience);
    }

private:
    const QString m_place;
    QString m_reason;
    QProcess m_server;
};

} // namespace

/// A real file system of another kind, in which what Linux can do in one step may be missing.
class TestForeignFileSystem : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup() { m_mount.reset(); }

    void moves_data();
    void moves();
    void nothingIsReplaced_data() { moves_data(); }
    void nothingIsReplaced();
    void throughTheEngine_data();
    void throughTheEngine();
    void whatOthersWriteIsNoticed();
    void whatOthersStillWriteIsSkipped();
    void aServerThatDiesHarmsNothingElse();

private:
    [[nodiscard]] std::string folderFor(const QString& side) const
    {
        return side == u"inside" ? m_mounted : m_here->path();
    }

    /// Starts the engine and waits until it watches every folder: one that a server has is watched soon after
    /// the start.
    [[nodiscard]] static bool startAndWatch(DownloadImageRedirector& engine,
                                            const std::vector<WatchedFolder>& folders)
    {
        return startAndWait(engine, folders) &&
               QTest::qWaitFor([&] { return engine.activeFDs().size() == folders.size(); }, patience);
    }

    /// Starts an engine that moves everything from one new folder into another.
    [[nodiscard]] static bool makeAndWatch(DownloadImageRedirector& engine, const std::string& inbox,
                                           const std::string& out)
    {
        makeFolder(inbox);
        makeFolder(out);
        return startAndWatch(engine, {watched(inbox, {takeAll(out)})});
    }

    std::unique_ptr<ScratchFolder> m_here;
    std::unique_ptr<MirrorMount> m_mount;
    std::string m_mounted;
    std::string m_real;
};

void TestForeignFileSystem::init()
{
    m_here = std::make_unique<ScratchFolder>();
    m_real = m_here->makeFolder("real");
    m_mounted = m_here->makeFolder("mounted");
    m_mount = std::make_unique<MirrorMount>(m_real, m_mounted);
    QCOMPARE(m_mount->reason(), QString());
}

void TestForeignFileSystem::moves_data()
{
    QTest::addColumn<QByteArray>("kind");
    QTest::addColumn<QString>("from");
    QTest::addColumn<QString>("into");
    for (const char* kind : {"file", "folder", "full folder", "link", "dangling link"}) {
        for (const auto& [from, into] :
             {std::pair{"inside", "inside"}, {"inside", "outside"}, {"outside", "inside"}})
            QTest::addRow("%s, from %s to %s", kind, from, into)
                << QByteArray(kind) << QString::fromUtf8(from) << QString::fromUtf8(into);
    }
}

void TestForeignFileSystem::moves()
{
    QFETCH(const QByteArray, kind);
    QFETCH(const QString, from);
    QFETCH(const QString, into);
    const std::string source = folderFor(from) + "/source";
    const std::string target = folderFor(into) + "/target";
    makeVictim(kind.toStdString(), source);
    const QByteArray before = pictureOf(source);
    QCOMPARE(errorOfMove(source, target), 0);
    QVERIFY(!exists(source));
    QCOMPARE(pictureOf(target), before);
    QCOMPARE(namesIn(m_real).size(), into == u"inside" ? 1 : 0);
}

void TestForeignFileSystem::nothingIsReplaced()
{
    QFETCH(const QByteArray, kind);
    QFETCH(const QString, from);
    QFETCH(const QString, into);
    const std::string source = folderFor(from) + "/source";
    const std::string target = folderFor(into) + "/target";
    for (const char* victim : victimKinds) {
        makeVictim(kind.toStdString(), source);
        makeVictim(victim, target);
        const QByteArray sourceBefore = pictureOf(source);
        const QByteArray before = pictureOf(target);
        QCOMPARE(errorOfMove(source, target), EEXIST);
        QCOMPARE(pictureOf(source), sourceBefore);
        QCOMPARE(pictureOf(target), before);
        for (const std::string& path : {source, target}) {
            if (exists(path + "/inside")) removeEntry(path + "/inside");
            removeEntry(path);
        }
    }
    reportRuns(std::size(victimKinds));
}

void TestForeignFileSystem::throughTheEngine_data()
{
    QTest::addColumn<QString>("from");
    QTest::addColumn<QString>("into");
    for (const auto& [from, into] :
         {std::pair{"inside", "inside"}, {"inside", "outside"}, {"outside", "inside"}})
        QTest::addRow("from %s to %s", from, into) << QString::fromUtf8(from) << QString::fromUtf8(into);
}

void TestForeignFileSystem::throughTheEngine()
{
    QFETCH(const QString, from);
    QFETCH(const QString, into);
    const EngineOutput output;
    const std::string inbox = folderFor(from) + "/inbox";
    const std::string out = folderFor(into) + "/out";
    DownloadImageRedirector engine;
    QVERIFY(makeAndWatch(engine, inbox, out));
    constexpr int count = 200;
    for (int i = 0; i < count; ++i)
        writeFile(inbox + "/photo " + std::to_string(i) + ".jpg", std::to_string(i));
    QTRY_COMPARE_WITH_TIMEOUT(namesIn(out).size(), qsizetype(count), patience);
    for (int i = 0; i < count; ++i)
        QCOMPARE(contents(out + "/photo " + std::to_string(i) + ".jpg"), QByteArray::number(i));
    QCOMPARE(namesIn(inbox), QByteArrayList());
    reportRuns(count);
}

// The kernel tells nothing of it: as when another computer does it.
void TestForeignFileSystem::whatOthersWriteIsNoticed()
{
    const EngineOutput output;
    const std::string out = m_here->path() + "/out";
    DownloadImageRedirector engine;
    QVERIFY(makeAndWatch(engine, m_mounted + "/inbox", out));
    for (const char* name : {"/first.jpg", "/second.jpg"}) {
        m_here->arrive(m_real + "/inbox" + name, "content");
        QTRY_COMPARE_WITH_TIMEOUT(contents(out + name), QByteArray("content"), patience);
        QTRY_COMPARE_WITH_TIMEOUT(namesIn(m_real + "/inbox"), QByteArrayList(), patience);
    }
}

// The size that was seen last is remembered for a second here, which is longer than both looks take.
void TestForeignFileSystem::whatOthersStillWriteIsSkipped()
{
    const EngineOutput output;
    const std::string out = m_here->path() + "/out";
    DownloadImageRedirector engine;
    QVERIFY(makeAndWatch(engine, m_mounted + "/inbox", out));
    const std::string real = m_real + "/inbox/film.mp4";
    std::jthread writer([&real](const std::stop_token& stop) {
        writeFile(real, "");
        while (!stop.stop_requested()) {
            if (!exists(real)) return;
            appendToFile(real, "more");
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    });
    QTRY_VERIFY_WITH_TIMEOUT(messages(engine).size() > 1, patience);
    QCOMPARE(lastMessage(engine), QStringLiteral("Skipped busy file: film.mp4"));
    writer.request_stop();
    writer.join();
    QVERIFY(exists(real));
    QCOMPARE(namesIn(out), QByteArrayList());
}

void TestForeignFileSystem::aServerThatDiesHarmsNothingElse()
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
        lastMessage(engine), QStringLiteral("Move failed for photo.jpg: Transport endpoint is not connected"),
        patience);
    QCOMPARE(contents(local + "/photo.jpg"), QByteArray("content"));
    QVERIFY(sentinel.passes(engine));

    m_mount.reset();
    m_mount = std::make_unique<MirrorMount>(m_real, m_mounted);
    QCOMPARE(m_mount->reason(), QString());
    QVERIFY(restartAndWait(engine, folders));
    m_here->arrive(m_real + "/inbox/film.mp4", "film");
    QTRY_COMPARE_WITH_TIMEOUT(contents(out + "/film.mp4"), QByteArray("film"), patience);
    m_here->arrive(local + "/other.jpg", "other");
    QTRY_COMPARE_WITH_TIMEOUT(contents(m_real + "/out/other.jpg"), QByteArray("other"), patience);
}

int main(int argc, char** argv)
{
    {
        const QCoreApplication application(argc, argv);
        const ScratchFolder here;
        const MirrorMount mount(here.makeFolder("real"), here.makeFolder("mounted"));
        if (!mount.reason().isEmpty()) {
            std::fprintf(stderr, "not possible here: %s\n", qPrintable(mount.reason()));
            return notPossibleHere;
        }
    }
    reportApartFromStandardOutput();
    return runTest<QCoreApplication, TestForeignFileSystem>(argc, argv);
}

#include "tst_ForeignFileSystem.moc"
