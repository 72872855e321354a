#include "store/Bookmark.h"
#include "support/EngineFiles.h"
#include "support/RandomSeed.h"
#include "support/SyscallInterceptor.h"
#include "support/TestMain.h"

#include <QCryptographicHash>
#include <QDataStream>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <seccomp.h>
#include <sys/stat.h>
#include <thread>

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

const std::string nothing = "(nothing)";

/// The path to which a bookmark resolves, or "(nothing)".
std::string resolved(const QByteArray& bookmark)
{
    const auto url = resolveBookmark(bookmark, MountTable());
    return url ? url->path() : nothing;
}

/// Runs `action` on a thread on which the system gives no file handles.
template <class Action>
void withoutFileHandles(Action action)
{
    // The filter applies to its thread and ends with it.
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

QByteArray checksum(const QByteArray& bytes)
{
    return QCryptographicHash::hash(bytes, QCryptographicHash::Sha256);
}

/// Adds the header and the checksum.
QByteArray sealed(const QByteArray& fields)
{
    return header + fields + checksum(header + fields);
}

/// Removes the header and the checksum.
QByteArray fieldsOf(const QByteArray& bookmark)
{
    return bookmark.sliced(header.size()).chopped(32);
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

void makeFile(const fs::path& path, mode_t type)
{
    if (::mknod(path.c_str(), type | 0600, 0) != 0) qFatal("no file at %s", path.c_str());
}

} // namespace

class TestBookmark : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { m_scratch = std::make_unique<ScratchFolder>(); }
    void cleanup() { m_scratch.reset(); }

    void resolvesAfter_data()
    {
        // Shell commands that run in the parent of the folder "Downloads".
        QTest::addColumn<QByteArray>("commands");
        // The new name in the parent; empty if the bookmark does not resolve.
        QTest::addColumn<QByteArray>("name");
        const auto row = [](const char* commands, const char* name = "") {
            QTest::newRow(commands) << QByteArray(commands) << QByteArray(name);
        };
        row("true", "Downloads");
        row("mkdir Downloads/inside; chmod 700 Downloads", "Downloads");
        row("mv Downloads Old; mkdir Downloads", "Old");
        row("mv Downloads ..; mv ../Downloads Back", "Back");

        row("mv Downloads ..");
        row("mkdir Other; mv Downloads Other");
        row("mv Downloads ..; mkdir Downloads");
        row("mv Downloads ..; ln -s ../Downloads link");
        row("mv Downloads Old; cp -a Old Downloads; rmdir Old");
        row("rmdir Downloads");
        row("mv ../parent ../renamed");
        row("mv ../parent ../renamed; mkfifo ../parent");
        // A new entry often gets the inode number of the deleted folder.
        for (const char* makeNew :
             {"mkdir Downloads", "mkdir Other", "touch Downloads", "mkfifo Downloads"}) {
            for (int i = 0; i < 10; ++i)
                QTest::addRow("rmdir, %s, %d", makeNew, i)
                    << QByteArray("rmdir Downloads; ") + makeNew << QByteArray();
        }
    }

    void resolvesAfter()
    {
        QFETCH(const QByteArray, commands);
        QFETCH(const QByteArray, name);
        for (const std::string& volume : {fs::temp_directory_path().string(), std::string("/dev/shm")}) {
            const ScratchFolder place(volume);
            const fs::path parent = place.makeFolder("parent");
            fs::create_directory(parent / "Downloads");
            const QByteArray bookmark = bookmarkOf(parent / "Downloads");
            QCOMPARE(std::system(("cd " + parent.string() + " && set -e; " + commands.toStdString()).c_str()),
                     0);
            const std::string expected = name.isEmpty() ? nothing : (parent / name.toStdString()).string();
            QVERIFY2(resolved(bookmark) == expected, volume.c_str());
        }
    }

    void resolvesToANewNameOfAnyBytes()
    {
        fs::path folder = makeFolder("Downloads \xff\n%");
        makeFolder("Other");
        const QByteArray bookmark = bookmarkOf(folder);
        for (const std::string& name : {std::string("Incoming"), std::string(".incoming"), std::string("..."),
                                        std::string("incoming"), std::string("\xc3\x28\n\xff"),
                                        std::string("a%2Fb?#"), std::string(255, 'x'), std::string("\\")}) {
            QCOMPARE(resolved(bookmark), folder.string());
            fs::rename(folder, scratch() / name);
            folder = scratch() / name;
        }
        QCOMPARE(resolved(bookmark), folder.string());
    }

    // The window waits for the result, and a server may not answer.
    void aRemoteVolumeIsNotAccessed()
    {
        const fs::path folder = makeFolder("Downloads");
        const QByteArray bookmark = bookmarkOf(folder);
        const auto tableWith = [&](const char* type) {
            return MountTable::parse("36 35 0:40 / " + folder.parent_path().string() + " rw - " + type +
                                     " x rw");
        };
        QVERIFY(resolveBookmark(bookmark, tableWith("ext4")) == FileUrl::fromPath(folder.string()));
        QVERIFY(!resolveBookmark(bookmark, tableWith("nfs4")));
        QVERIFY(!resolveBookmark(bookmark, tableWith("fuse.sshfs")));
    }

    void linksOnThePathAreKept()
    {
        const fs::path folder = makeFolder("Downloads");
        const fs::path links = makeFolder("links");
        const fs::path link = links / "link";
        fs::create_directory_symlink(folder, link);
        fs::create_directory_symlink(scratch(), links / "up");
        const QByteArray ofLink = bookmarkOf(link);
        const QByteArray throughLink = bookmarkOf(links / "up" / "Downloads");
        QCOMPARE(resolved(ofLink), link.string());
        QCOMPARE(resolved(throughLink), (links / "up" / "Downloads").string());

        fs::rename(folder, scratch() / "Renamed");
        QCOMPARE(resolved(throughLink), (links / "up" / "Renamed").string());
        fs::remove(link);
        fs::create_directory_symlink(makeFolder("Other"), link);
        QCOMPARE(resolved(ofLink), nothing);
    }

    void trailingSlashesAreDropped()
    {
        const fs::path folder = makeFolder("Downloads");
        const QByteArray bookmark = bookmarkOf(folder.string() + "//");
        QCOMPARE(resolved(bookmark), folder.string());
        fs::rename(folder, scratch() / "Renamed");
        QCOMPARE(resolved(bookmark), (scratch() / "Renamed").string());
        QCOMPARE(resolved(bookmarkOf("/")), std::string("/"));
    }

    void inodeNumberAloneDoesNotProveARenaming()
    {
        const fs::path folder = makeFolder("Downloads");
        const QByteArray bookmark = bookmarkWithInodeOnly(folder.string(), inodeOf(folder));
        QCOMPARE(resolved(bookmark), folder.string());
        fs::rename(folder, scratch() / "Renamed");
        QCOMPARE(resolved(bookmark), nothing);
    }

    void withoutFileHandlesTheBirthTimeIdentifies()
    {
        // The file system of temporary files may keep no birth time.
        const ScratchFolder place("/dev/shm");
        const fs::path folder = place.makeFolder("a");
        const fs::path renamed = place.path() + "/b";
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

    // A parent folder can have very many other folders.
    void onlyTheRenamedFolderIsOpened()
    {
        const fs::path parent = makeFolder("parent");
        for (int i = 0; i < 50; ++i)
            fs::create_directory(parent / ("sibling" + std::to_string(i)));
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
        QCOMPARE(opened, (std::vector<std::string>{"sibling0", "renamed"}));
    }

    void onlyAFolderHasABookmark()
    {
        makeFile(scratch() / "file", S_IFREG);
        makeFile(scratch() / "pipe", S_IFIFO);
        fs::create_symlink(scratch() / "nowhere", scratch() / "dangling");
        fs::create_symlink(scratch() / "file", scratch() / "link");
        const auto errorOf = [](const std::string& path) {
            const auto bookmark = createBookmark(path);
            return bookmark ? 0 : bookmark.error().code;
        };
        for (const char* name : {"file", "pipe", "link"})
            QVERIFY2(errorOf((scratch() / name).string()) == ENOTDIR, name);
        for (const char* name : {"dangling", "missing"})
            QVERIFY2(errorOf((scratch() / name).string()) == ENOENT, name);
        QCOMPARE(errorOf("/" + std::string(5'000, 'a')), ENAMETOOLONG);
        for (const std::string& noAbsolutePath :
             {std::string(), std::string("."), std::string("/tmp\0/x", 7)})
            QVERIFY2(errorOf(noAbsolutePath) == ENOENT, noAbsolutePath.c_str());
    }

    void foreignBytesDoNotResolve()
    {
        const QByteArray bookmark = bookmarkOf(makeFolder("Downloads"));
        const QByteArray foreign[] = {
            {},
            "x",
            header,
            QByteArray(32, '\0'),
            QByteArray(100'000, '\xff'),
            "book\0\0\0\0mark",
            checksum({}),
            bookmark.toBase64(),
            bookmark + '\0',
            '\0' + bookmark,
            bookmark + bookmark,
            QByteArray(bookmark).replace("bookmark 1", "bookmark 2"),
        };
        for (const QByteArray& bytes : foreign)
            QVERIFY2(resolved(bytes) == nothing, bytes.toHex());
        QVERIFY(resolved(bookmark) != nothing);
    }

    void damagedBookmarkDoesNotResolve()
    {
        const QByteArray bookmark = bookmarkOf(makeFolder("Downloads"));
        for (qsizetype i = 0; i < bookmark.size(); ++i) {
            QCOMPARE(resolved(bookmark.first(i)), nothing);
            QCOMPARE(resolved(bookmark.last(i)), nothing);
            for (int bit = 0; bit < 8; ++bit) {
                QByteArray damaged = bookmark;
                damaged[i] = static_cast<char>(damaged[i] ^ (1 << bit));
                QCOMPARE(resolved(damaged), nothing);
            }
        }
    }

    void wrongFieldsWithARightChecksumDoNotResolve()
    {
        const fs::path folder = makeFolder("Downloads");
        const quint64 inode = inodeOf(folder);
        const QByteArray fields = fieldsOf(bookmarkWithInodeOnly(folder.string(), inode));
        QCOMPARE(resolved(sealed(fields)), folder.string());

        for (qsizetype length = 0; length < fields.size(); ++length)
            QCOMPARE(resolved(sealed(fields.first(length))), nothing);
        QCOMPARE(resolved(sealed(fields + '\0')), nothing);
        // Lengths of the path beyond the end, up to those that would fill the memory.
        for (const char* length : {"7fffffff", "fffffffe", "ffffffff", "80000000", "00100000"})
            QCOMPARE(resolved(sealed(QByteArray::fromHex(length) + fields.sliced(4))), nothing);
        const std::string noPaths[] = {{},
                                       "Downloads",
                                       ".",
                                       folder.string() + std::string("\0", 1),
                                       std::string("/\0", 2),
                                       "/" + std::string(100'000, 'a')};
        for (const std::string& path : noPaths)
            QVERIFY2(resolved(bookmarkWithInodeOnly(path, inode)) == nothing, path.c_str());
    }

    void randomBytesNeverCrash()
    {
        std::mt19937 random = seededRandom();
        const QByteArray bookmark = bookmarkOf(makeFolder("Downloads"));
        for (int i = 0; i < 10'000; ++i) {
            const QByteArray bytes = randomlyDamaged(random, bookmark);
            QVERIFY2(bytes == bookmark || resolved(bytes) == nothing, bytes.toHex());
            // With a right checksum it may resolve, if only fields that are not compared have changed.
            const QByteArray fields = randomlyDamaged(random, fieldsOf(bookmark));
            const std::string path = resolved(sealed(fields));
            QVERIFY2(path == nothing || fs::is_directory(path), fields.toHex());
        }
    }

private:
    [[nodiscard]] fs::path scratch() const { return m_scratch->path(); }
    fs::path makeFolder(const char* name) const { return m_scratch->makeFolder(name); }

    std::unique_ptr<ScratchFolder> m_scratch;
};

HARBEX_TEST(TestBookmark)

#include "tst_Bookmark.moc"
