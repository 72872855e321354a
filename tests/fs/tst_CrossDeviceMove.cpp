#include "support/InterceptedMove.h"
#include "support/TestMain.h"
#include "support/TreeSnapshot.h"

#include <array>
#include <cstring>
#include <memory>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>

using namespace harbex;
using namespace harbex::test;

namespace
{

/// A time that no copy has by itself.
void setTimes(const std::string& path)
{
    const std::array<timespec, 2> times = {{{1'000'000'000, 123'456'789}, {1'234'567'890, 987'654'321}}};
    QCOMPARE(::utimensat(AT_FDCWD, path.c_str(), times.data(), AT_SYMLINK_NOFOLLOW), 0);
}

} // namespace

/// Moves of entries of every kind to a real second file system.
class TestCrossDeviceMove : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void theVolumesDiffer();
    void links_data();
    void links();
    void trees();
    void withoutHardLinks_data();
    void withoutHardLinks();
    void inodeNumbersThatChange_data();
    void inodeNumbersThatChange();
    void inodeNumbersThatAreGivenTwice_data();
    void inodeNumbersThatAreGivenTwice();
    void oneOfTwoNamesOfAFile();
    void specialFilesAreRefused_data();
    void specialFilesAreRefused();
    void nothingIsReplaced_data();
    void nothingIsReplaced();
    void namesThatCannotBe_data();
    void namesThatCannotBe();
    void aMissingDestination();
    void theDeepestTree();
    void tooDeepATreeIsRefused();
    void aTreeDeeperThanTheDescriptorsIsRefused();
    void whatCouldNotBeRemovedIsNotCopied_data();
    void whatCouldNotBeRemovedIsNotCopied();
    void aFolderIntoItself();

private:
    /// What a move has to keep, compared after it.
    void moveAndCompare();
    [[nodiscard]] bool targetFolderIsEmpty() const { return namesIn(m_out).isEmpty(); }

    std::unique_ptr<ScratchFolder> m_here;
    std::unique_ptr<ScratchFolder> m_there;
    std::string m_source;
    std::string m_out;
    std::string m_target;
};

void TestCrossDeviceMove::init()
{
    m_here = std::make_unique<ScratchFolder>();
    m_there = std::make_unique<ScratchFolder>(folderOnAnotherVolume());
    m_source = m_here->makeFolder("in") + "/source.dat";
    m_out = m_there->makeFolder("out");
    m_target = m_out + "/target.dat";
}

void TestCrossDeviceMove::cleanup()
{
    m_here.reset();
    m_there.reset();
}

void TestCrossDeviceMove::moveAndCompare()
{
    const QByteArray before = pictureOf(m_source);
    QCOMPARE(errorOfMove(m_source, m_target), 0);
    QCOMPARE(pictureOf(m_target), before);
    QVERIFY(!exists(m_source));
    QCOMPARE(namesIn(m_out), QByteArrayList{"target.dat"});
    QCOMPARE(namesIn(m_here->path() + "/in"), QByteArrayList());
}

void TestCrossDeviceMove::theVolumesDiffer()
{
    writeFile(m_source, "");
    QCOMPARE(::rename(m_source.c_str(), m_target.c_str()), -1);
    QCOMPARE(errno, EXDEV);
}

void TestCrossDeviceMove::links_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::newRow("to a folder") << QByteArray("/etc");
    QTest::newRow("dangling") << QByteArray("nowhere/at all");
    QTest::newRow("invalid text") << QByteArray("\xff\n\x01");
    QTest::newRow("long") << QByteArray(3000, 'x');
}

void TestCrossDeviceMove::links()
{
    QFETCH(const QByteArray, text);
    makeLink(m_source, text.toStdString());
    setTimes(m_source);
    moveAndCompare();
}

