#include "store/Bookmark.h"
#include "support/RandomSeed.h"
#include "support/SyscallInterceptor.h"
#include "support/TestMain.h"

#include <QCryptographicHash>
#include <QDataStream>
#include <QTemporaryDir>

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <seccomp.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

using namespace harbex;
using namespace harbex::test;
namespace fs = std::filesystem;

namespace
{

QByteArray bookmarkOf(const fs::path& folder)
{
    const auto bookmark = createBookmark(folder.string());
    if (!bookmark) qFatal("no bookmark: %s", bookmark.error().description().c_str());
    return *bookmark;
}

/// The path to which it resolves, or "(nothing)".
std::string resolved(const QByteArray& bookmark)
{
    const auto url = resolveBookmark(bookmark, MountTable());
    return url ? url->path() : "(nothing)";
}

const std::string nothing = "(nothing)";

/// The errno with which no bookmark can be made, 0 when there is one.
int errorOf(const std::string& path)
{
    const auto bookmark = createBookmark(path);
    return bookmark ? 0 : bookmark.error().code;
}

/// Runs `action` on a thread on which the system gives no file handles.
template <class Action>
void withoutFileHandles(Action action)
{
    // A filter holds for its thread and cannot be taken back: it ends with the thread.
    std::jthread([&action] {
        const std::unique_ptr<void, decltype(&::seccomp_release)> filter(::seccomp_init(SCMP_ACT_ALLOW),
                                                                         &::seccomp_release);
        const int rule =
            ::seccomp_rule_add(filter.get(), SCMP_ACT_ERRNO(EPERM), SCMP_SYS(name_to_handle_at), 0);
        if (rule != 0 || ::seccomp_load(filter.get()) != 0) qFatal("no system call filter");
        action();
    }).join();
}

const QByteArray header = "harbex bookmark 1\n";

/// Bytes that are right as far as the header and the checksum go.
QByteArray sealed(const QByteArray& fields)
{
    const QByteArray content = header + fields;
    return content + QCryptographicHash::hash(content, QCryptographicHash::Sha256);
}

/// The bookmark of a folder of which only the inode number is known.
QByteArray bookmarkWithInodeOnly(const std::string& path, quint64 inode)
{
    QByteArray fields;
    QDataStream stream(&fields, QIODevice::WriteOnly);
    stream.setVersion(QDataStream::Qt_6_0);
    stream << QByteArray::fromStdString(path) << inode << qint64(0) << quint32(0) << qint32(0)
           << QByteArray();
    return sealed(fields);
}

quint64 inodeOf(const fs::path& path)
{
    struct stat data = {};
    if (::stat(path.c_str(), &data) != 0) qFatal("nothing at %s", path.c_str());
    return data.st_ino;
}

} // namespace

class TestBookmark : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup() { m_scratch.reset(); }

    // Where the folder is found.
    void resolvesToThePathItWasMadeFor();
    void aRemoteVolumeIsNotAsked();
    void resolvesToTheNewNameInTheSameParent_data();
    void resolvesToTheNewNameInTheSameParent();
    void resolvesToANewNameOfAnyBytes();
    void resolvesOnEveryFileSystem_data();
    void resolvesOnEveryFileSystem();
    void followsTheFolderWhenAnotherOneTookItsName();
    void contentOfTheFolderDoesNotMatter();
    void pathOfALinkIsKept();
    void trailingSlashIsDropped();
    void rootHasABookmark();

    // Where it is not.
    void replacedFolderDoesNotResolve();
    void folderDeletedAndMadeAgainDoesNotResolve();
    void restoredCopyDoesNotResolve();
    void folderMovedToAnotherParentDoesNotResolve();
    void folderMovedDeeperDoesNotResolve();
    void deletedFolderDoesNotResolve();
    void fileInPlaceOfTheFolderDoesNotResolve();
    void linkToAnotherFolderDoesNotResolve();
    void linkToTheFolderUnderAnotherNameIsNotTaken();
    void lostParentDoesNotResolve();
    void inodeNumberAloneDoesNotProveARenaming();

    // What the system does not tell.
    void withoutFileHandlesTheBirthTimeIdentifies();
    void amongManySiblingsOnlyTheRightOneIsOpened();

    // No bookmark.
    void noBookmarkOfWhatIsNoFolder();
    void noBookmarkOfWhatIsNoAbsolutePath();
    void foreignBytesDoNotResolve();
    void everyTruncationDoesNotResolve();
    void everyDamagedByteDoesNotResolve();
    void wellSealedNonsenseDoesNotResolve();
    void randomBytesNeverCrash();

