#include "files/FileMove.h"
#include "support/Attack.h"
#include "support/EngineOutput.h"
#include "support/EngineProbe.h"
#include "support/EntryPicture.h"
#include "support/GatedMove.h"

#include <QProcess>
#include <QStandardPaths>

#include <memory>

using namespace harbex;
using namespace harbex::test;

namespace
{

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
        QProcess process;
        process.setProcessChannelMode(QProcess::MergedChannels);
        // Ends when the file system is mounted, which goes on in the background.
        process.start(bindfs, {QStringLiteral("--no-allow-other"), QString::fromStdString(folder), m_place});
        if (!process.waitForFinished(patience) || process.exitCode() != 0)
            m_reason = QStringLiteral("no FUSE file system can be mounted: ") +
                       QString::fromUtf8(process.readAll()).simplified();
        m_isMounted = m_reason.isEmpty();
    }
    ~MirrorMount()
    {
        if (m_isMounted)
            QProcess::execute(QStringLiteral("fusermount"),
                              {QStringLiteral("-u"), QStringLiteral("-z"), m_place});
    }
    MirrorMount(const MirrorMount&) = delete;
    MirrorMount& operator=(const MirrorMount&) = delete;

    [[nodiscard]] const QString& reason() const { return m_reason; }

private:
    const QString m_place;
    QString m_reason;
    bool m_isMounted = false;
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

private:
    [[nodiscard]] std::string folderFor(const QString& side) const
    {
        return side == u"inside" ? m_mounted : m_here->path();
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
    if (!m_mount->reason().isEmpty()) QSKIP(qPrintable(m_mount->reason()));
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
    makeFolder(inbox);
    makeFolder(out);
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(inbox, {takeAll(out)})}));
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
    const std::string inbox = m_mounted + "/inbox";
    const std::string out = m_here->makeFolder("out");
    makeFolder(inbox);
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(inbox, {takeAll(out)})}));
    for (const char* name : {"/first.jpg", "/second.jpg"}) {
        m_here->arrive(m_real + "/inbox" + name, "content");
        QTRY_COMPARE_WITH_TIMEOUT(contents(out + name), QByteArray("content"), patience);
        QTRY_COMPARE_WITH_TIMEOUT(namesIn(m_real + "/inbox"), QByteArrayList(), patience);
    }
}

HARBEX_ENGINE_TEST_MAIN(TestForeignFileSystem)

#include "tst_ForeignFileSystem.moc"