void TestCrossDeviceMove::trees()
{
    makeFolder(m_source);
    makeFolder(m_source + "/empty");
    makeFolder(m_source + "/sub");
    makeFolder(m_source + "/sub/sub.part");
    makeFolder(m_source + "/closed");
    writeFile(m_source + "/sub/file", std::string(200'000, 'x'));
    writeFile(m_source + "/sub/sub.part/...", "dots");
    writeFile(m_source + "/line\nbreak\xff", "name");
    writeFile(m_source + '/' + std::string(255, 'l'), "long name");
    QCOMPARE(::link((m_source + "/sub/file").c_str(), (m_source + "/hard link").c_str()), 0);
    QCOMPARE(::link((m_source + "/sub/file").c_str(), (m_source + "/sub/sub.part/another").c_str()), 0);
    makeLink(m_source + "/up", "..");
    makeLink(m_source + "/loop", "loop");
    makeLink(m_source + "/absolute", "/etc");
    QCOMPARE(::chmod((m_source + "/sub/file").c_str(), 0400), 0);
    QCOMPARE(::chmod((m_source + "/closed").c_str(), 0700), 0);
    for (const char* name : {"/sub/file", "/sub/sub.part", "/sub", "/empty", "/up", ""})
        setTimes(m_source + name);
    moveAndCompare();
    QVERIFY(QFile::exists(QStringLiteral("/etc")));
}

void TestCrossDeviceMove::withoutHardLinks_data()
{
    QTest::addColumn<bool>("isFolder");
    QTest::newRow("file") << false;
    QTest::newRow("folder") << true;
}

void TestCrossDeviceMove::withoutHardLinks()
{
    QFETCH(const bool, isFolder);
    if (!isFolder) {
        // Without links a file without a name can get none.
        writeFile(m_source, "content");
        const QByteArray before = pictureOf(m_source);
        QCOMPARE(moveGated(m_source, m_target, Lacks{.hardLinks = true}).error, 0);
        QCOMPARE(pictureOf(m_target), before);
        QVERIFY(!exists(m_source));
        QCOMPARE(namesIn(m_out), QByteArrayList{"target.dat"});
        return;
    }
    makeFolder(m_source);
    writeFile(m_source + "/a", "content");
    QCOMPARE(::link((m_source + "/a").c_str(), (m_source + "/b").c_str()), 0);
    QCOMPARE(moveGated(m_source, m_target, Lacks{.hardLinks = true}).error, 0);
    QCOMPARE(contents(m_target + "/a"), QByteArray("content"));
    QCOMPARE(contents(m_target + "/b"), QByteArray("content"));
    QVERIFY(!exists(m_source));
}

void TestCrossDeviceMove::inodeNumbersThatChange_data()
{
    withoutHardLinks_data();
}

// Some file systems number their entries anew when the kernel has forgotten them, as it may during a long
// copy.
void TestCrossDeviceMove::inodeNumbersThatChange()
{
    QFETCH(const bool, isFolder);
    if (isFolder) makeFolder(m_source);
    writeFile(isFolder ? m_source + "/file" : m_source, "content");
    const QByteArray before = pictureOf(m_source);
    uint64_t age = 0;
    const auto keeper = [&age](const InterceptedCall& call) {
        age += call.name == "fsync" || call.name == "syncfs";
        if (call.name != "statx") return Answer::proceed();
        return answerStatus(call, [age](struct statx& data) { data.stx_ino += age * 1'000'000; });
    };
    QCOMPARE(moveGated(m_source, m_target, keeper).error, 0);
    QCOMPARE(age, 2U);
    QCOMPARE(pictureOf(m_target), before);
    QVERIFY(!exists(m_source));
}

void TestCrossDeviceMove::inodeNumbersThatAreGivenTwice_data()
{
    QTest::addColumn<QByteArray>("other");
    QTest::addColumn<int>("error");
    QTest::newRow("another size") << QByteArray("another content") << 0;
    // Only their change times and their contents tell them apart.
    QTest::newRow("the same size and time") << QByteArray("two content") << EBUSY;
}

void TestCrossDeviceMove::inodeNumbersThatAreGivenTwice()
{
    QFETCH(const QByteArray, other);
    QFETCH(const int, error);
    makeFolder(m_source);
    for (const auto& [name, content] :
         {std::pair("/a", std::string("one content")), {"/b", other.toStdString()}}) {
        writeFile(m_source + name, content);
        setTimes(m_source + name);
    }
    const QByteArray before = pictureOf(m_source);
    const auto keeper = [](const InterceptedCall& call) {
        if (call.name != "statx") return Answer::proceed();
        return answerStatus(call, [](struct statx& data) {
            if (!S_ISREG(data.stx_mode)) return;
            data.stx_ctime.tv_sec += int64_t(data.stx_ino);
            data.stx_ino = 12345;
            data.stx_nlink = 2;
        });
    };
    QCOMPARE(moveGated(m_source, m_target, keeper).error, error);
    QCOMPARE(pictureOf(error == 0 ? m_target : m_source), before);
    QVERIFY(!exists(error == 0 ? m_source : m_target));
}

void TestCrossDeviceMove::oneOfTwoNamesOfAFile()
{
    writeFile(m_source, "content");
    const std::string other = m_here->path() + "/other";
    QCOMPARE(::link(m_source.c_str(), other.c_str()), 0);
    moveAndCompare();
    QCOMPARE(contents(other), QByteArray("content"));
}

void TestCrossDeviceMove::specialFilesAreRefused_data()
{
    QTest::addColumn<QByteArray>("kind");
    QTest::addColumn<bool>("inFolder");
    for (const char* kind : {"pipe", "socket", "device"}) {
        QTest::addRow("%s", kind) << QByteArray(kind) << false;
        QTest::addRow("%s in a folder", kind) << QByteArray(kind) << true;
    }
}

void TestCrossDeviceMove::specialFilesAreRefused()
{
    QFETCH(const QByteArray, kind);
    QFETCH(const bool, inFolder);
    if (inFolder) makeFolder(m_source);
    if (inFolder) writeFile(m_source + "/file", "content");
    const std::string path = inFolder ? m_source + "/special" : m_source;
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
    const QByteArray before = pictureOf(m_source);
    QCOMPARE(errorOfMove(m_source, m_target), EOPNOTSUPP);
    QCOMPARE(pictureOf(m_source), before);
    QVERIFY(targetFolderIsEmpty());
}

void TestCrossDeviceMove::nothingIsReplaced_data()
{
    QTest::addColumn<QByteArray>("kind");
    QTest::addColumn<QByteArray>("victim");
    for (const char* kind : {"file", "link", "folder"}) {
        for (const char* victim : victimKinds)
            QTest::addRow("%s onto %s", kind, victim) << QByteArray(kind) << QByteArray(victim);
    }
}

void TestCrossDeviceMove::nothingIsReplaced()
{
    QFETCH(const QByteArray, kind);
    QFETCH(const QByteArray, victim);
    if (kind == "file") writeFile(m_source, "content");
    if (kind == "link") makeLink(m_source, "nowhere");
    if (kind == "folder") makeFolder(m_source);
    makeVictim(victim.toStdString(), m_target);
    const QByteArray source = pictureOf(m_source);
    const QByteArray target = pictureOf(m_target);
    QCOMPARE(errorOfMove(m_source, m_target), EEXIST);
    QCOMPARE(pictureOf(m_source), source);
    QCOMPARE(pictureOf(m_target), target);
    QCOMPARE(namesIn(m_out), QByteArrayList{"target.dat"});
}

void TestCrossDeviceMove::namesThatCannotBe_data()
{
    QTest::addColumn<QByteArray>("kind");
    QTest::addColumn<bool>("unnamedFiles");
    QTest::addColumn<int>("error");
    for (const int error : {EINVAL, EILSEQ, ENAMETOOLONG}) {
        for (const char* kind : {"file", "full folder", "dangling link"})
            QTest::addRow("%s, %s", kind, strerrorname_np(error)) << QByteArray(kind) << true << error;
        QTest::addRow("file, no files without a name, %s", strerrorname_np(error))
            << QByteArray("file") << false << error;
    }
}

// On such a file system nothing is found under the name, and only making it tells that it cannot be.
void TestCrossDeviceMove::namesThatCannotBe()
{
    QFETCH(const QByteArray, kind);
    QFETCH(const bool, unnamedFiles);
    QFETCH(const int, error);
    makeVictim(kind.toStdString(), m_source);
    const QByteArray before = pictureOf(m_source);
    const auto keeper = [&](const InterceptedCall& call) {
        const auto isNamedSo = [&call](size_t argument) {
            return call.text(argument).ends_with("target.dat");
        };
        const bool makesIt = (call.name == "openat" && (call.arguments[2] & O_CREAT) && isNamedSo(1)) ||
                             (call.name == "linkat" && isNamedSo(3)) ||
                             (call.name == "renameat2" && call.ordinal > 1 && isNamedSo(3));
        return makesIt ? Answer::fail(error) : Answer::proceed();
    };
    const InterceptedRun run = moveGated(m_source, m_target, Lacks{.unnamedFiles = !unnamedFiles}, keeper);
    QCOMPARE(run.error, error);
    QCOMPARE(pictureOf(m_source), before);
    QVERIFY(targetFolderIsEmpty());
    for (const std::string& label : run.calls) {
        for (const char* call : {"pread64", "ioctl", "readlinkat", "symlinkat", "fsync", "syncfs"})
            QVERIFY2(!label.starts_with(call), label.c_str());
    }

    // One that is too long is told by looking for it, before anything is made.
    const InterceptedRun early = moveGated(m_source, m_out + '/' + std::string(256, 'x'), Lacks());
    QCOMPARE(early.error, ENAMETOOLONG);
    for (const std::string& label : early.calls)
        QVERIFY2(!label.starts_with("mkdirat"), label.c_str());
}

void TestCrossDeviceMove::aMissingDestination()
{
    writeFile(m_source, "content");
    QCOMPARE(errorOfMove(m_source, m_out + "/missing/target"), ENOENT);
    QCOMPARE(contents(m_source), QByteArray("content"));
    QCOMPARE(errorOfMove(m_source + "-missing", m_target), ENOENT);
    QVERIFY(targetFolderIsEmpty());
}

namespace
{

/// A folder with `depth` levels of folders in it and a file in the last. Its paths are too long to be said.
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
}

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
    return ::faccessat(level.get(), "file", F_OK, 0) == 0 ? depth : -1;
}

} // namespace