private:
    [[nodiscard]] fs::path scratch() const { return m_scratch->path().toStdString(); }

    fs::path makeFolder(const char* name) const
    {
        const fs::path folder = scratch() / name;
        fs::create_directory(folder);
        return folder;
    }

    std::unique_ptr<QTemporaryDir> m_scratch;
};

void TestBookmark::init()
{
    m_scratch = std::make_unique<QTemporaryDir>();
    QVERIFY(m_scratch->isValid());
}

void TestBookmark::resolvesToThePathItWasMadeFor()
{
    const fs::path folder = makeFolder("Downloads");
    QVERIFY(resolveBookmark(bookmarkOf(folder), MountTable()) == FileUrl::fromPath(folder.string()));
}

// Its server may not answer, and the window waits for this.
void TestBookmark::aRemoteVolumeIsNotAsked()
{
    const fs::path folder = makeFolder("Downloads");
    const QByteArray bookmark = bookmarkOf(folder);
    const auto tableWith = [&](const char* type) {
        return MountTable::parse("36 35 0:40 / " + folder.parent_path().string() + " rw - " + type + " x rw");
    };
    QVERIFY(resolveBookmark(bookmark, tableWith("ext4")) == FileUrl::fromPath(folder.string()));
    QVERIFY(!resolveBookmark(bookmark, tableWith("nfs4")));
    QVERIFY(!resolveBookmark(bookmark, tableWith("fuse.sshfs")));
}

void TestBookmark::resolvesToTheNewNameInTheSameParent_data()
{
    QTest::addColumn<QByteArray>("newName");
    QTest::newRow("plain") << QByteArray("Incoming");
    QTest::newRow("hidden") << QByteArray(".incoming");
    QTest::newRow("dots only") << QByteArray("...");
    QTest::newRow("case only") << QByteArray("downloads");
}

void TestBookmark::resolvesToTheNewNameInTheSameParent()
{
    QFETCH(const QByteArray, newName);
    const fs::path folder = makeFolder("Downloads");
    makeFolder("Other");
    const QByteArray bookmark = bookmarkOf(folder);
    const fs::path renamed = scratch() / newName.toStdString();
    fs::rename(folder, renamed);
    QCOMPARE(resolved(bookmark), renamed.string());
}

void TestBookmark::resolvesToANewNameOfAnyBytes()
{
    const fs::path folder = makeFolder("Downloads \xff\n%");
    const QByteArray bookmark = bookmarkOf(folder);
    QCOMPARE(resolved(bookmark), folder.string());
    for (const std::string& name :
         {std::string("\xc3\x28\n\xff"), std::string("a%2Fb?#"), std::string(255, 'x'), std::string("\\")}) {
        const fs::path renamed = scratch() / name;
        fs::rename(fs::path(resolved(bookmark)), renamed);
        QCOMPARE(resolved(bookmark), renamed.string());
    }
}

void TestBookmark::resolvesOnEveryFileSystem_data()
{
    QTest::addColumn<QString>("place");
    QTest::newRow("that of temporary files") << QDir::tempPath();
    QTest::newRow("in memory") << QStringLiteral("/dev/shm");
}

