#include "base/FileIdentity.h"
#include "store/Bookmark.h"
#include "support/EngineFiles.h"
#include "support/TestMain.h"

#include <QCryptographicHash>
#include <QDataStream>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string_view>
#include <sys/stat.h>

using namespace harbex;
using namespace harbex::test;
namespace fs = std::filesystem;

namespace
{

QByteArray bookmarkOf(const fs::path& folder)
{
    return *createBookmark(folder.string());
}

const std::string nothing = "(nothing)";

/// The path to which a bookmark resolves, or "(nothing)".
std::string resolved(const QByteArray& bookmark, const MountTable& mounts = {})
{
    const SearchBounds bounds{.deadline = std::chrono::steady_clock::time_point::max()};
    const auto urls = resolveBookmarks({bookmark}, mounts, bounds);
    return urls.empty() ? nothing : urls.at(bookmark).path();
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

} // namespace

class TestBookmark : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        // In memory: a busy disk is slow, and the file system of temporary files may keep no birth time.
        m_scratch = std::make_unique<ScratchFolder>("/dev/shm");
        // No search goes beyond it.
        qputenv("HOME", QByteArray::fromStdString(m_scratch->path()));
    }

    void resolvesAfter()
    {
        // The shell commands run in the folder "parent", the parent of the folder "Downloads". `path` is the
        // new path from there; empty if the bookmark does not resolve.
        const auto check = [](const std::string& commands, const std::string& path = {}) {
            for (const std::string& volume : {fs::temp_directory_path().string(), std::string("/dev/shm")}) {
                const ScratchFolder place(volume);
                const fs::path home = place.makeFolder("home \xff\n%");
                qputenv("HOME", (home / "").c_str());
                const fs::path parent = home / "parent";
                fs::create_directories(parent / "Downloads");
                const QByteArray bookmark = bookmarkOf(parent / "Downloads");
                const std::string script = "cd '" + parent.string() + "' && set -e; " + commands;
                QCOMPARE(std::system(script.c_str()), 0);
                const fs::path expected = parent / path;
                QCOMPARE(commands + ": " + resolved(bookmark),
                         commands + ": " + (path.empty() ? nothing : expected.lexically_normal().string()));
            }
        };
        check("true", "Downloads");
        check("mkdir Downloads/inside; chmod 700 Downloads", "Downloads");
        check("mv Downloads Old", "Old");
        check("mv Downloads \"$(printf 'a\\377\\n%%b')\"", "a\xff\n%b");
        check("mv Downloads Old; mkdir Downloads", "Old");
        check("mv Downloads ..; mv ../Downloads Back", "Back");

        check("mv Downloads ..", "../Downloads");
        check("mkdir Other; mv Downloads Other", "Other/Downloads");
        check("mkdir -p a/b/c; mv Downloads a/b/c/New", "a/b/c/New");
        check("mkdir -p ../a/b/c; mv Downloads ../a/b/c/New", "../a/b/c/New");
        check("mkdir Other; mv Downloads Other/.New", "Other/.New");
        check("mv Downloads ..; mkdir Downloads", "../Downloads");
        check("mv Downloads ..; touch Downloads", "../Downloads");
        check("mv ../parent ../renamed", "../renamed/Downloads");
        check("mv ../parent ../renamed; mkfifo ../parent", "../renamed/Downloads");
        check("mkdir ../new; mv ../parent ../new/renamed; mkdir ../parent", "../new/renamed/Downloads");
        check("mv Downloads ../x; rmdir ../parent; mv ../x ../parent", "../parent");
        check("d=$(printf 'a\\377\\n%%b'); mkdir \"$d\"; mv Downloads \"$d\"", "a\xff\n%b/Downloads");
        // Links are not followed.
        check("mv Downloads ..; ln -s ../Downloads link", "../Downloads");
        check("mkdir ../Other; mv Downloads ../Other; ln -s ../Other link", "../Other/Downloads");
        check("mkdir ../../Other; mv Downloads ../../Other; ln -s ../../Other link");

        // A copy, for example from a backup, is not the folder.
        check("mv Downloads Old; cp -a Old Downloads; rm -r Old");
        check("cp -a Downloads Copy; rmdir Downloads");
        check("mkdir Other; cp -a Downloads Other; rmdir Downloads");
        check("mkdir -p .hidden/x; mv Downloads .hidden/x");
        check("mkdir -p ../.local/share/Trash/files; mv Downloads ../.local/share/Trash/files");
        check("mkdir -p Trash/files; mv Downloads Trash/files");
        check("mkdir -p '$RECYCLE.BIN/x'; mv Downloads '$RECYCLE.BIN/x'");
        check("mv Downloads ../..");
        // A new entry often gets the inode number of the deleted folder.
        for (const char* makeNew : {"", "mkdir Downloads", "mkdir Other", "touch Downloads"})
            check(std::string("rmdir Downloads; ") + makeNew);
    }

    void resolvesBehindTenThousandFolders()
    {
        const fs::path folder = makeFolder("Downloads");
        const QByteArray bookmark = bookmarkOf(folder);
        for (int i = 0; i < 10'000; ++i)
            makeFolder(std::to_string(i));
        const fs::path inside = makeFolder("5000/inside");
        fs::rename(folder, inside / "Downloads");
        QCOMPARE(resolved(bookmark), (inside / "Downloads").string());
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
        QCOMPARE(resolved(bookmark, tableWith("ext4")), folder.string());
        QCOMPARE(resolved(bookmark, tableWith("nfs4")), nothing);
        QCOMPARE(resolved(bookmark, tableWith("fuse.sshfs")), nothing);
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
        QCOMPARE(resolved(ofLink), (scratch() / "Renamed").string());
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

    // Other releases read it.
    void theLayoutOfABookmark()
    {
        const std::string folder = makeFolder("Downloads").string();
        const FolderIdentity identity = *identityOfFolder(folder);
        QByteArray fields;
        QDataStream stream(&fields, QIODevice::WriteOnly);
        stream.setVersion(QDataStream::Qt_6_0);
        stream << QByteArray::fromStdString(folder) << identity.inode << identity.birthSeconds
               << identity.birthNanoseconds << identity.handleType << identity.handle;
        QCOMPARE(bookmarkOf(folder), sealed(fields));
    }

    // The number of a deleted folder is given to a new one. The rest of the identity tells them apart.
    void eachPartOfTheIdentityCounts()
    {
        const std::string folder = makeFolder("Downloads").string();
        const QByteArray fields = fieldsOf(bookmarkOf(folder));
        QCOMPARE(resolved(sealed(fields)), folder);
        for (qsizetype i = 4 + qsizetype(folder.size()); i < fields.size(); ++i) {
            QByteArray other = fields;
            other[i] = char(other[i] ^ 1);
            QVERIFY2(resolved(sealed(other)) == nothing, QByteArray::number(i));
        }
    }

    void theIdentityMayLackParts()
    {
        const std::string folder = makeFolder("Downloads").string();
        const FolderIdentity whole = *identityOfFolder(folder);
        QVERIFY(whole.hasBirthTime() && whole.hasHandle());
        QCOMPARE(whole.birthNanoseconds, identityOf(folder)->birthNanoseconds);
        FolderIdentity withoutHandle = whole;
        withoutHandle.handle.clear();
        FolderIdentity withoutBirthTime = whole;
        withoutBirthTime.birthSeconds = withoutBirthTime.birthNanoseconds = 0;
        QVERIFY(compare(whole, withoutHandle) == Likeness::same);
        QVERIFY(compare(whole, withoutBirthTime) == Likeness::same);
        QVERIFY(compare(withoutHandle, withoutBirthTime) == Likeness::sameNumber);

        // This file system has neither. Such folders are not searched for, see tst_FolderSearch.cpp.
        QCOMPARE(resolved(bookmarkOf("/proc/fs")), std::string("/proc/fs"));
        QVERIFY(!identityOfFolder("/proc/fs")->hasBirthTime() && !identityOfFolder("/proc/fs")->hasHandle());
    }

    void onlyAFolderHasABookmark()
    {
        writeFile(scratch() / "file", "");
        QCOMPARE(::mkfifo((scratch() / "pipe").c_str(), 0600), 0);
        fs::create_symlink(scratch() / "nowhere", scratch() / "dangling");
        fs::create_symlink(scratch() / "file", scratch() / "link");
        for (const char* name : {"file", "pipe", "link"})
            QCOMPARE(createBookmark((scratch() / name).string()).error().code, ENOTDIR);
        for (const char* name : {"dangling", "missing"})
            QCOMPARE(createBookmark((scratch() / name).string()).error().code, ENOENT);
        QCOMPARE(createBookmark("/" + std::string(5'000, 'a')).error().code, ENAMETOOLONG);
        for (const std::string& noAbsolutePath :
             {std::string(), std::string("."), std::string("/tmp\0/x", 7)})
            QCOMPARE(createBookmark(noAbsolutePath).error().code, ENOENT);
    }

    void foreignOrDamagedBytesDoNotResolve()
    {
        const QByteArray bookmark = bookmarkOf(makeFolder("Downloads"));
        QVERIFY(resolved(bookmark) != nothing);
        for (const QByteArray& bytes :
             {QByteArray(100'000, '\xff'), checksum({}), bookmark + '\0', '\0' + bookmark})
            QVERIFY2(resolved(bytes) == nothing, bytes.toHex());
        for (qsizetype i = 0; i < bookmark.size(); ++i) {
            QCOMPARE(resolved(bookmark.first(i)), nothing);
            QCOMPARE(resolved(bookmark.last(i)), nothing);
            QByteArray damaged = bookmark;
            damaged[i] = static_cast<char>(damaged[i] ^ 1);
            QCOMPARE(resolved(damaged), nothing);
        }
    }

    void wrongFieldsWithARightChecksumDoNotResolve()
    {
        const fs::path folder = makeFolder("Downloads");
        const QByteArray fields = fieldsOf(bookmarkOf(folder));
        for (qsizetype length = 0; length < fields.size(); ++length)
            QCOMPARE(resolved(sealed(fields.first(length))), nothing);
        // Another text of length 0, and one byte more.
        QCOMPARE(resolved(sealed(fields + QByteArray(5, '\0'))), nothing);
        // Lengths of the path beyond the end, up to those that would fill the memory.
        for (const char* length : {"7fffffff", "fffffffe", "ffffffff", "80000000", "00100000"})
            QCOMPARE(resolved(sealed(QByteArray::fromHex(length) + fields.sliced(4))), nothing);
        for (const QByteArray& noPath :
             {QByteArray(), QByteArray("Downloads"), QByteArray("."), QByteArray("/\0", 2),
              QByteArray::fromStdString(folder.string()) + '\0', '/' + QByteArray(100'000, 'a')}) {
            QByteArray changed;
            QDataStream stream(&changed, QIODevice::WriteOnly);
            stream << noPath;
            changed += fields.sliced(4 + qsizetype(folder.string().size()));
            QVERIFY2(resolved(sealed(changed)) == nothing, noPath);
        }
    }

private:
    [[nodiscard]] fs::path scratch() const { return m_scratch->path(); }
    fs::path makeFolder(std::string_view name) const { return m_scratch->makeFolder(name); }

    std::unique_ptr<ScratchFolder> m_scratch;
};

HARBEX_TEST(TestBookmark)

#include "tst_Bookmark.moc"