void TestCrossDeviceMove::theDeepestTree()
{
    makeDeepTree(m_source, 399);
    QCOMPARE(errorOfMove(m_source, m_target), 0);
    QCOMPARE(depthOf(m_target), 399);
    QVERIFY(!exists(m_source));
}

void TestCrossDeviceMove::tooDeepATreeIsRefused()
{
    makeDeepTree(m_source, 400);
    QCOMPARE(errorOfMove(m_source, m_target), EMFILE);
    QCOMPARE(depthOf(m_source), 400);
    QVERIFY(targetFolderIsEmpty());
}

void TestCrossDeviceMove::aTreeDeeperThanTheDescriptorsIsRefused()
{
    makeDeepTree(m_source, 150);
    rlimit before = {};
    QCOMPARE(::getrlimit(RLIMIT_NOFILE, &before), 0);
    // Enough to look at the tree, too few to copy it.
    const rlimit few = {250, before.rlim_max};
    QCOMPARE(::setrlimit(RLIMIT_NOFILE, &few), 0);
    const int error = errorOfMove(m_source, m_target);
    QCOMPARE(::setrlimit(RLIMIT_NOFILE, &before), 0);
    QCOMPARE(error, EMFILE);
    QCOMPARE(depthOf(m_source), 150);
    QVERIFY(targetFolderIsEmpty());
}

