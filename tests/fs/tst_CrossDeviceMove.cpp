#include "support/MovePlaces.h"
#include "support/TestMain.h"

#include <array>
#include <cstring>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>

using namespace harbex;
using namespace harbex::test;

namespace
{

/// Sets times that a copy does not have by itself.
void setTimes(const std::string& path)
{
    const std::array<timespec, 2> times = {{{1'000'000'000, 123'456'789}, {1'234'567'890, 987'654'321}}};
    QCOMPARE(::utimensat(AT_FDCWD, path.c_str(), times.data(), AT_SYMLINK_NOFOLLOW), 0);
}

/// Makes a folder with `depth` levels of folders, and a file with two names in the last. Its paths are longer
/// than PATH_MAX.
void makeDeepTree(const std::string& root, int depth)
{
    makeFolder(root);
    FileDescriptor level(::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    for (int i = 0; i < depth; ++i) {
        const std::string name(100, 'd');
        QCOMPARE(::mkdirat(level.get(), name.c_str(), 0755), 0);
        level = FileDescriptor(::openat(level.get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    }
    QVERIFY(FileDescriptor(::openat(level.get(), "file", O_WRONLY | O_CREAT | O_CLOEXEC, 0644)));
    QCOMPARE(::linkat(level.get(), "file", level.get(), "same", 0), 0);
}

/// Returns the depth of such a tree. -1 if a file is missing.
int depthOf(const std::string& root)
{
    FileDescriptor level(::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    int depth = 0;
    for (;; ++depth) {
        FileDescriptor next(
            ::openat(level.get(), std::string(100, 'd').c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (!next) break;
        level = std::move(next);
    }
    const bool hasFiles =
        ::faccessat(level.get(), "file", F_OK, 0) == 0 && ::faccessat(level.get(), "same", F_OK, 0) == 0;
    return hasFiles ? depth : -1;
}

} // namespace

/// Moves of entries of every kind to a real second file system.
class TestCrossDeviceMove : public QObject, private MovePlaces
{
    Q_OBJECT

private Q_SLOTS:
    void init() { makePlaces(folderOnAnotherVolume()); }

    void theVolumesDiffer()
    {
        writeFile(source, "");
        QCOMPARE(::rename(source.c_str(), target.c_str()), -1);
        QCOMPARE(errno, EXDEV);
    }

    void links_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::newRow("to a folder") << QByteArray("/etc");
        QTest::newRow("dangling") << QByteArray("nowhere/at all");
        QTest::newRow("invalid text") << QByteArray("\xff\n\x01");
        QTest::newRow("long") << QByteArray(3000, 'x');
    }

    void links()
    {
        QFETCH(const QByteArray, text);
        makeLink(source, text.toStdString());
        setTimes(source);
        QCOMPARE(move(), moved());
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
            setTimes(source + name);
        QCOMPARE(move(), moved());
        QVERIFY(exists("/etc"));
    }

    void noHardLinks()
    {
        // An unnamed file cannot get a name without linkat().
        writeFile(source, "content");
        QCOMPARE(move(Lacks{.hardLinks = true}), moved());

        makePlaces(folderOnAnotherVolume());
        makeFolder(source);
        writeFile(source + "/a", "content");
        linkFile(source + "/a", source + "/b");
        QCOMPARE(moveIntercepted(source, target, Lacks{.hardLinks = true}).error, 0);
        QCOMPARE(contents(target + "/a"), QByteArray("content"));
        QCOMPARE(contents(target + "/b"), QByteArray("content"));
        QVERIFY(!exists(source));
    }

    void inodeNumbersThatChange_data()
    {
        QTest::addColumn<bool>("isFolder");
        QTest::newRow("file") << false;
        QTest::newRow("folder") << true;
    }

    // Some file systems give an entry a new number when the kernel has dropped it from its cache, which can
    // happen during a long copy.
    void inodeNumbersThatChange()
    {
        QFETCH(const bool, isFolder);
        makeObstacle(isFolder ? "full folder" : "file", source);
        uint64_t age = 0;
        const auto interceptor = [&age](const InterceptedCall& call) {
            age += call.name == "fsync" || call.name == "syncfs";
            if (call.name != "statx") return Answer::proceed();
            return answerStatus(call, [age](struct statx& data) { data.stx_ino += age * 1'000'000; });
        };
        QCOMPARE(move(interceptor), moved());
        QCOMPARE(age, 2U);
    }

    void oneInodeNumberForTwoFiles_data()
    {
        QTest::addColumn<QByteArray>("other");
        QTest::addColumn<int>("error");
        QTest::newRow("another size") << QByteArray("another content") << 0;
        // Only the change times and the contents differ.
        QTest::newRow("the same size and time") << QByteArray("two content") << EBUSY;
    }

    void oneInodeNumberForTwoFiles()
    {
        QFETCH(const QByteArray, other);
        QFETCH(const int, error);
        makeFolder(source);
        writeFile(source + "/a", "one content");
        writeFile(source + "/b", other.toStdString());
        setTimes(source + "/a");
        setTimes(source + "/b");
        const auto interceptor = [](const InterceptedCall& call) {
            if (call.name != "statx") return Answer::proceed();
            return answerStatus(call, [](struct statx& data) {
                if (!S_ISREG(data.stx_mode)) return;
                data.stx_ctime.tv_sec += int64_t(data.stx_ino);
                data.stx_ino = 12345;
                data.stx_nlink = 2;
            });
        };
        QCOMPARE(move(interceptor), error == 0 ? moved() : kept(error));
    }

    void oneOfTwoNamesOfAFile()
    {
        writeFile(source, "content");
        linkFile(source, here() + "/other");
        QCOMPARE(move(), moved());
        QCOMPARE(contents(here() + "/other"), QByteArray("content"));
    }

    void specialFilesAreRefused_data()
    {
        QTest::addColumn<QByteArray>("kind");
        QTest::addColumn<bool>("inFolder");
        for (const char* kind : {"pipe", "socket", "device"}) {
            QTest::addRow("%s", kind) << QByteArray(kind) << false;
            QTest::addRow("%s in a folder", kind) << QByteArray(kind) << true;
        }
    }

    void specialFilesAreRefused()
    {
        QFETCH(const QByteArray, kind);
        QFETCH(const bool, inFolder);
        if (inFolder) makeObstacle("full folder", source);
        const std::string path = inFolder ? source + "/special" : source;
        if (kind == "pipe") QCOMPARE(::mkfifo(path.c_str(), 0600), 0);
        if (kind == "socket") {
            sockaddr_un address = {};
            address.sun_family = AF_UNIX;
            path.copy(address.sun_path, sizeof address.sun_path - 1);
            const FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM, 0));
            QCOMPARE(::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        }
        if (kind == "device" && ::mknod(path.c_str(), S_IFCHR | 0600, makedev(1, 3)) != 0)
            QSKIP("only root makes devices");
        QCOMPARE(move(), kept(EOPNOTSUPP));
    }

    void nothingIsReplaced_data() { addObstacleRows(); }

    void nothingIsReplaced()
    {
        QFETCH(const QByteArray, kind);
        QFETCH(const QByteArray, obstacle);
        makeObstacle(kind.toStdString(), source);
        makeObstacle(obstacle.toStdString(), target);
        QCOMPARE(move(), kept(EEXIST));
    }

    void impossibleNames_data()
    {
        QTest::addColumn<QByteArray>("kind");
        QTest::addColumn<bool>("unnamedFiles");
        QTest::addColumn<int>("error");
        for (const int error : {EINVAL, EILSEQ, ENAMETOOLONG}) {
            for (const char* kind : {"file", "full folder", "dangling link"})
                QTest::addRow("%s, %s", kind, strerrorname_np(error)) << QByteArray(kind) << true << error;
            QTest::addRow("file, no unnamed files, %s", strerrorname_np(error))
                << QByteArray("file") << false << error;
        }
    }

    // Such a file system finds no entry with the name, and rejects the name only when an entry is created.
    void impossibleNames()
    {
        QFETCH(const QByteArray, kind);
        QFETCH(const bool, unnamedFiles);
        QFETCH(const int, error);
        makeObstacle(kind.toStdString(), source);
        const auto interceptor = [error](const InterceptedCall& call) {
            const auto hasName = [&call](size_t argument) { return call.text(argument).ends_with("target"); };
            const bool creates = (call.name == "openat" && (call.arguments[2] & O_CREAT) && hasName(1)) ||
                                 (call.name == "linkat" && hasName(3)) ||
                                 (call.name == "renameat2" && call.ordinal > 1 && hasName(3));
            return creates ? Answer::fail(error) : Answer::proceed();
        };
        QCOMPARE(move(Lacks{.unnamedFiles = !unnamedFiles}, interceptor), kept(error));
        for (const char* call : {"pread64", "ioctl", "readlinkat", "symlinkat", "fsync", "syncfs"})
            QVERIFY2(run.count(call) == 0, call);

        // A search finds out that a name is too long, so nothing is created.
        target = out + '/' + std::string(256, 'x');
        QCOMPARE(move(), kept(ENAMETOOLONG));
        QCOMPARE(run.count("mkdirat"), 0);
    }

    void missingEntries()
    {
        writeFile(source, "content");
        remember();
        QCOMPARE(result(errorOfMove(source, out + "/missing/target")), kept(ENOENT));
        QCOMPARE(result(errorOfMove(source + "-missing", target)), kept(ENOENT));
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

    void whatCannotBeRemovedIsNotCopied_data()
    {
        QTest::addColumn<QByteArray>("closed");
        QTest::addColumn<int>("mode");
        QTest::newRow("the source's folder is read-only") << QByteArray("in") << 0555;
        QTest::newRow("a folder in the tree is read-only") << QByteArray("in/source/sub") << 0555;
        QTest::newRow("a folder in the tree cannot be listed") << QByteArray("in/source/sub") << 0333;
        QTest::newRow("a folder in the tree cannot be entered") << QByteArray("in/source/sub") << 0666;
    }

    void whatCannotBeRemovedIsNotCopied()
    {
        QFETCH(const QByteArray, closed);
        QFETCH(const int, mode);
        makeFolder(source);
        makeFolder(source + "/sub");
        writeFile(source + "/sub/file", "content");
        openToAll();
        QCOMPARE(::chmod(source.c_str(), 0777), 0);
        QCOMPARE(::chmod((source + "/sub").c_str(), 0777), 0);
        remember();
        const std::string path = here() + '/' + closed.toStdString();
        QCOMPARE(::chmod(path.c_str(), mode_t(mode)), 0);
        const int error = moveWithoutPrivileges();
        QCOMPARE(::chmod(path.c_str(), 0777), 0);
        QCOMPARE(result(error), kept(EACCES));
        QCOMPARE(run.count("mkdirat") + run.count("pwrite64"), 0);
    }

    // The kernel detects this only within one mount. A folder that is mounted twice looks like two volumes.
    void aFolderIntoItself()
    {
        makeFolder(source);
        makeFolder(source + "/sub");
        writeFile(source + "/sub/file", "content");
        for (const char* inside : {"/target", "/sub/target"}) {
            target = source + inside;
            QCOMPARE(move(crossing), kept(EINVAL));
        }
    }
};

HARBEX_TEST(TestCrossDeviceMove)

#include "tst_CrossDeviceMove.moc"
