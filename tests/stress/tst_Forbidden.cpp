#include "support/EngineOutput.h"
#include "support/EngineProbe.h"
#include "support/EngineResources.h"
#include "support/MoveFixture.h"

#include <linux/fs.h>
#include <optional>
#include <sys/ioctl.h>
#include <sys/stat.h>

using namespace harbex;
using namespace harbex::test;

namespace
{

/// Sets flags of chattr(1) until the end of the scope.
class FileFlags
{
public:
    /// Fails if the file system has no flags, or if the user may not set them. See hasSet().
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

void addColumns()
{
    QTest::addColumn<QByteArray>("kind");
    QTest::addColumn<bool>("acrossVolumes");
}

/// Calls `add` with each kind of entry, whether it moves to another volume, and a text for both.
void forEachEntry(const std::function<void(const char* kind, bool acrossVolumes, const char* text)>& add)
{
    add("file", false, "file, same volume");
    add("file", true, "file, across volumes");
    add("folder", false, "folder, same volume");
    add("folder", true, "folder, across volumes");
}

} // namespace

/// Entries that may not be moved, and folders that may not be changed. The move fails with the error of the
/// system and copies nothing.
class TestForbidden : public QObject, private MovePlaces
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        QFETCH(const bool, acrossVolumes);
        QFETCH(const QByteArray, kind);
        makePlaces(acrossVolumes ? folderOnAnotherVolume() : std::string());
        makeObstacle(kind == "folder" ? "full folder" : "file", source);
        openToAll();
        // The user who moves the entry owns it.
        if (::geteuid() == 0) giveTo(nobody);
    }

    void closedFolders_data()
    {
        addColumns();
        QTest::addColumn<int>("inMode");
        QTest::addColumn<int>("outMode");
        forEachEntry([](const char* kind, bool acrossVolumes, const char* text) {
            const auto add = [=](const char* what, int inMode, int outMode) {
                QTest::addRow("%s, %s", text, what) << QByteArray(kind) << acrossVolumes << inMode << outMode;
            };
            add("source read-only", 0555, 0777);
            add("source without search", 0666, 0777);
            add("source closed", 0, 0777);
            add("destination read-only", 0777, 0555);
            add("destination without search", 0777, 0666);
            add("destination closed", 0777, 0);
            // A rename does not need to list.
            if (acrossVolumes) add("destination that cannot be listed", 0777, 0333);
        });
    }

    void closedFolders()
    {
        QFETCH(const bool, acrossVolumes);
        QFETCH(const int, inMode);
        QFETCH(const int, outMode);
        remember();
        QCOMPARE(::chmod(in.c_str(), mode_t(inMode)), 0);
        QCOMPARE(::chmod(out.c_str(), mode_t(outMode)), 0);
        const int error = moveWithoutPrivileges(noteChanges());
        openToAll();
        QCOMPARE(result(error), kept(EACCES));
        // Only the first attempt to create something shows that a destination is read-only.
        QVERIFY2(m_changes.size() <= (acrossVolumes && outMode == 0555 ? 1 : 0), changes());
    }

    void stickyFoldersOfOthers_data()
    {
        addColumns();
        forEachEntry([](const char* kind, bool acrossVolumes, const char* text) {
            QTest::newRow(text) << QByteArray(kind) << acrossVolumes;
        });
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
        QVERIFY2(m_changes.isEmpty(), changes());

        // A user can move an own entry out of a sticky folder.
        giveTo(nobody);
        QCOMPARE(moveWithoutPrivileges(), 0);
        QVERIFY(!exists(source) && exists(target));
    }

    void fileFlags_data()
    {
        addColumns();
        QTest::addColumn<QByteArray>("place");
        QTest::addColumn<int>("flags");
        forEachEntry([](const char* kind, bool acrossVolumes, const char* text) {
            const auto add = [=](const char* what, const char* place, int flags) {
                QTest::addRow("%s, %s", what, text)
                    << QByteArray(kind) << acrossVolumes << QByteArray(place) << flags;
            };
            add("immutable entry", "source", FS_IMMUTABLE_FL);
            add("append-only entry", "source", FS_APPEND_FL);
            add("append-only folder", "in", FS_APPEND_FL);
            add("immutable destination", "out", FS_IMMUTABLE_FL);
        });
    }

    void fileFlags()
    {
        QFETCH(const bool, acrossVolumes);
        QFETCH(const QByteArray, place);
        QFETCH(const int, flags);
        {
            const FileFlags set(place == "source" ? source : place == "in" ? in : out, flags);
            if (!set.hasSet()) QSKIP("this file system, or this user, cannot set the flags of chattr");
            QCOMPARE(move(noteChanges()), kept(EPERM));
            QVERIFY2(m_changes.size() <= (acrossVolumes && place == "out" ? 1 : 0), changes());
        }
        QCOMPARE(move(), moved());
    }

    void theLogNamesTheReason_data()
    {
        addColumns();
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

    void theLogNamesTheReason()
    {
        QFETCH(const QString, hindrance);
        int expected = EPERM;
        std::optional<FileFlags> flags;
        if (hindrance == u"sticky folder of others") {
            if (::geteuid() != 0) QSKIP("only root can make files of another user");
            giveTo(12345);
            QCOMPARE(::chown(in.c_str(), 12345, 12345), 0);
            QCOMPARE(::chmod(in.c_str(), 01777), 0);
        }
        // The user who moves the folder owns it, but has no root privileges.
        if (hindrance.endsWith(u"in it") && ::geteuid() == 0) giveTo(0);
        if (hindrance == u"immutable file in it") flags.emplace(source + "/inside", FS_IMMUTABLE_FL);
        if (hindrance == u"append-only file in it") flags.emplace(source + "/inside", FS_APPEND_FL);
        remember();
        const std::string prepared = here() + "/prepared";
        renameEntry(source, prepared);
        if (hindrance == u"append-only folder") flags.emplace(in, FS_APPEND_FL);
        if (hindrance == u"immutable destination") flags.emplace(out, FS_IMMUTABLE_FL);
        if (flags && !flags->hasSet())
            QSKIP("this file system, or this user, cannot set the flags of chattr");
        if (hindrance == u"destination without search") {
            QCOMPARE(::chmod(out.c_str(), 0666), 0);
            expected = EACCES;
        }
        {
            const EngineOutput output;
            const WithoutPrivileges ordinary;
            DownloadImageRedirector engine;
            QVERIFY(startAndWait(engine, {watched(in, {takeAll(out)})}));
            renameEntry(prepared, source);
            QTRY_COMPARE_WITH_TIMEOUT(lastMessage(engine),
                                      QStringLiteral("Move failed for source: ") +
                                          QString::fromStdString(SystemError{expected}.description()),
                                      patience);
        }
        if (!flags) openToAll();
        QCOMPARE(result(expected), kept(expected));
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

    [[nodiscard]] const char* changes()
    {
        m_text = m_changes.join(", ");
        return m_text.constData();
    }

    QByteArrayList m_changes;
    QByteArray m_text;
};

HARBEX_ENGINE_TEST(TestForbidden)

#include "tst_Forbidden.moc"
