#include "support/EngineResources.h"
#include "support/MovePlaces.h"
#include "support/TestMain.h"

#include <sys/sysmacros.h>

using namespace harbex;
using namespace harbex::test;

namespace
{

/// The name of every folder in a deep tree.
const std::string levelName(100, 'd');

/// Makes a folder with `depth` levels of folders, and a file with two names in the last. Its paths are longer
/// than PATH_MAX.
void makeDeepTree(const std::string& root, int depth)
{
    makeFolder(root);
    writeFile(root + "/file", "content");
    linkFile(root + "/file", root + "/same");
    for (int i = 0; i < depth; ++i) {
        renameEntry(root, root + ".inside");
        makeFolder(root);
        renameEntry(root + ".inside", root + '/' + levelName);
    }
}

/// Returns the depth of such a tree. -1 if a file is missing. Removes all levels but the last.
int depthOf(const std::string& root)
{
    int depth = 0;
    for (; exists(root + '/' + levelName); ++depth) {
        renameEntry(root + '/' + levelName, root + ".inside");
        removeEntry(root);
        renameEntry(root + ".inside", root);
    }
    return exists(root + "/file") && exists(root + "/same") ? depth : -1;
}

} // namespace

/// Moves of entries of every kind to a real second file system.
class TestCrossDeviceMove : public QObject, private MovePlaces
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        makePlaces(folderOnAnotherVolume());
        lacks = {};
    }

    void trees()
    {
        makeFolder(source);
        for (const char* name : {"/empty", "/sub", "/sub/sub.part", "/closed"})
            makeFolder(source + name);
        writeFile(source + "/sub/file", std::string(200'000, 'x'));
        writeFile(source + "/sub/sub.part/...", "dots");
        writeFile(source + "/line\nbreak\xff", "name");
        writeFile(source + '/' + std::string(255, 'l'), "long name");
        linkFile(source + "/sub/file", source + "/hard link");
        linkFile(source + "/sub/file", source + "/sub/sub.part/another");
        makeLink(source + "/up", "..");
        makeLink(source + "/loop", "loop");
        makeLink(source + "/absolute", "/etc");
        QCOMPARE(::chmod((source + "/sub/file").c_str(), 0400), 0);
        QCOMPARE(::chmod((source + "/closed").c_str(), 0700), 0);
        for (const char* name : {"/sub/file", "/sub/sub.part", "/sub", "/empty", "/up", ""})
            setOldTimes(source + name);
        QCOMPARE(move(), moved());
        QVERIFY(exists("/etc"));
    }

    void noHardLinks()
    {
        lacks.noLinks = EPERM;
        // An unnamed file cannot get a name without linkat().
        writeFile(source, "content");
        QCOMPARE(move(), moved());

        clearPlaces();
        makeFolder(source);
        writeFile(source + "/a", "content");
        linkFile(source + "/a", source + "/b");
        QCOMPARE(tryMove(), 0);
        QCOMPARE(contents(target + "/a"), QByteArray("content"));
        QCOMPARE(contents(target + "/b"), QByteArray("content"));
        QVERIFY(!exists(source));
    }

    // Some file systems give an entry a new number when the kernel has dropped it from its cache, which can
    // happen during a long copy.
    void inodeNumbersThatChange()
    {
        for (const char* kind : {"file", "full folder"}) {
            clearPlaces();
            makeObstacle(kind, source);
            uint64_t age = 0;
            const auto interceptor = [&age](const InterceptedCall& call) {
                age += call.name == "fsync" || call.name == "syncfs";
                if (call.name != "statx") return Answer::proceed();
                return answerStatus(call, [age](struct statx& data) { data.stx_ino += age * 1'000'000; });
            };
            QCOMPARE(move(interceptor), moved());
            QCOMPARE(age, 2U);
        }
    }

    void oneInodeNumberForTwoFiles()
    {
        const auto interceptor = [](const InterceptedCall& call) {
            if (call.name != "statx") return Answer::proceed();
            return answerStatus(call, [](struct statx& data) {
                if (!S_ISREG(data.stx_mode)) return;
                data.stx_ctime.tv_sec += int64_t(data.stx_ino);
                data.stx_ino = 12345;
                data.stx_nlink = 2;
            });
        };
        for (const bool isSameSize : {false, true}) {
            clearPlaces();
            makeFolder(source);
            writeFile(source + "/a", "one content");
            writeFile(source + "/b", isSameSize ? "two content" : "another content");
            setOldTimes(source + "/a");
            setOldTimes(source + "/b");
            // With the same size only the change times and the contents differ.
            QCOMPARE(move(interceptor), isSameSize ? kept(EBUSY) : moved());
        }
    }

    void specialFilesAreRefused()
    {
        for (const int kind : {S_IFIFO, S_IFSOCK, S_IFCHR}) {
            for (const bool isInFolder : {false, true}) {
                clearPlaces();
                if (isInFolder) makeObstacle("full folder", source);
                const std::string path = isInFolder ? source + "/special" : source;
                const bool isMade = ::mknod(path.c_str(), mode_t(kind | 0600), makedev(1, 3)) == 0;
                // Only root makes devices.
                QVERIFY(isMade || kind == S_IFCHR);
                if (isMade) QCOMPARE(move(), kept(EOPNOTSUPP));
            }
        }
    }

    // Such a file system finds no entry with the name, and rejects the name only when an entry is created.
    void impossibleNames()
    {
        const auto check = [this](const char* kind, int error) {
            clearPlaces();
            makeObstacle(kind, source);
            const auto interceptor = [error](const InterceptedCall& call) {
                const bool isOpen = call.name == "openat";
                const bool creates =
                    isOpen ? (call.arguments[2] & O_CREAT) != 0
                           : call.name == "linkat" || (call.name == "renameat2" && call.ordinal > 1);
                const bool isNamed = creates && call.text(isOpen ? 1 : 3).ends_with("target");
                return isNamed ? Answer::fail(error) : Answer::proceed();
            };
            QCOMPARE(move(interceptor), kept(error));
            for (const char* call : {"pread64", "ioctl", "readlinkat", "symlinkat", "fsync", "syncfs"})
                QVERIFY2(run.count(call) == 0, call);
        };
        for (const int error : {EINVAL, EILSEQ, ENAMETOOLONG}) {
            for (const char* kind : {"full folder", "dangling link", "file"})
                check(kind, error);
        }
        lacks.unnamedFiles = true;
        check("file", EINVAL);

        // A search finds out that a name is too long, so nothing is created.
        target = out + '/' + std::string(256, 'x');
        QCOMPARE(move(), kept(ENAMETOOLONG));
        QCOMPARE(run.count("mkdirat"), 0);
    }

    void deepTrees()
    {
        const auto check = [this](int depth, size_t descriptors, int error) {
            init();
            makeDeepTree(source, depth);
            int found = 0;
            {
                const DescriptorLimit limit(descriptors - descriptorCount());
                found = errorOfMove(source, target);
            }
            QCOMPARE(found, error);
            QCOMPARE(depthOf(error == 0 ? target : source), depth);
            QVERIFY(!exists(error == 0 ? source : target));
            QCOMPARE(leftovers(), QByteArrayList());
        };
        // The deepest tree, and one level more.
        check(399, 1024, 0);
        check(400, 1024, EMFILE);
        // Enough descriptors to look at the tree, too few to copy it.
        check(150, 250, EMFILE);
    }

    // An unreadable or read-only folder in the tree. tst_Forbidden.cpp closes the folder that contains it.
    void whatCannotBeRemovedIsNotCopied()
    {
        makeObstacle("tree", source);
        openToAll();
        const std::string sub = source + "/sub";
        for (const std::string& folder : {source, sub})
            QCOMPARE(::chmod(folder.c_str(), 0777), 0);
        remember();
        for (const mode_t mode : {0555U, 0333U, 0666U}) {
            QCOMPARE(::chmod(sub.c_str(), mode), 0);
            const int error = moveWithoutPrivileges();
            QCOMPARE(::chmod(sub.c_str(), 0777), 0);
            QCOMPARE(result(error), kept(EACCES));
            QCOMPARE(run.count("mkdirat") + run.count("pwrite64"), 0);
        }
    }

    // The kernel detects this only within one mount. A folder that is mounted twice looks like two volumes.
    void aFolderIntoItself()
    {
        makeObstacle("folder", source);
        makeObstacle("full folder", source + "/sub");
        for (const char* inside : {"/target", "/sub/target"}) {
            target = source + inside;
            QCOMPARE(move(crossing), kept(EINVAL));
        }
    }
};

HARBEX_TEST(TestCrossDeviceMove)

#include "tst_CrossDeviceMove.moc"
