#include "fs/FileMove.h"
#include "support/EngineOutput.h"
#include "support/EngineProbe.h"
#include "support/EngineResources.h"
#include "support/MoveRound.h"
#include "support/TreeSnapshot.h"

#include <algorithm>
#include <cstring>
#include <linux/fs.h>
#include <memory>
#include <optional>
#include <sys/ioctl.h>
#include <sys/stat.h>

using namespace harbex;
using namespace harbex::test;

namespace
{

/// The flags of chattr(1) for the length of a scope.
class FileFlags
{
public:
    /// Not every file system has them, nor may everybody set them: hasSet() tells.
    FileFlags(std::string path, int flags) : m_path(std::move(path)) { m_hasSet = change(flags, true); }
    ~FileFlags()
    {
        if (m_hasSet && !change(FS_IMMUTABLE_FL | FS_APPEND_FL, false))
            qWarning("%s cannot be removed", m_path.c_str());
    }
    FileFlags(const FileFlags&) = delete;
    FileFlags& operator=(const FileFlags&) = delete;

    [[nodiscard]] bool hasSet() const { return m_hasSet; }

private:
    [[nodiscard]] bool change(int flags, bool on) const
    {
        const FileDescriptor file(::open(m_path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
        int now = 0;
        if (!file || ::ioctl(file.get(), FS_IOC_GETFLAGS, &now) != 0) return false;
        now = on ? now | flags : now & ~flags;
        return ::ioctl(file.get(), FS_IOC_SETFLAGS, &now) == 0;
    }

    const std::string m_path;
    bool m_hasSet = false;
};

/// How a move ended.
struct Trial {
    int error = 0;
    /// The calls besides the first rename by which it tried to make or change something.
    QByteArrayList made;
};

Trial tryMove(const std::string& source, const std::string& target, bool asOrdinaryUser)
{
    Trial trial;
    const auto work = [&] {
        if (asOrdinaryUser) becomeOrdinary();
        return FileMove().moveItem(source, target);
    };
    trial.error = runIntercepted(fileSystemCalls(), work, [&trial](const InterceptedCall& call) {
                      if (!onlyReads(call) && call.name != "renameat2")
                          trial.made << QByteArray::fromStdString(call.label());
                      return Answer::proceed();
                  }).error;
    return trial;
}

void addRowsOfEntries()
{
    QTest::addColumn<QByteArray>("kind");
    QTest::addColumn<bool>("acrossVolumes");
    for (const char* kind : {"file", "folder"}) {
        for (const bool acrossVolumes : {false, true})
            QTest::addRow("%s, %s", kind, acrossVolumes ? "across volumes" : "same volume")
                << QByteArray(kind) << acrossVolumes;
    }
}

} // namespace

/// Entries that may not leave and folders that may not be entered: the move fails with the reason of the
/// system, and nothing is copied instead.
class TestForbidden : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();

    void foldersClosedByTheirMode_data();
    void foldersClosedByTheirMode();
    void stickyFoldersOfOthers_data() { addRowsOfEntries(); }
    void stickyFoldersOfOthers();
    void immutableEntries_data() { addRowsOfEntries(); }
    void immutableEntries();
    void appendOnlyEntries_data() { addRowsOfEntries(); }
    void appendOnlyEntries();
    void appendOnlyFolders_data() { addRowsOfEntries(); }
    void appendOnlyFolders();
    void immutableDestinations_data() { addRowsOfEntries(); }
    void immutableDestinations();
    void theLogNamesTheReason_data();
    void theLogNamesTheReason();

private:
    void makeSource(const QByteArray& kind) const;
    void openAll() const;
    [[nodiscard]] std::string target() const { return m_out + "/entry"; }
    /// `tries` is how often something may be tried to be made.
    void expectRefused(const Trial& trial, const std::vector<int>& expected, qsizetype tries = 0) const;
    void tryWithFlags(const std::string& path, int flags, qsizetype tries = 0);

