#include "support/MoveFixture.h"
#include "support/TestMain.h"

#include <QScopeGuard>

#include <linux/fs.h>
#include <map>
#include <sys/ioctl.h>
#include <sys/stat.h>

using namespace harbex;
using namespace harbex::test;

namespace
{

/// Sets or removes flags of chattr(1). Returns false if the file system has no flags, or if the user may not
/// change them.
bool changeFlags(const std::string& path, int flags, bool on)
{
    const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    int now = 0;
    if (!file || ::ioctl(file.get(), FS_IOC_GETFLAGS, &now) != 0) return false;
    now = on ? now | flags : now & ~flags;
    return ::ioctl(file.get(), FS_IOC_SETFLAGS, &now) == 0;
}

} // namespace

/// Entries that may not be moved, and folders that may not be changed. The move fails with the error of the
/// system and copies nothing.
class TestForbidden : public QObject, private MovePlaces
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase_data()
    {
        QTest::addColumn<bool>("isFolder");
        QTest::addColumn<bool>("acrossVolumes");
        QTest::newRow("file, same volume") << false << false;
        QTest::newRow("file, across volumes") << false << true;
        QTest::newRow("folder, same volume") << true << false;
        QTest::newRow("folder, across volumes") << true << true;
    }

    void init()
    {
        QFETCH_GLOBAL(const bool, isFolder);
        QFETCH_GLOBAL(const bool, acrossVolumes);
        makePlaces(acrossVolumes ? folderOnAnotherVolume() : std::string());
        makeObstacle(isFolder ? "full folder" : "file", source);
        openToAll();
        // The user who moves the entry owns it.
        if (::geteuid() == 0) giveTo(nobody);
    }

    void closedFolders()
    {
        QFETCH_GLOBAL(const bool, acrossVolumes);
        remember();
        const auto moveWith = [this](mode_t inMode, mode_t outMode) {
            if (::chmod(in.c_str(), inMode) != 0 || ::chmod(out.c_str(), outMode) != 0)
                qFatal("no permissions");
            const int error = moveWithoutPrivileges(noteChanges());
            openToAll();
            return result(error);
        };
        for (const mode_t mode : {0555U, 0666U, 0U}) {
            QCOMPARE(moveWith(mode, 0777), kept(EACCES));
            QCOMPARE(m_changes, QByteArrayList());
            QCOMPARE(moveWith(0777, mode), kept(EACCES));
            // Only the first attempt to create something shows that a destination is read-only.
            QVERIFY2(m_changes.size() <= (acrossVolumes && mode == 0555 ? 1 : 0),
                     m_changes.join(", ").constData());
        }
        // A rename does not need to list.
        QCOMPARE(moveWith(0777, 0333), acrossVolumes ? kept(EACCES) : moved());
        QCOMPARE(m_changes, QByteArrayList());
    }

    void stickyFoldersOfOthers()
    {
        if (::geteuid() != 0) QSKIP("only root can make files of another user");
        // The user who moves owns neither the folder nor the entry.
        giveTo(12345);
        QCOMPARE(::chmod(source.c_str(), 0777), 0);
        QCOMPARE(::chmod(in.c_str(), 01777), 0);
        remember();
        const int error = moveWithoutPrivileges(noteChanges());
        QVERIFY(error == EPERM || error == EACCES);
        QCOMPARE(result(error), kept(error));
        QCOMPARE(m_changes, QByteArrayList());

        // A user can move an own entry out of a sticky folder.
        giveTo(nobody);
        QCOMPARE(moveWithoutPrivileges(), 0);
        QVERIFY(!exists(source) && exists(target));
    }

    void fileFlags_data()
    {
        QTest::addColumn<QByteArray>("place");
        QTest::addColumn<int>("flags");
        QTest::newRow("immutable entry") << QByteArray("source") << FS_IMMUTABLE_FL;
        QTest::newRow("append-only entry") << QByteArray("source") << FS_APPEND_FL;
        QTest::newRow("immutable file in it") << QByteArray("inside") << FS_IMMUTABLE_FL;
        QTest::newRow("append-only file in it") << QByteArray("inside") << FS_APPEND_FL;
        QTest::newRow("append-only folder") << QByteArray("in") << FS_APPEND_FL;
        QTest::newRow("immutable destination") << QByteArray("out") << FS_IMMUTABLE_FL;
    }

    void fileFlags()
    {
        QFETCH_GLOBAL(const bool, isFolder);
        QFETCH_GLOBAL(const bool, acrossVolumes);
        QFETCH(const QByteArray, place);
        QFETCH(const int, flags);
        // A rename does not change what is in a folder.
        if (place == "inside" && !(isFolder && acrossVolumes)) return;
        const std::map<QByteArray, std::string> paths = {
            {"source", source}, {"inside", source + "/inside"}, {"in", in}, {"out", out}};
        {
            if (!changeFlags(paths.at(place), flags, true))
                QSKIP("this file system, or this user, cannot set the flags of chattr");
            // Otherwise the folder cannot be removed.
            const auto reset = qScopeGuard([&] { changeFlags(paths.at(place), flags, false); });
            QCOMPARE(move(noteChanges()), kept(EPERM));
            QVERIFY2(m_changes.size() <= (acrossVolumes && place == "out" ? 1 : 0),
                     m_changes.join(", ").constData());
        }
        QCOMPARE(move(), moved());
    }

private:
    static constexpr uid_t nobody = 65534;

    void giveTo(uid_t user) const
    {
        for (const std::string& path : {source, source + "/inside"})
            if (exists(path)) QCOMPARE(::chown(path.c_str(), user, user), 0);
    }

    /// Returns an interceptor that records the calls that change something, except the attempt to rename.
    Interceptor noteChanges()
    {
        m_changes.clear();
        return [this](const InterceptedCall& call) {
            if (!onlyReads(call) && call.name != "renameat2")
                m_changes << QByteArray::fromStdString(call.label());
            return Answer::proceed();
        };
    }

    QByteArrayList m_changes;
};

HARBEX_TEST(TestForbidden)

#include "tst_Forbidden.moc"
