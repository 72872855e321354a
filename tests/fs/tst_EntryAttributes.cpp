#include "support/MoveFixture.h"
#include "support/TestMain.h"
#include "support/TreeSnapshot.h"

#include <array>
#include <cstring>
#include <functional>
#include <sys/xattr.h>
#include <unistd.h>
#include <utility>

using namespace harbex;
using namespace harbex::test;

namespace
{

bool isSame(const timespec& a, const timespec& b)
{
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

/// Returns the kernel's form of an ACL with entries for `user` and for the group of the file.
std::string acl(uid_t user, unsigned short groupRights, unsigned short ownerRights = 7)
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

/// Returns a folder whose file system supports extended attributes and ACLs.
std::string folderWithAttributes()
{
    for (const char* folder : {"/tmp", "/var/tmp", ".", "/dev/shm"}) {
        if (::access(folder, W_OK | X_OK) != 0) continue;
        const ScratchFolder scratch(folder);
        if (setAttribute(scratch.path(), "user.harbex", "1") &&
            setAttribute(scratch.path(), "system.posix_acl_default", acl(1, 4)))
            return folder;
    }
    qFatal("no file system here supports extended attributes and ACLs");
}

Interceptor failing(const std::string& name, int error)
{
    return
        [=](const InterceptedCall& call) { return call.name == name ? Answer::fail(error) : crossing(call); };
}

/// Simulates a system on which every file has the attribute `name`, with an empty value. A change of it
/// fails.
Interceptor withFixedAttribute(const std::string& name, int error)
{
    return [=](const InterceptedCall& call) {
        if (call.name == "fgetxattr") return Answer::give(0);
        const bool isChange = call.name == "fsetxattr" || call.name == "fremovexattr";
        if (isChange && call.text(1) == name) return Answer::fail(error);
        if (call.name != "flistxattr") return crossing(call);
        if (call.arguments[2] != 0) call.writeMemory(call.arguments[1], name + '\0');
        return Answer::give(int64_t(name.size() + 1));
    };
}

/// Calls `change` before the first sync, which is between the copy and the comparison with the source.
Interceptor changing(const std::function<void()>& change, const Interceptor& others = crossing)
{
    return [=, isChanged = false](const InterceptedCall& call) mutable {
        if (isSync(call) && !std::exchange(isChanged, true)) change();
        return others(call);
    };
}

} // namespace

/// Times, owner, permissions and attributes of an entry that is moved to another volume. The second volume is
/// real, or simulated where the test needs a file system that supports attributes.
class TestEntryAttributes : public QObject, private MovePlaces
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase_data()
    {
        QTest::addColumn<bool>("noUnnamedFiles");
        QTest::newRow("unnamed files") << false;
        QTest::newRow("no unnamed files") << true;
    }

    void init()
    {
        QFETCH_GLOBAL(const bool, noUnnamedFiles);
        lacks.unnamedFiles = noUnnamedFiles;
        makePlaces(folderWithAttributes(), folderWithAttributes());
    }

    void timesAndPermissionsOfAFile()
    {
        makePlaces(folderOnAnotherVolume());
        for (const mode_t mode : {0644U, 0600U, 0400U, 0444U, 0777U, 0755U, 06755U, 01644U, 0U}) {
            // Only root may read a file without permissions.
            if (mode == 0 && ::geteuid() != 0) continue;
            clearPlaces();
            writeFile(source, "content");
            QCOMPARE(::chmod(source.c_str(), mode), 0);
            setOldTimes(source);
            QCOMPARE(tryMove(), 0);
            const struct stat moved = statusOf(target);
            QCOMPARE(moved.st_mode & 07777, mode);
            QVERIFY(isSame(moved.st_mtim, oldModification));
            QVERIFY(isSame(moved.st_atim, oldAccess));
        }
    }

    void theOwnerIsKept()
    {
        if (::geteuid() != 0) QSKIP("only root gives files away");
        for (const char* kind : {"file", "dangling link"}) {
            makePlaces(folderOnAnotherVolume());
            makeObstacle(kind, source);
            QCOMPARE(::lchown(source.c_str(), 12345, 54321), 0);
            // The change of the owner has cleared these bits.
            if (kind == std::string("file")) QCOMPARE(::chmod(source.c_str(), 06755), 0);
            QVERIFY(snapshotOf(source).contains("owner 12345:54321"));
            QCOMPARE(move(), moved());
        }
    }

    void attributesAndAcls()
    {
        for (const char* kind : {"file", "folder"}) {
            clearPlaces();
            makeObstacle(kind, source);
            QVERIFY(setAttribute(source, "user.empty", ""));
            QVERIFY(setAttribute(source, "user.name", "value"));
            QVERIFY(setAttribute(source, "user.bytes", std::string("\0\xff\n", 3)));
            QVERIFY(setAttribute(source, "user.long", std::string(2000, 'x')));
            QVERIFY(setAttribute(source, "system.posix_acl_access", acl(12345, 0)));
            if (S_ISDIR(statusOf(source).st_mode))
                QVERIFY(setAttribute(source, "system.posix_acl_default", acl(54321, 4)));
            setOldTimes(source);
            const QByteArray before = snapshotOf(source);
            QVERIFY(before.contains("user.long") && before.contains("posix_acl_access"));
            QCOMPARE(move(crossing), moved());
        }
    }

