#include "support/InterceptedMove.h"
#include "support/TestMain.h"
#include "support/TreeSnapshot.h"

#include <array>
#include <cstring>
#include <memory>
#include <sys/xattr.h>
#include <unistd.h>

using namespace harbex;
using namespace harbex::test;

namespace
{

constexpr timespec accessed = {1'000'000'000, 123'456'789};
constexpr timespec modified = {1'234'567'890, 987'654'321};

void setTimes(const std::string& path)
{
    const std::array<timespec, 2> times = {accessed, modified};
    QCOMPARE(::utimensat(AT_FDCWD, path.c_str(), times.data(), AT_SYMLINK_NOFOLLOW), 0);
}

struct stat statusOf(const std::string& path)
{
    struct stat data = {};
    if (::lstat(path.c_str(), &data) != 0) qFatal("cannot look at %s", path.c_str());
    return data;
}

bool isSame(const timespec& a, const timespec& b)
{
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

/// The kernel's form of an access list that gives `user` and the group of the file rights of their own.
std::string accessList(uid_t user, unsigned short groupRights, unsigned short ownerRights = 7)
{
    struct Entry {
        unsigned short tag;
        unsigned short rights;
        unsigned id;
    };
    const std::array<Entry, 5> entries = {{{0x01, ownerRights, ~0U},
                                           {0x02, 6, user},
                                           {0x04, groupRights, ~0U},
                                           {0x10, 6, ~0U},
                                           {0x20, 0, ~0U}}};
    std::string bytes("\2\0\0\0", 4);
    bytes.append(reinterpret_cast<const char*>(entries.data()), sizeof entries);
    return bytes;
}

bool setAttribute(const std::string& path, const char* name, const std::string& value)
{
    return ::setxattr(path.c_str(), name, value.data(), value.size(), 0) == 0;
}

/// Whether the file system of `folder` holds what users can attach to files.
bool holdsAttributes(const std::string& folder)
{
    const ScratchFolder scratch(folder);
    return setAttribute(scratch.path(), "user.harbex", "1") &&
           setAttribute(scratch.path(), "system.posix_acl_default", accessList(1, 4));
}

std::string folderThatHoldsAttributes()
{
    for (const char* folder : {"/tmp", "/var/tmp", ".", "/dev/shm"}) {
        if (::access(folder, W_OK | X_OK) == 0 && holdsAttributes(folder)) return folder;
    }
    qFatal("no file system here that holds extended attributes and access lists");
}

} // namespace

/// What becomes of times, owner, permissions and attributes on the way to another volume: a real one, or,
/// where the test needs to know what the volume can hold, one file system and a kernel that says so.
class TestEntryAttributes : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void timesAndPermissionsOfAFile_data();
    void timesAndPermissionsOfAFile();
    void theOwnerIsKept();
    void attributesAndAccessLists_data();
    void attributesAndAccessLists();
    void inheritedAccessListsAreRemoved();
    void attributesThatTheTargetCannotHold();
    void anAccessListThatIsLostTakesTheGroupAlong();
    void attributesThatOnlyTheSystemMaySet();
    void namesThatCannotBeListed();
    void anAttributeThatGoesWhileItIsCopied();
    void attributesThatAreTooLarge();
    void anAttributeTooLargeForTheFileSystem();
    void attributesThatMayNotBeSetEndTheMove();
    void whatIsSetDuringTheCopy_data() { attributesAndAccessLists_data(); }
    void whatIsSetDuringTheCopy();
    void aFileThatNobodyMayWrite_data();
    void aFileThatNobodyMayWrite();
    void timesThatCannotBeKept_data();
    void timesThatCannotBeKept();
    void timesThatCannotBeWrittenEndTheMove();
    void anOwnerThatCannotBeKeptTakesTheSetUserBitAlong();
    void aForeignFolderBecomesOurs();

private:
    std::unique_ptr<ScratchFolder> m_here;
    std::unique_ptr<ScratchFolder> m_there;
    std::string m_source;
    std::string m_out;
    std::string m_target;
};

void TestEntryAttributes::init()
{
    m_here = std::make_unique<ScratchFolder>();
    m_there = std::make_unique<ScratchFolder>(folderOnAnotherVolume());
    m_source = m_here->makeFolder("in") + "/source.dat";
    m_out = m_there->makeFolder("out");
    m_target = m_out + "/target.dat";
}

void TestEntryAttributes::cleanup()
{
    m_here.reset();
    m_there.reset();
}

void TestEntryAttributes::timesAndPermissionsOfAFile_data()
{
    QTest::addColumn<int>("mode");
    for (const int mode : {0644, 0600, 0400, 0444, 0777, 0755, 06755, 01644, 0000})
        QTest::addRow("%o", mode) << mode;
}

void TestEntryAttributes::timesAndPermissionsOfAFile()
{
    QFETCH(const int, mode);
    if (mode == 0 && ::geteuid() != 0) QSKIP("only root may read a file without permissions");
    writeFile(m_source, "content");
    QCOMPARE(::chmod(m_source.c_str(), mode_t(mode)), 0);
    setTimes(m_source);
    QCOMPARE(errorOfMove(m_source, m_target), 0);
    const struct stat moved = statusOf(m_target);
    QCOMPARE(int(moved.st_mode & 07777), mode);
    QVERIFY(isSame(moved.st_mtim, modified));
    QVERIFY(isSame(moved.st_atim, accessed));
    QCOMPARE(contents(m_target), QByteArray("content"));
}

void TestEntryAttributes::theOwnerIsKept()
{
    if (::geteuid() != 0) QSKIP("only root gives files away");
    for (const char* kind : {"file", "link"}) {
        if (kind == std::string("file"))
            writeFile(m_source, "content");
        else
            makeLink(m_source, "nowhere");
        QCOMPARE(::lchown(m_source.c_str(), 12345, 54321), 0);
        // Given away, it has lost these bits.
        if (kind == std::string("file")) QCOMPARE(::chmod(m_source.c_str(), 06755), 0);
        const QByteArray before = pictureOf(m_source);
        QVERIFY(before.contains("owner 12345:54321"));
        QCOMPARE(errorOfMove(m_source, m_target), 0);
        QCOMPARE(pictureOf(m_target), before);
        removeEntry(m_target);
    }
}

void TestEntryAttributes::attributesAndAccessLists_data()
{
    QTest::addColumn<bool>("isFolder");
    QTest::addColumn<bool>("unnamedFiles");
    QTest::newRow("file") << false << true;
    QTest::newRow("file, no files without a name") << false << false;
    QTest::newRow("folder") << true << true;
}

void TestEntryAttributes::attributesAndAccessLists()
{
    QFETCH(const bool, isFolder);
    QFETCH(const bool, unnamedFiles);
    const ScratchFolder scratch(folderThatHoldsAttributes());
    const std::string source = scratch.path() + "/source";
    const std::string target = scratch.makeFolder("out") + "/target";
    if (isFolder)
        makeFolder(source);
    else
        writeFile(source, "content");
    QVERIFY(setAttribute(source, "user.empty", ""));
    QVERIFY(setAttribute(source, "user.name", "value"));
    QVERIFY(setAttribute(source, "user.bytes", std::string("\0\xff\n", 3)));
    QVERIFY(setAttribute(source, "user.long", std::string(2000, 'x')));
    QVERIFY(setAttribute(source, "system.posix_acl_access", accessList(12345, 0)));
    if (isFolder) QVERIFY(setAttribute(source, "system.posix_acl_default", accessList(54321, 4)));
    setTimes(source);
    const QByteArray before = pictureOf(source);
    QVERIFY(before.contains("user.long") && before.contains("posix_acl_access"));

    const InterceptedRun run = moveGated(source, target, Lacks{.unnamedFiles = !unnamedFiles}, crossing);
    QCOMPARE(run.error, 0);
    QCOMPARE(pictureOf(target), before);
    QVERIFY(!exists(source));
}

void TestEntryAttributes::inheritedAccessListsAreRemoved()
{
    const ScratchFolder scratch(folderThatHoldsAttributes());
    const std::string out = scratch.makeFolder("out");
    // It would keep even the owner out of a new folder.
    QVERIFY(setAttribute(out, "system.posix_acl_default", accessList(12345, 6, 6)));
    for (const char* kind : {"file", "folder"}) {
        const std::string source = scratch.path() + '/' + kind;
        const std::string target = out + '/' + kind;
        if (kind == std::string("file"))
            writeFile(source, "content");
        else
            makeFolder(source);
        const QByteArray before = pictureOf(source);
        QCOMPARE(moveGated(source, target, crossing).error, 0);
        QCOMPARE(pictureOf(target), before);
    }
}

void TestEntryAttributes::attributesThatTheTargetCannotHold()
{
    const ScratchFolder scratch(folderThatHoldsAttributes());
    const std::string source = scratch.path() + "/source";
    const std::string target = scratch.makeFolder("out") + "/target";
    writeFile(source, "content");
    QVERIFY(setAttribute(source, "user.name", "value"));
    setTimes(source);
    const InterceptedRun run = moveGated(source, target, [](const InterceptedCall& call) {
        const bool concernsAttributes = call.name == "fsetxattr" || call.name == "fremovexattr";
        return concernsAttributes ? Answer::fail(EOPNOTSUPP) : crossing(call);
    });
    QCOMPARE(run.error, 0);
    QCOMPARE(contents(target), QByteArray("content"));
    QVERIFY(isSame(statusOf(target).st_mtim, modified));
    QVERIFY(!exists(source));
}

// With a list the permissions of the group are its mask: without the list they would be a gift.
void TestEntryAttributes::anAccessListThatIsLostTakesTheGroupAlong()
{
    const ScratchFolder scratch(folderThatHoldsAttributes());
    const std::string source = scratch.path() + "/source";
    const std::string target = scratch.makeFolder("out") + "/target";
    writeFile(source, "content");
    QVERIFY(setAttribute(source, "system.posix_acl_access", accessList(12345, 0)));
    QCOMPARE(statusOf(source).st_mode & 0777, mode_t(0760));
    const InterceptedRun run = moveGated(source, target, [](const InterceptedCall& call) {
        return call.name == "fsetxattr" ? Answer::fail(EOPNOTSUPP) : crossing(call);
    });
    QCOMPARE(run.error, 0);
    QCOMPARE(statusOf(target).st_mode & 0777, mode_t(0700));
}

void TestEntryAttributes::attributesThatOnlyTheSystemMaySet()
{
    const ScratchFolder scratch(folderThatHoldsAttributes());
    const std::string source = scratch.path() + "/source";
    const std::string target = scratch.makeFolder("out") + "/target";
    writeFile(source, "content");
    // A list of one label, as a system with such labels gives it.
    const std::string names("security.label", 15);
    const auto keeper = [&](const InterceptedCall& call) {
        if (call.name == "flistxattr") {
            if (call.arguments[2] != 0) call.writeMemory(call.arguments[1], names);
            return Answer::give(int64_t(names.size()));
        }
        if (call.name == "fgetxattr") return Answer::give(0);
        return call.name == "fsetxattr" ? Answer::fail(EPERM) : crossing(call);
    };
    QCOMPARE(moveGated(source, target, keeper).error, 0);
    QCOMPARE(contents(target), QByteArray("content"));
    QVERIFY(!exists(source));
}

void TestEntryAttributes::namesThatCannotBeListed()
{
    for (const int error : {EOPNOTSUPP, ENOSYS}) {
        writeFile(m_source, "content");
        setTimes(m_source);
        const InterceptedRun run = moveGated(m_source, m_target, [error](const InterceptedCall& call) {
            return call.name == "flistxattr" ? Answer::fail(error) : Answer::proceed();
        });
        QCOMPARE(run.error, 0);
        QVERIFY(!exists(m_source));
        QCOMPARE(contents(m_target), QByteArray("content"));
        QVERIFY(isSame(statusOf(m_target).st_mtim, modified));
        removeEntry(m_target);
    }
}

void TestEntryAttributes::anAttributeThatGoesWhileItIsCopied()
{
    const ScratchFolder scratch(folderThatHoldsAttributes());
    const std::string source = scratch.path() + "/source";
    const std::string target = scratch.makeFolder("out") + "/target";
    writeFile(source, "content");
    QVERIFY(setAttribute(source, "user.name", "value"));
    bool isGone = false;
    const InterceptedRun run = moveGated(source, target, [&](const InterceptedCall& call) {
        if (call.name == "fgetxattr" && !isGone) isGone = ::removexattr(source.c_str(), "user.name") == 0;
        return crossing(call);
    });
    QVERIFY(isGone);
    QCOMPARE(run.error, 0);
    QVERIFY(!exists(source));
    QVERIFY(!pictureOf(target).contains("user.name"));
}

void TestEntryAttributes::attributesThatAreTooLarge()
{
    const ScratchFolder scratch(folderThatHoldsAttributes());
    const std::string source = scratch.path() + "/source";
    const std::string target = scratch.makeFolder("out") + "/target";
    for (const int error : {ENOSPC, EDQUOT, E2BIG, ERANGE}) {
        writeFile(source, "content");
        QVERIFY(setAttribute(source, "user.small", "1"));
        QVERIFY(setAttribute(source, "user.large", std::string(1000, 'x')));
        setTimes(source);
        const InterceptedRun run = moveGated(source, target, [error](const InterceptedCall& call) {
            const bool isLarge = call.name == "fsetxattr" && call.arguments[3] == 1000;
            return isLarge ? Answer::fail(error) : crossing(call);
        });
        QCOMPARE(run.error, 0);
        QVERIFY(!exists(source));
        const QByteArray moved = pictureOf(target);
        QVERIFY(moved.contains("user.small=31") && !moved.contains("user.large"));
        QVERIFY(isSame(statusOf(target).st_mtim, modified));
        QCOMPARE(contents(target), QByteArray("content"));
        removeEntry(target);
    }
}

// As a browser records the address that a file came from.
void TestEntryAttributes::anAttributeTooLargeForTheFileSystem()
{
    constexpr const char* name = "user.xdg.origin.url";
    std::string from;
    std::string into;
    std::string address;
    for (const size_t length : {size_t(6'000), size_t(60'000)}) {
        address.assign(length, 'x');
        for (const char* folder : {"/dev/shm", "/run/lock", "/var/tmp", "/tmp", "."}) {
            if (::access(folder, W_OK | X_OK) != 0 || !holdsAttributes(folder)) continue;
            const ScratchFolder scratch(folder);
            (setAttribute(scratch.path(), name, address) ? from : into) = folder;
        }
        if (!from.empty() && !into.empty()) break;
    }
    if (from.empty() || into.empty()) QSKIP("no two file systems that hold attributes of different sizes");
    const ScratchFolder here(from);
    const ScratchFolder there(into);
    for (const char* kind : {"file", "folder"}) {
        const std::string source = here.path() + '/' + kind;
        const std::string target = there.path() + '/' + kind;
        makeVictim(kind, source);
        QVERIFY(setAttribute(source, "user.small", "1"));
        QVERIFY(setAttribute(source, name, address));
        setTimes(source);
        QCOMPARE(errorOfMove(source, target), 0);
        QVERIFY(!exists(source));
        const QByteArray moved = pictureOf(target);
        QVERIFY(moved.contains("user.small=31") && !moved.contains(name));
        QVERIFY(isSame(statusOf(target).st_mtim, modified));
    }
}

void TestEntryAttributes::attributesThatMayNotBeSetEndTheMove()
{
    const ScratchFolder scratch(folderThatHoldsAttributes());
    const std::string source = scratch.path() + "/source";
    const std::string out = scratch.makeFolder("out");
    writeFile(source, "content");
    QVERIFY(setAttribute(source, "user.name", "value"));
    const QByteArray before = pictureOf(source);
    for (const int error : {EPERM, EACCES, EIO}) {
        const InterceptedRun run = moveGated(source, out + "/target", [error](const InterceptedCall& call) {
            return call.name == "fsetxattr" ? Answer::fail(error) : crossing(call);
        });
        QCOMPARE(run.error, error);
        QCOMPARE(pictureOf(source), before);
        QCOMPARE(namesIn(out), QByteArrayList());
    }
}

// As programs do that keep folders in step or make backups.
void TestEntryAttributes::whatIsSetDuringTheCopy()
{
    QFETCH(const bool, isFolder);
    QFETCH(const bool, unnamedFiles);
    const ScratchFolder scratch(folderThatHoldsAttributes());
    const std::string source = scratch.path() + "/source";
    const std::string target = scratch.makeFolder("out") + "/target";
    makeVictim(isFolder ? "full folder" : "file", source);
    QVERIFY(setAttribute(source, "user.kept", "value"));
    QVERIFY(setAttribute(source, "user.changed", "old"));
    QVERIFY(setAttribute(source, "user.removed", "value"));
    QVERIFY(setAttribute(source, "system.posix_acl_access", accessList(12345, 0)));
    if (isFolder) QVERIFY(setAttribute(source, "system.posix_acl_default", accessList(54321, 4)));
    setTimes(source);
    QByteArray changed;
    const auto change = [&] {
        QVERIFY(setAttribute(source, "user.changed", "new"));
        QVERIFY(setAttribute(source, "user.added", "value"));
        QCOMPARE(::removexattr(source.c_str(), "user.removed"), 0);
        QCOMPARE(::removexattr(source.c_str(), "system.posix_acl_access"), 0);
        if (isFolder) QCOMPARE(::removexattr(source.c_str(), "system.posix_acl_default"), 0);
        QCOMPARE(::chmod(source.c_str(), isFolder ? 0751 : 0444), 0);
        changed = pictureOf(source);
    };
    const InterceptedRun run =
        moveGated(source, target, Lacks{.unnamedFiles = !unnamedFiles}, [&](const InterceptedCall& call) {
            if (changed.isEmpty() && (call.name == "fsync" || call.name == "syncfs")) change();
            return crossing(call);
        });
    QCOMPARE(run.error, 0);
    QVERIFY(!exists(source));
    QVERIFY(changed.contains("user.added") && !changed.contains("posix_acl"));
    QCOMPARE(pictureOf(target), changed);
}

void TestEntryAttributes::aFileThatNobodyMayWrite_data()
{
    QTest::addColumn<bool>("unnamedFiles");
    QTest::newRow("files without a name") << true;
    QTest::newRow("no files without a name") << false;
}

// Its copy is one as well when what was set meanwhile is taken again, which needs the right to write.
void TestEntryAttributes::aFileThatNobodyMayWrite()
{
    QFETCH(const bool, unnamedFiles);
    const ScratchFolder scratch(folderThatHoldsAttributes());
    const std::string source = scratch.path() + "/source";
    const std::string out = scratch.makeFolder("out");
    const std::string target = out + "/target";
    writeFile(source, "content");
    for (const std::string& folder : {scratch.path(), out})
        QCOMPARE(::chmod(folder.c_str(), 0777), 0);
    QVERIFY(setAttribute(source, "user.name", "old"));
    QCOMPARE(::chmod(source.c_str(), 0444), 0);
    bool isSet = false;
    const InterceptedRun run = runIntercepted(
        fileSystemCalls(),
        [&] {
            becomeOrdinary();
            return FileMove().moveItem(source, target);
        },
        [&](const InterceptedCall& call) {
            if (!isSet && (call.name == "fsync" || call.name == "syncfs"))
                isSet = ::chmod(source.c_str(), 0644) == 0 && setAttribute(source, "user.name", "new") &&
                        ::chmod(source.c_str(), 0444) == 0;
            return Lacks{.unnamedFiles = !unnamedFiles}.refuses(call).value_or(crossing(call));
        });
    QCOMPARE(run.error, 0);
    QVERIFY(isSet && !exists(source));
    QVERIFY(pictureOf(target).contains("user.name=" + QByteArray("new").toHex()));
    QCOMPARE(statusOf(target).st_mode & 07777, mode_t(0444));
    QCOMPARE(contents(target), QByteArray("content"));
}

void TestEntryAttributes::timesThatCannotBeKept_data()
{
    QTest::addColumn<QByteArray>("kind");
    QTest::addColumn<int>("error");
    for (const char* kind : {"file", "full folder", "dangling link"}) {
        for (const int error : {ENOSYS, EOPNOTSUPP, EPERM, EINVAL})
            QTest::addRow("%s, %s", kind, strerrorname_np(error)) << QByteArray(kind) << error;
    }
}

void TestEntryAttributes::timesThatCannotBeKept()
{
    QFETCH(const QByteArray, kind);
    QFETCH(const int, error);
    makeVictim(kind.toStdString(), m_source);
    setTimes(m_source);
    if (exists(m_source + "/inside")) setTimes(m_source + "/inside");
    const QByteArray before = pictureOf(m_source);
    const InterceptedRun run = moveGated(m_source, m_target, [error](const InterceptedCall& call) {
        return call.name == "utimensat" ? Answer::fail(error) : Answer::proceed();
    });
    QCOMPARE(run.error, 0);
    QVERIFY(!exists(m_source));
    QVERIFY(!isSame(statusOf(m_target).st_mtim, modified));
    // Given the times, it is as it was in everything.
    if (exists(m_target + "/inside")) setTimes(m_target + "/inside");
    setTimes(m_target);
    QCOMPARE(pictureOf(m_target), before);
}

void TestEntryAttributes::timesThatCannotBeWrittenEndTheMove()
{
    writeFile(m_source, "content");
    const InterceptedRun run = moveGated(m_source, m_target, [](const InterceptedCall& call) {
        return call.name == "utimensat" ? Answer::fail(EIO) : Answer::proceed();
    });
    QCOMPARE(run.error, EIO);
    QCOMPARE(contents(m_source), QByteArray("content"));
    QCOMPARE(namesIn(m_out), QByteArrayList());
}

void TestEntryAttributes::anOwnerThatCannotBeKeptTakesTheSetUserBitAlong()
{
    writeFile(m_source, "content");
    QCOMPARE(::chmod(m_source.c_str(), 06755), 0);
    const InterceptedRun run = moveGated(m_source, m_target, [](const InterceptedCall& call) {
        return call.name == "fchownat" ? Answer::fail(EPERM) : Answer::proceed();
    });
    QCOMPARE(run.error, 0);
    QCOMPARE(statusOf(m_target).st_mode & 07777, mode_t(0755));
}

// The owner could read, write and enter it by the rights of others; as its owner those are not asked any
// more.
void TestEntryAttributes::aForeignFolderBecomesOurs()
{
    if (::geteuid() != 0) QSKIP("only root makes folders of somebody else");
    makeFolder(m_source);
    makeFolder(m_source + "/sub");
    writeFile(m_source + "/sub/file", "content");
    for (const std::string& folder : {m_here->path(), m_here->path() + "/in", m_there->path(), m_out})
        QCOMPARE(::chmod(folder.c_str(), 0777), 0);
    QCOMPARE(::chmod(m_source.c_str(), 0007), 0);
    QCOMPARE(::chmod((m_source + "/sub").c_str(), 02007), 0);
    const InterceptedRun run = runIntercepted(
        {"mkdirat"},
        [this] {
            becomeOrdinary();
            return FileMove().moveItem(m_source, m_target);
        },
        [](const InterceptedCall&) { return Answer::proceed(); });
    QCOMPARE(run.error, 0);
    QVERIFY(!exists(m_source));
    QCOMPARE(statusOf(m_target).st_mode & 07777, mode_t(0707));
    QCOMPARE(statusOf(m_target + "/sub").st_mode & 07777, mode_t(0707));
    QCOMPARE(statusOf(m_target).st_uid, uid_t(65534));
    QCOMPARE(contents(m_target + "/sub/file"), QByteArray("content"));
}

HARBEX_TEST_MAIN(TestEntryAttributes)

#include "tst_EntryAttributes.moc"
