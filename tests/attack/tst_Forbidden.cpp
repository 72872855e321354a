#include "files/FileMove.h"
#include "support/Attack.h"
#include "support/EntryPicture.h"
#include "support/GatedMove.h"
#include "support/TestMain.h"

#include <algorithm>
#include <cstring>
#include <linux/fs.h>
#include <memory>
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

/// Moves as an ordinary user, in a process of its own, and gives the errno.
int errorOfOrdinaryMove(const std::string& source, const std::string& target)
{
    return runGated(
               {"access"}, [&] { return becomeOrdinary(), FileMove().moveItem(source, target); },
               [](const GatedCall&) { return Answer::proceed(); })
        .error;
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

private:
    void makeSource(const QByteArray& kind) const;
    void openAll() const;
    [[nodiscard]] std::string target() const { return m_out + "/entry"; }
    void expectRefused(int error, const std::vector<int>& expected) const;
    void tryWithFlags(const std::string& path, int flags);

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

void TestForbidden::expectRefused(int error, const std::vector<int>& expected) const
{
    QVERIFY2(std::ranges::find(expected, error) != expected.end(), std::strerror(error));
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
        }
    }
}

void TestForbidden::foldersClosedByTheirMode()
{
    QFETCH(const int, inMode);
    QFETCH(const int, outMode);
    QCOMPARE(::chmod(m_in.c_str(), mode_t(inMode)), 0);
    QCOMPARE(::chmod(m_out.c_str(), mode_t(outMode)), 0);
    const int error = errorOfOrdinaryMove(m_source, target());
    openAll();
    expectRefused(error, {EACCES});
}

void TestForbidden::stickyFoldersOfOthers()
{
    if (::geteuid() != 0) QSKIP("only root can make files of another user");
    // Neither the folder nor the entry is the mover's.
    QCOMPARE(::chown(m_source.c_str(), 12345, 12345), 0);
    QCOMPARE(::chmod(m_source.c_str(), 0777), 0);
    QCOMPARE(::chmod(m_in.c_str(), 01777), 0);
    m_before = pictureOf(m_source);
    expectRefused(errorOfOrdinaryMove(m_source, target()), {EPERM, EACCES});

    // Its own entry it may take out of there.
    QCOMPARE(::chown(m_source.c_str(), 65534, 65534), 0);
    QCOMPARE(errorOfOrdinaryMove(m_source, target()), 0);
    QVERIFY(!exists(m_source) && exists(target()));
}

void TestForbidden::tryWithFlags(const std::string& path, int flags)
{
    {
        const FileFlags set(path, flags);
        if (!set.hasSet()) QSKIP("this file system, or this user, cannot set the flags of chattr");
        expectRefused(errorOfMove(m_source, target()), {EPERM});
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
    tryWithFlags(m_out, FS_IMMUTABLE_FL);
}

HARBEX_TEST_MAIN(TestForbidden)

#include "tst_Forbidden.moc"