void TestBookmark::resolvesOnEveryFileSystem()
{
    QFETCH(const QString, place);
    const QTemporaryDir scratch(place + QStringLiteral("/tst_Bookmark-XXXXXX"));
    QVERIFY2(scratch.isValid(), qPrintable(scratch.errorString()));
    const fs::path folder = scratch.filePath(QStringLiteral("a")).toStdString();
    const fs::path renamed = scratch.filePath(QStringLiteral("b")).toStdString();
    fs::create_directory(folder);
    const QByteArray bookmark = bookmarkOf(folder);
    QCOMPARE(resolved(bookmark), folder.string());
    fs::rename(folder, renamed);
    QCOMPARE(resolved(bookmark), renamed.string());
    fs::create_directory(folder);
    QCOMPARE(resolved(bookmark), renamed.string());
    fs::remove(renamed);
    QCOMPARE(resolved(bookmark), nothing);
}

void TestBookmark::followsTheFolderWhenAnotherOneTookItsName()
{
    const fs::path folder = makeFolder("Downloads");
    const QByteArray bookmark = bookmarkOf(folder);
    fs::rename(folder, scratch() / "Old downloads");
    makeFolder("Downloads");
    QCOMPARE(resolved(bookmark), (scratch() / "Old downloads").string());
}

void TestBookmark::contentOfTheFolderDoesNotMatter()
{
    const fs::path folder = makeFolder("Downloads");
    const QByteArray bookmark = bookmarkOf(folder);
    fs::create_directory(folder / "inside");
    fs::permissions(folder, fs::perms::owner_read | fs::perms::owner_exec);
    QCOMPARE(resolved(bookmark), folder.string());
    fs::permissions(folder, fs::perms::owner_all);
}

void TestBookmark::pathOfALinkIsKept()
{
    const fs::path folder = makeFolder("Downloads");
    fs::create_directory(scratch() / "elsewhere");
    const fs::path link = scratch() / "elsewhere" / "link";
    fs::create_symlink(folder, link);
    QCOMPARE(resolved(bookmarkOf(link)), link.string());

    // Through a link on the way to the folder.
    fs::create_symlink(scratch(), scratch() / "elsewhere" / "up");
    const fs::path through = scratch() / "elsewhere" / "up" / "Downloads";
    const QByteArray bookmark = bookmarkOf(through);
    QCOMPARE(resolved(bookmark), through.string());
    fs::rename(folder, scratch() / "Renamed");
    QCOMPARE(resolved(bookmark), (scratch() / "elsewhere" / "up" / "Renamed").string());
}

void TestBookmark::trailingSlashIsDropped()
{
    const fs::path folder = makeFolder("Downloads");
    const QByteArray bookmark = bookmarkOf(folder.string() + "//");
    QCOMPARE(resolved(bookmark), folder.string());
    fs::rename(folder, scratch() / "Renamed");
    QCOMPARE(resolved(bookmark), (scratch() / "Renamed").string());
}

void TestBookmark::rootHasABookmark()
{
    QCOMPARE(resolved(bookmarkOf("/")), std::string("/"));
}

void TestBookmark::replacedFolderDoesNotResolve()
{
    const fs::path folder = makeFolder("Downloads");
    makeFolder("parent");
    const QByteArray bookmark = bookmarkOf(folder);
    fs::rename(folder, scratch() / "parent" / "Downloads");
    makeFolder("Downloads");
    QCOMPARE(resolved(bookmark), nothing);
}

void TestBookmark::folderDeletedAndMadeAgainDoesNotResolve()
{
    const fs::path folder = makeFolder("Downloads");
    const QByteArray bookmark = bookmarkOf(folder);
    // Often gets the inode number of the deleted one again.
    for (int i = 0; i < 20; ++i) {
        fs::remove(folder);
        makeFolder("Downloads");
        QCOMPARE(resolved(bookmark), nothing);
        fs::remove(folder);
        makeFolder("Other");
        QCOMPARE(resolved(bookmark), nothing);
        fs::remove(scratch() / "Other");
    }
}

void TestBookmark::restoredCopyDoesNotResolve()
{
    const fs::path folder = makeFolder("Downloads");
    const QByteArray bookmark = bookmarkOf(folder);
    fs::rename(folder, scratch() / "original");
    fs::copy(scratch() / "original", folder, fs::copy_options::recursive);
    fs::remove(scratch() / "original");
    QCOMPARE(resolved(bookmark), nothing);
}

