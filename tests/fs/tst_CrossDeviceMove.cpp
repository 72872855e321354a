#include "support/MovePlaces.h"
#include "support/TestMain.h"

#include <sys/resource.h>
#include <sys/sysmacros.h>
#include <unistd.h>

using namespace harbex;
using namespace harbex::test;

namespace
{

FileDescriptor openLevel(int folder, const std::string& name)
{
    return FileDescriptor(::openat(folder, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

/// The name of every folder in a deep tree.
const std::string levelName(100, 'd');

/// Makes a folder with `depth` levels of folders, and a file with two names in the last. Its paths are longer
/// than PATH_MAX.
void makeDeepTree(const std::string& root, int depth)
{
    makeFolder(root);
    FileDescriptor level = openLevel(AT_FDCWD, root);
    for (int i = 0; i < depth; ++i) {
        QCOMPARE(::mkdirat(level.get(), levelName.c_str(), 0755), 0);
        level = openLevel(level.get(), levelName);
    }
    QVERIFY(FileDescriptor(::openat(level.get(), "file", O_WRONLY | O_CREAT | O_CLOEXEC, 0644)));
    QCOMPARE(::linkat(level.get(), "file", level.get(), "same", 0), 0);
}

/// Returns the depth of such a tree. -1 if a file is missing.
int depthOf(const std::string& root)
{
    int depth = -1;
    FileDescriptor level;
    for (FileDescriptor next = openLevel(AT_FDCWD, root); next; next = openLevel(level.get(), levelName)) {
        level = std::move(next);
        ++depth;
    }
    const auto has = [&level](const char* name) { return ::faccessat(level.get(), name, F_OK, 0) == 0; };
    return has("file") && has("same") ? depth : -1;
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
        lacks.hardLinks = true;
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

    void impossibleNames_data()
    {
        QTest::addColumn<QByteArray>("kind");
        QTest::addColumn<bool>("noUnnamedFiles");
        QTest::newRow("file") << QByteArray("file") << false;
        QTest::newRow("file, no unnamed files") << QByteArray("file") << true;
        QTest::newRow("folder") << QByteArray("full folder") << false;
        QTest::newRow("link") << QByteArray("dangling link") << false;
    }

    // Such a file system finds no entry with the name, and rejects the name only when an entry is created.
    void impossibleNames()
    {
        QFETCH(const QByteArray, kind);
        QFETCH(const bool, noUnnamedFiles);
        lacks.unnamedFiles = noUnnamedFiles;
        makeObstacle(kind.toStdString(), source);
        for (const int error : {EINVAL, EILSEQ, ENAMETOOLONG}) {
            const auto interceptor = [error](const InterceptedCall& call) {
                const auto hasName = [&call](size_t argument) {
                    return call.text(argument).ends_with("target");
                };
                const bool creates = (call.name == "openat" && (call.arguments[2] & O_CREAT) && hasName(1)) ||
                                     (call.name == "linkat" && hasName(3)) ||
                                     (call.name == "renameat2" && call.ordinal > 1 && hasName(3));
                return creates ? Answer::fail(error) : Answer::proceed();
            };
            QCOMPARE(move(interceptor), kept(error));
            for (const char* call : {"pread64", "ioctl", "readlinkat", "symlinkat", "fsync", "syncfs"})
                QVERIFY2(run.count(call) == 0, call);
        }

        // A search finds out that a name is too long, so nothing is created.
        target = out + '/' + std::string(256, 'x');
        QCOMPARE(move(), kept(ENAMETOOLONG));
        QCOMPARE(run.count("mkdirat"), 0);
    }

    void deepTrees_data()
    {
        QTest::addColumn<int>("depth");
        QTest::addColumn<rlim_t>("descriptors");
        QTest::addColumn<int>("error");
        QTest::newRow("the deepest") << 399 << rlim_t(1024) << 0;
        QTest::newRow("too deep") << 400 << rlim_t(1024) << EMFILE;
        // Enough descriptors to look at the tree, too few to copy it.
        QTest::newRow("too few descriptors") << 150 << rlim_t(250) << EMFILE;
    }

    void deepTrees()
    {
        QFETCH(const int, depth);
        QFETCH(const rlim_t, descriptors);
        QFETCH(const int, error);
        makeDeepTree(source, depth);
        rlimit before = {};
        QCOMPARE(::getrlimit(RLIMIT_NOFILE, &before), 0);
        const rlimit limit = {descriptors, before.rlim_max};
        QCOMPARE(::setrlimit(RLIMIT_NOFILE, &limit), 0);
        const int found = errorOfMove(source, target);
        QCOMPARE(::setrlimit(RLIMIT_NOFILE, &before), 0);
        QCOMPARE(found, error);
        QCOMPARE(depthOf(error == 0 ? target : source), depth);
        QVERIFY(!exists(error == 0 ? source : target));
        QCOMPARE(leftovers(), QByteArrayList());
    }

    // An unreadable or read-only folder in the tree. tst_Forbidden.cpp closes the folder that contains it.
    void whatCannotBeRemovedIsNotCopied()
    {
        makeFolder(source);
        makeFolder(source + "/sub");
        writeFile(source + "/sub/file", "content");
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