    void inheritedAclsAreRemoved()
    {
        for (const char* kind : {"file", "folder"}) {
            init();
            // This ACL would deny even the owner access to a new folder.
            QVERIFY(setAttribute(out, "system.posix_acl_default", acl(12345, 6, 6)));
            makeObstacle(kind, source);
            QCOMPARE(move(crossing), moved());
        }
    }

    // The move omits what it cannot keep, also when it compares the copy a second time.
    void callsThatTheFileSystemLacks()
    {
        const auto check = [this](const std::string& name, int error) {
            clearPlaces();
            writeFile(source, "content");
            QVERIFY(setAttribute(source, "user.name", "value"));
            setOldTimes(source);
            int failures = 0;
            const auto lacking = [&](const InterceptedCall& call) {
                // The set-up of a staging directory does not accept ENOSYS.
                const std::string path = call.pathOfOpen(int(call.arguments[0]));
                const bool isStaging = path.ends_with(".part") && error == ENOSYS;
                if (call.name != name || isStaging) return crossing(call);
                ++failures;
                return Answer::fail(error);
            };
            const QByteArray where = QByteArray::fromStdString(name) + ' ' + strerrorname_np(error) + ": ";
            const auto touchSource = [this] { touch(source); };
            QCOMPARE(where + strerrorname_np(tryMove(changing(touchSource, lacking))), where + "0");
            QVERIFY2(failures > 0 && run.count("fsync") + run.count("syncfs") > 1, where);
            QVERIFY2(!exists(source), where);
            QCOMPARE(where + contents(target), where + "content");
            QVERIFY2(isSame(statusOf(target).st_mtim, oldModification), where);
            const bool hasAttribute = !where.contains("xattr") || name == "fremovexattr";
            QVERIFY2(snapshotOf(target).contains("user.name=") == hasAttribute, where);
        };
        for (const char* name :
             {"flistxattr", "fgetxattr", "fsetxattr", "fremovexattr", "fchmod", "fchmodat"})
            check(name, EOPNOTSUPP);
        for (const char* name : {"flistxattr", "fgetxattr", "fsetxattr", "fremovexattr", "fchmod"})
            check(name, ENOSYS);
        for (const char* name : {"fchmod", "fchmodat"})
            check(name, EPERM);
    }

    // The permissions of the group are the mask of the ACL. Without the ACL they would allow too much.
    void aLostAclClearsTheGroupPermissions()
    {
        writeFile(source, "content");
        QVERIFY(setAttribute(source, "system.posix_acl_access", acl(12345, 0)));
        QCOMPARE(statusOf(source).st_mode & 0777, mode_t(0760));
        QCOMPARE(tryMove(failing("fsetxattr", EOPNOTSUPP)), 0);
        QCOMPARE(statusOf(target).st_mode & 0777, mode_t(0700));
    }

    void attributesThatOnlyTheSystemMaySet()
    {
        for (const char* name : {"security.label", "trusted.label"}) {
            for (const int error : {EPERM, EACCES}) {
                clearPlaces();
                writeFile(source, "content");
                QCOMPARE(move(withFixedAttribute(name, error)), moved());
            }
        }
    }

    // In a document portal every file has this attribute.
    void theAttributeOfThePortalIsNotCopied()
    {
        writeFile(source, "content");
        const Interceptor portal = withFixedAttribute("user.document-portal.host-path", EPERM);
        // Leads to a comparison with the copy, whose attributes then are replaced.
        QCOMPARE(tryMove(changing([this] { touch(source); }, portal)), 0);
        QVERIFY(run.count("fsync") + run.count("syncfs") > 1);
        QVERIFY(!exists(source));
    }

    void anAttributeIsRemovedDuringTheCopy()
    {
        writeFile(source, "content");
        QVERIFY(setAttribute(source, "user.name", "value"));
        const int error = tryMove([this](const InterceptedCall& call) {
            if (call.name == "fgetxattr") (void)::removexattr(source.c_str(), "user.name");
            return crossing(call);
        });
        QCOMPARE(error, 0);
        QVERIFY(!exists(source));
        QVERIFY(!snapshotOf(target).contains("user.name"));
    }

    // Browsers store the address of a download as an attribute. File systems allow different sizes.
    void attributesThatAreTooLarge()
    {
        for (const char* kind : {"file", "folder"}) {
            for (const int error : {ENOSPC, EDQUOT, E2BIG, ERANGE}) {
                clearPlaces();
                makeObstacle(kind, source);
                QVERIFY(setAttribute(source, "user.small", "1"));
                setOldTimes(source);
                remember();
                QVERIFY(setAttribute(source, "user.large", std::string(1000, 'x')));
                const auto refusal = [error](const InterceptedCall& call) {
                    const bool isLarge = call.name == "fsetxattr" && call.arguments[3] == 1000;
                    return isLarge ? Answer::fail(error) : crossing(call);
                };
                QCOMPARE(result(tryMove(refusal)), moved());
            }
        }
    }