void TestBookmark::folderMovedToAnotherParentDoesNotResolve()
{
    const fs::path parent = makeFolder("parent");
    fs::create_directory(parent / "Downloads");
    const QByteArray bookmark = bookmarkOf(parent / "Downloads");
    fs::rename(parent / "Downloads", scratch() / "Downloads");
    QCOMPARE(resolved(bookmark), nothing);
    fs::rename(scratch() / "Downloads", parent / "Back");
    QCOMPARE(resolved(bookmark), (parent / "Back").string());
}

void TestBookmark::folderMovedDeeperDoesNotResolve()
{
    const fs::path folder = makeFolder("Downloads");
    const QByteArray bookmark = bookmarkOf(folder);
    makeFolder("parent");
    fs::rename(folder, scratch() / "parent" / "Downloads");
    QCOMPARE(resolved(bookmark), nothing);
}

void TestBookmark::deletedFolderDoesNotResolve()
{
    const fs::path folder = makeFolder("Downloads");
    const QByteArray bookmark = bookmarkOf(folder);
    fs::remove(folder);
    QCOMPARE(resolved(bookmark), nothing);
}

void TestBookmark::fileInPlaceOfTheFolderDoesNotResolve()
{
    const fs::path folder = makeFolder("Downloads");
    const QByteArray bookmark = bookmarkOf(folder);
    fs::remove(folder);
    for (int i = 0; i < 20; ++i) {
        QVERIFY(::mknod(folder.c_str(), i % 2 == 0 ? S_IFREG | 0600 : S_IFIFO | 0600, 0) == 0);
        QCOMPARE(resolved(bookmark), nothing);
        fs::remove(folder);
    }
}

void TestBookmark::linkToAnotherFolderDoesNotResolve()
{
    const fs::path folder = makeFolder("Downloads");
    const fs::path parent = makeFolder("parent");
    const fs::path link = parent / "link";
    fs::create_symlink(folder, link);
    const QByteArray bookmark = bookmarkOf(link);
    fs::remove(link);
    fs::create_symlink(makeFolder("Other"), link);
    QCOMPARE(resolved(bookmark), nothing);
}

void TestBookmark::linkToTheFolderUnderAnotherNameIsNotTaken()
{
    const fs::path parent = makeFolder("parent");
    fs::create_directory(parent / "Downloads");
    const QByteArray bookmark = bookmarkOf(parent / "Downloads");
    fs::rename(parent / "Downloads", scratch() / "Downloads");
    fs::create_symlink(scratch() / "Downloads", parent / "link");
    QCOMPARE(resolved(bookmark), nothing);
}

void TestBookmark::lostParentDoesNotResolve()
{
    const fs::path parent = makeFolder("parent");
    fs::create_directory(parent / "Downloads");
    const QByteArray bookmark = bookmarkOf(parent / "Downloads");
    fs::rename(parent, scratch() / "renamed");
    QCOMPARE(resolved(bookmark), nothing);
    QVERIFY(::mkfifo(parent.c_str(), 0600) == 0);
    QCOMPARE(resolved(bookmark), nothing);
}

void TestBookmark::inodeNumberAloneDoesNotProveARenaming()
{
    const fs::path folder = makeFolder("Downloads");
    const QByteArray bookmark = bookmarkWithInodeOnly(folder.string(), inodeOf(folder));
    QCOMPARE(resolved(bookmark), folder.string());
    fs::rename(folder, scratch() / "Renamed");
    QCOMPARE(resolved(bookmark), nothing);
}