void TestCrossDeviceMove::whatCouldNotBeRemovedIsNotCopied_data()
{
    QTest::addColumn<QByteArray>("closed");
    QTest::addColumn<int>("mode");
    QTest::newRow("the source's folder is read-only") << QByteArray("in") << 0555;
    QTest::newRow("a folder in the tree is read-only") << QByteArray("in/source.dat/sub") << 0555;
    QTest::newRow("a folder in the tree cannot be listed") << QByteArray("in/source.dat/sub") << 0333;
    QTest::newRow("a folder in the tree cannot be entered") << QByteArray("in/source.dat/sub") << 0666;
}

void TestCrossDeviceMove::whatCouldNotBeRemovedIsNotCopied()
{
    QFETCH(const QByteArray, closed);
    QFETCH(const int, mode);
    makeFolder(m_source);
    makeFolder(m_source + "/sub");
    writeFile(m_source + "/sub/file", "content");
    for (const std::string& folder :
         {m_here->path(), m_here->path() + "/in", m_source, m_source + "/sub", m_there->path(), m_out})
        QCOMPARE(::chmod(folder.c_str(), 0777), 0);
    const std::string closedPath = m_here->path() + '/' + closed.toStdString();
    QCOMPARE(::chmod(closedPath.c_str(), mode_t(mode)), 0);

    const InterceptedRun run = runIntercepted(
        {"mkdirat", "pwrite64"},
        [this] {
            becomeOrdinary();
            return FileMove().moveItem(m_source, m_target);
        },
        [](const InterceptedCall&) { return Answer::proceed(); });
    QCOMPARE(run.error, EACCES);
    QVERIFY(run.calls.empty());
    QCOMPARE(::chmod(closedPath.c_str(), 0777), 0);
    QCOMPARE(contents(m_source + "/sub/file"), QByteArray("content"));
    QVERIFY(targetFolderIsEmpty());
}

// The kernel says so by itself only within one volume; a folder that is mounted twice looks like two.
void TestCrossDeviceMove::aFolderIntoItself()
{
    makeFolder(m_source);
    makeFolder(m_source + "/sub");
    writeFile(m_source + "/sub/file", "content");
    for (const char* inside : {"/target", "/sub/target"}) {
        QCOMPARE(moveGated(m_source, m_source + inside, crossing).error, EINVAL);
        QCOMPARE(namesIn(m_source), QByteArrayList{"sub"});
        QCOMPARE(namesIn(m_source + "/sub"), QByteArrayList{"file"});
    }
}

HARBEX_TEST_MAIN(TestCrossDeviceMove)

#include "tst_CrossDeviceMove.moc"