    void failuresThatEndTheMove()
    {
        writeFile(source, "content");
        QVERIFY(setAttribute(source, "user.name", "value"));
        for (const int error : {EPERM, EACCES, EIO})
            QCOMPARE(move(failing("fsetxattr", error)), kept(error));
        QCOMPARE(move(failing("utimensat", EIO)), kept(EIO));
    }

    // As of programs that synchronise folders or make backups.
    void changesDuringTheCopy()
    {
        for (const bool isFolder : {false, true}) {
            clearPlaces();
            makeObstacle(isFolder ? "full folder" : "file", source);
            for (const char* name : {"user.kept", "user.changed", "user.removed"})
                QVERIFY(setAttribute(source, name, "old"));
            QVERIFY(setAttribute(source, "system.posix_acl_access", acl(12345, 0)));
            if (isFolder) QVERIFY(setAttribute(source, "system.posix_acl_default", acl(54321, 4)));
            setOldTimes(source);
            QByteArray changed;
            const auto change = [&] {
                QVERIFY(setAttribute(source, "user.changed", "new"));
                QVERIFY(setAttribute(source, "user.added", "value"));
                QCOMPARE(::removexattr(source.c_str(), "user.removed"), 0);
                QCOMPARE(::removexattr(source.c_str(), "system.posix_acl_access"), 0);
                if (isFolder) QCOMPARE(::removexattr(source.c_str(), "system.posix_acl_default"), 0);
                QCOMPARE(::chmod(source.c_str(), isFolder ? 0751 : 0444), 0);
                changed = snapshotOf(source);
            };
            QCOMPARE(tryMove(changing(change)), 0);
            QVERIFY(!exists(source));
            QVERIFY(changed.contains("user.added") && !changed.contains("posix_acl"));
            QCOMPARE(snapshotOf(target), changed);
        }
    }

    // The new attribute must be written to the copy, which is read-only too.
    void aReadOnlyFileChangesDuringTheCopy()
    {
        writeFile(source, "content");
        openToAll();
        QVERIFY(setAttribute(source, "user.name", "old"));
        QCOMPARE(::chmod(source.c_str(), 0444), 0);
        const auto change = [this] {
            QCOMPARE(::chmod(source.c_str(), 0644), 0);
            QVERIFY(setAttribute(source, "user.name", "new"));
            QCOMPARE(::chmod(source.c_str(), 0444), 0);
        };
        QCOMPARE(moveWithoutPrivileges(changing(change)), 0);
        QVERIFY(!exists(source));
        QVERIFY(snapshotOf(target).contains("user.name=" + QByteArray("new").toHex()));
        QCOMPARE(statusOf(target).st_mode & 07777, mode_t(0444));
        QCOMPARE(contents(target), QByteArray("content"));
    }

    void timesThatCannotBeKept()
    {
        for (const char* kind : {"file", "full folder", "dangling link"}) {
            for (const int error : {ENOSYS, EOPNOTSUPP, EPERM, EINVAL}) {
                clearPlaces();
                makeObstacle(kind, source);
                setOldTimes(source);
                if (exists(source + "/inside")) setOldTimes(source + "/inside");
                remember();
                QCOMPARE(tryMove(failing("utimensat", error)), 0);
                QVERIFY(!isSame(statusOf(target).st_mtim, oldModification));
                // Only the times differ.
                if (exists(target + "/inside")) setOldTimes(target + "/inside");
                setOldTimes(target);
                QCOMPARE(result(0), moved());
            }
        }
    }

    void anOwnerThatCannotBeKeptClearsTheSetUserBit()
    {
        writeFile(source, "content");
        QCOMPARE(::chmod(source.c_str(), 06755), 0);
        QCOMPARE(tryMove(failing("fchownat", EPERM)), 0);
        QCOMPARE(statusOf(target).st_mode & 07777, mode_t(0755));
    }

    // The user has the permissions of others. As the new owner, the user needs permissions of the owner.
    void aForeignFolderBecomesOurs()
    {
        if (::geteuid() != 0) QSKIP("only root makes folders of another user");
        makePlaces(folderOnAnotherVolume());
        makeObstacle("tree", source);
        openToAll();
        QCOMPARE(::chmod(source.c_str(), 0007), 0);
        QCOMPARE(::chmod((source + "/sub").c_str(), 02007), 0);
        QCOMPARE(moveWithoutPrivileges(), 0);
        QVERIFY(!exists(source));
        QCOMPARE(statusOf(target).st_mode & 07777, mode_t(0707));
        QCOMPARE(statusOf(target + "/sub").st_mode & 07777, mode_t(0707));
        QCOMPARE(statusOf(target).st_uid, uid_t(65534));
        QCOMPARE(contents(target + "/sub/other"), QByteArray("other content"));
    }
};

HARBEX_TEST(TestEntryAttributes)

#include "tst_EntryAttributes.moc"