void TestBookmark::withoutFileHandlesTheBirthTimeIdentifies()
{
    // On the file system of temporary files, which may keep no birth time, this would show nothing.
    const QTemporaryDir place(QStringLiteral("/dev/shm/tst_Bookmark-XXXXXX"));
    QVERIFY2(place.isValid(), qPrintable(place.errorString()));
    const fs::path folder = place.filePath(QStringLiteral("a")).toStdString();
    const fs::path renamed = place.filePath(QStringLiteral("b")).toStdString();
    fs::create_directory(folder);
    const QByteArray withHandle = bookmarkOf(folder);
    QByteArray withoutHandle;
    withoutFileHandles([&] { withoutHandle = bookmarkOf(folder); });
    QVERIFY(withoutHandle.size() < withHandle.size());

    const auto check = [&](const std::string& expected) {
        QCOMPARE(resolved(withHandle), expected);
        QCOMPARE(resolved(withoutHandle), expected);
        withoutFileHandles([&] {
            QCOMPARE(resolved(withHandle), expected);
            QCOMPARE(resolved(withoutHandle), expected);
        });
    };
    check(folder.string());
    fs::rename(folder, renamed);
    check(renamed.string());
    fs::create_directory(folder);
    check(renamed.string());
    fs::remove(renamed);
    check(nothing);
}

void TestBookmark::amongManySiblingsOnlyTheRightOneIsOpened()
{
    const fs::path parent = scratch() / "parent";
    for (int i = 0; i < 500; ++i)
        fs::create_directories(parent / ("sibling" + std::to_string(i)));
    const QByteArray bookmark = bookmarkOf(parent / "sibling0");
    fs::rename(parent / "sibling0", parent / "renamed");

    const auto work = [&]() -> Outcome<void> {
        if (resolved(bookmark) != (parent / "renamed").string()) return SystemError{ENOENT};
        return {};
    };
    std::vector<std::string> opened;
    const InterceptedRun run = runIntercepted({"openat"}, work, [&](const InterceptedCall& call) {
        const std::string name = fs::path(call.text(1)).filename();
        if (name == "renamed" || name.starts_with("sibling")) opened.push_back(name);
        return Answer::proceed();
    });
    QVERIFY(run.succeeded());
    // The first at the place where it was.
    QCOMPARE(opened, (std::vector<std::string>{"sibling0", "renamed"}));
}