    std::unique_ptr<ScratchFolder> m_here;
    std::unique_ptr<ScratchFolder> m_there;
    std::string m_in;
    std::string m_out;
    std::string m_source;
    QByteArray m_before;
};

void TestForbidden::init()
{
    QFETCH(const bool, acrossVolumes);
    QFETCH(const QByteArray, kind);
    m_here = std::make_unique<ScratchFolder>();
    m_there = std::make_unique<ScratchFolder>(acrossVolumes ? folderOnAnotherVolume() : std::string());
    m_in = m_here->makeFolder("in");
    m_out = m_there->makeFolder("out");
    m_source = m_in + "/entry";
    makeSource(kind);
    for (const std::string& folder : {m_here->path(), m_there->path(), m_in, m_out})
        QCOMPARE(::chmod(folder.c_str(), 0777), 0);
    m_before = pictureOf(m_source);
}

void TestForbidden::makeSource(const QByteArray& kind) const
{
    if (kind == "file") writeFile(m_source, "content");
    if (kind == "folder") {
        makeFolder(m_source);
        writeFile(m_source + "/file", "content");
    }
    if (::geteuid() != 0) return;
    // Its owner is the one who moves.
    constexpr uid_t nobody = 65534;
    QCOMPARE(::chown(m_source.c_str(), nobody, nobody), 0);
    if (kind == "folder") QCOMPARE(::chown((m_source + "/file").c_str(), nobody, nobody), 0);
}

void TestForbidden::openAll() const
{
    QCOMPARE(::chmod(m_in.c_str(), 0777), 0);
    QCOMPARE(::chmod(m_out.c_str(), 0777), 0);
}

void TestForbidden::expectRefused(const Trial& trial, const std::vector<int>& expected, qsizetype tries) const
{
    QVERIFY2(std::ranges::find(expected, trial.error) != expected.end(), std::strerror(trial.error));
    QVERIFY2(trial.made.size() <= tries, trial.made.join(", ").constData());
    QCOMPARE(pictureOf(m_source), m_before);
    QCOMPARE(namesIn(m_out), QByteArrayList());
}

void TestForbidden::foldersClosedByTheirMode_data()
{
    QTest::addColumn<QByteArray>("kind");
    QTest::addColumn<bool>("acrossVolumes");
    QTest::addColumn<int>("inMode");
    QTest::addColumn<int>("outMode");
    for (const char* kind : {"file", "folder"}) {
        for (const bool acrossVolumes : {false, true}) {
            const auto add = [&](const char* what, int inMode, int outMode) {
                QTest::addRow("%s, %s, %s", kind, acrossVolumes ? "across volumes" : "same volume", what)
                    << QByteArray(kind) << acrossVolumes << inMode << outMode;
            };
            add("source read-only", 0555, 0777);
            add("source without search", 0666, 0777);
            add("source closed", 0, 0777);
            add("destination read-only", 0777, 0555);
            add("destination without search", 0777, 0666);
            add("destination closed", 0777, 0);
            // A rename needs no more than that.
            if (acrossVolumes) add("destination that cannot be listed", 0777, 0333);
        }
    }
}

void TestForbidden::foldersClosedByTheirMode()
{
    QFETCH(const int, inMode);
    QFETCH(const int, outMode);
    QCOMPARE(::chmod(m_in.c_str(), mode_t(inMode)), 0);
    QCOMPARE(::chmod(m_out.c_str(), mode_t(outMode)), 0);
    const Trial trial = tryMove(m_source, target(), true);
    openAll();
    // That a destination may not be written to is what the first try to make something there tells.
    QFETCH(const bool, acrossVolumes);
    expectRefused(trial, {EACCES}, acrossVolumes && outMode == 0555 ? 1 : 0);
}

void TestForbidden::stickyFoldersOfOthers()
{
    if (::geteuid() != 0) QSKIP("only root can make files of another user");
    // Neither the folder nor the entry is the mover's.
    QCOMPARE(::chown(m_source.c_str(), 12345, 12345), 0);
    QCOMPARE(::chmod(m_source.c_str(), 0777), 0);
    QCOMPARE(::chmod(m_in.c_str(), 01777), 0);
    m_before = pictureOf(m_source);
    expectRefused(tryMove(m_source, target(), true), {EPERM, EACCES});

    // Its own entry it may take out of there.
    QCOMPARE(::chown(m_source.c_str(), 65534, 65534), 0);
    QCOMPARE(tryMove(m_source, target(), true).error, 0);
    QVERIFY(!exists(m_source) && exists(target()));
}

void TestForbidden::tryWithFlags(const std::string& path, int flags, qsizetype tries)
{
    {
        const FileFlags set(path, flags);
        if (!set.hasSet()) QSKIP("this file system, or this user, cannot set the flags of chattr");
        expectRefused(tryMove(m_source, target(), false), {EPERM}, tries);
        if (QTest::currentTestFailed()) return;
    }
    QCOMPARE(errorOfMove(m_source, target()), 0);
    QVERIFY(!exists(m_source) && exists(target()));
}

void TestForbidden::immutableEntries()
{
    tryWithFlags(m_source, FS_IMMUTABLE_FL);
}

void TestForbidden::appendOnlyEntries()
{
    tryWithFlags(m_source, FS_APPEND_FL);
}

void TestForbidden::appendOnlyFolders()
{
    tryWithFlags(m_in, FS_APPEND_FL);
}

void TestForbidden::immutableDestinations()
{
    QFETCH(const bool, acrossVolumes);
    tryWithFlags(m_out, FS_IMMUTABLE_FL, acrossVolumes ? 1 : 0);
}

void TestForbidden::theLogNamesTheReason_data()
{
    QTest::addColumn<QByteArray>("kind");
    QTest::addColumn<bool>("acrossVolumes");
    QTest::addColumn<QString>("hindrance");
    const auto add = [](const char* kind, bool acrossVolumes, const char* hindrance) {
        QTest::addRow("%s, %s, %s", hindrance, kind, acrossVolumes ? "across volumes" : "same volume")
            << QByteArray(kind) << acrossVolumes << QString::fromUtf8(hindrance);
    };
    for (const bool acrossVolumes : {false, true}) {
        for (const char* hindrance : {"sticky folder of others", "append-only folder",
                                      "immutable destination", "destination without search"})
            add("file", acrossVolumes, hindrance);
    }
    for (const char* hindrance : {"immutable file in it", "append-only file in it"})
        add("folder", true, hindrance);
}

void TestForbidden::theLogNamesTheReason()
{
    QFETCH(const QString, hindrance);
    const std::string prepared = m_here->path() + "/entry";
    renameEntry(m_source, prepared);
    int expected = EPERM;
    std::optional<FileFlags> flags;
    if (hindrance == u"sticky folder of others") {
        if (::geteuid() != 0) QSKIP("only root can make files of another user");
        QCOMPARE(::chown(prepared.c_str(), 12345, 12345), 0);
        QCOMPARE(::chown(m_in.c_str(), 12345, 12345), 0);
        QCOMPARE(::chmod(m_in.c_str(), 01777), 0);
    }
    // Who moves it is not root here, but owns it.
    if (hindrance.endsWith(u"in it")) {
        QCOMPARE(::chown(prepared.c_str(), ::geteuid(), ::getegid()), 0);
        QCOMPARE(::chown((prepared + "/file").c_str(), ::geteuid(), ::getegid()), 0);
    }
    if (hindrance == u"append-only folder") flags.emplace(m_in, FS_APPEND_FL);
    if (hindrance == u"immutable destination") flags.emplace(m_out, FS_IMMUTABLE_FL);
    if (hindrance == u"immutable file in it") flags.emplace(prepared + "/file", FS_IMMUTABLE_FL);
    if (hindrance == u"append-only file in it") flags.emplace(prepared + "/file", FS_APPEND_FL);
    if (flags && !flags->hasSet()) QSKIP("this file system, or this user, cannot set the flags of chattr");
    if (hindrance == u"destination without search") {
        QCOMPARE(::chmod(m_out.c_str(), 0666), 0);
        expected = EACCES;
    }
    m_before = pictureOf(prepared);
    {
        const EngineOutput output;
        const WithoutPrivileges ordinary;
        DownloadImageRedirector engine;
        QVERIFY(startAndWait(engine, {watched(m_in, {takeAll(m_out)})}));
        renameEntry(prepared, m_source);
        QTRY_COMPARE_WITH_TIMEOUT(lastMessage(engine),
                                  QStringLiteral("Move failed for entry: ") +
                                      QString::fromStdString(SystemError{expected}.description()),
                                  patience);
    }
    if (!flags) openAll();
    expectRefused({expected, {}}, {expected});
    // Where it can be made changeable again.
    if (flags && hindrance.endsWith(u"in it")) renameEntry(m_source, prepared);
}

HARBEX_ENGINE_TEST_MAIN(TestForbidden)

#include "tst_Forbidden.moc"