void TestBookmark::noBookmarkOfWhatIsNoFolder()
{
    const fs::path file = scratch() / "file";
    QVERIFY(::mknod(file.c_str(), S_IFREG | 0600, 0) == 0);
    QVERIFY(::mkfifo((scratch() / "pipe").c_str(), 0600) == 0);
    fs::create_symlink(scratch() / "nowhere", scratch() / "dangling");
    fs::create_symlink(file, scratch() / "link");
    QCOMPARE(errorOf(file.string()), ENOTDIR);
    QCOMPARE(errorOf((scratch() / "pipe").string()), ENOTDIR);
    QCOMPARE(errorOf((scratch() / "link").string()), ENOTDIR);
    QCOMPARE(errorOf((scratch() / "dangling").string()), ENOENT);
    QCOMPARE(errorOf((scratch() / "missing").string()), ENOENT);
    QCOMPARE(errorOf("/" + std::string(5'000, 'a')), ENAMETOOLONG);
}

void TestBookmark::noBookmarkOfWhatIsNoAbsolutePath()
{
    QCOMPARE(errorOf(""), ENOENT);
    QCOMPARE(errorOf("."), ENOENT);
    QCOMPARE(errorOf(std::string("/tmp\0/x", 7)), ENOENT);
}

void TestBookmark::foreignBytesDoNotResolve()
{
    const QByteArray bookmark = bookmarkOf(makeFolder("Downloads"));
    const QByteArray foreign[] = {
        {},
        "x",
        header,
        QByteArray(32, '\0'),
        QByteArray(100'000, '\xff'),
        "book\0\0\0\0mark",
        QCryptographicHash::hash({}, QCryptographicHash::Sha256),
        bookmark.toBase64(),
        bookmark + '\0',
        '\0' + bookmark,
        bookmark + bookmark,
        QByteArray(bookmark).replace("bookmark 1", "bookmark 2"),
    };
    for (const QByteArray& bytes : foreign)
        QCOMPARE(resolved(bytes), nothing);
    QVERIFY(resolved(bookmark) != nothing);
}

void TestBookmark::everyTruncationDoesNotResolve()
{
    const QByteArray bookmark = bookmarkOf(makeFolder("Downloads"));
    for (qsizetype length = 0; length < bookmark.size(); ++length) {
        QCOMPARE(resolved(bookmark.first(length)), nothing);
        QCOMPARE(resolved(bookmark.last(length)), nothing);
    }
}

void TestBookmark::everyDamagedByteDoesNotResolve()
{
    const QByteArray bookmark = bookmarkOf(makeFolder("Downloads"));
    for (qsizetype i = 0; i < bookmark.size(); ++i) {
        for (int bit = 0; bit < 8; ++bit) {
            QByteArray damaged = bookmark;
            damaged[i] = static_cast<char>(damaged[i] ^ (1 << bit));
            QCOMPARE(resolved(damaged), nothing);
        }
    }
}

void TestBookmark::wellSealedNonsenseDoesNotResolve()
{
    const fs::path folder = makeFolder("Downloads");
    const QByteArray good = bookmarkWithInodeOnly(folder.string(), inodeOf(folder));
    QCOMPARE(resolved(good), folder.string());
    const QByteArray fields = good.sliced(header.size()).chopped(32);
    QCOMPARE(resolved(sealed(fields)), folder.string());

    // Too little and too much.
    for (qsizetype length = 0; length < fields.size(); ++length)
        QCOMPARE(resolved(sealed(fields.first(length))), nothing);
    QCOMPARE(resolved(sealed(fields + '\0')), nothing);
    // Lengths beyond the end, up to those that would fill the memory.
    for (const char* length : {"7fffffff", "fffffffe", "ffffffff", "80000000", "00100000"})
        QCOMPARE(resolved(sealed(QByteArray::fromHex(length) + fields.sliced(4))), nothing);
    // Paths that are none.
    const quint64 inode = inodeOf(folder);
    for (const std::string& path : {std::string(), std::string("Downloads"), std::string("."),
                                    folder.string() + std::string("\0", 1), std::string("/\0", 2)})
        QCOMPARE(resolved(bookmarkWithInodeOnly(path, inode)), nothing);
    QCOMPARE(resolved(bookmarkWithInodeOnly("/" + std::string(100'000, 'a'), inode)), nothing);
}

void TestBookmark::randomBytesNeverCrash()
{
    std::mt19937 random = seededRandom();
    const fs::path folder = makeFolder("Downloads");
    const QByteArray bookmark = bookmarkOf(folder);
    const QByteArray fields = bookmark.sliced(header.size()).chopped(32);
    for (int i = 0; i < 20'000; ++i) {
        const bool isSealed = randomBelow(random, 2) == 0;
        QByteArray bytes = isSealed ? fields : bookmark;
        for (size_t mutations = 1 + randomBelow(random, 4); mutations > 0; --mutations) {
            const auto place =
                static_cast<qsizetype>(randomBelow(random, static_cast<size_t>(bytes.size()) + 1));
            switch (randomBelow(random, 4)) {
            case 0:
                bytes.insert(place, static_cast<char>(randomBelow(random, 256)));
                break;
            case 1:
                bytes.remove(place, static_cast<qsizetype>(randomBelow(random, 8)) + 1);
                break;
            case 2:
                bytes.truncate(place);
                break;
            default:
                if (place < bytes.size()) bytes[place] = static_cast<char>(randomBelow(random, 256));
                break;
            }
        }
        // A sealed one may be right by chance where only what is not compared was changed.
        const std::string path = resolved(isSealed ? sealed(bytes) : bytes);
        if (isSealed)
            QVERIFY2(path == nothing || fs::is_directory(path), bytes.toHex());
        else
            QVERIFY2(path == nothing || bytes == bookmark, bytes.toHex());
    }
}

HARBEX_TEST_MAIN(TestBookmark)

#include "tst_Bookmark.moc"
