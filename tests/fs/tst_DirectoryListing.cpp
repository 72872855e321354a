#include "fs/DirectoryListing.h"
#include "support/EngineResources.h"
#include "support/InterceptedMove.h"
#include "support/TestMain.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

using namespace harbex;
using namespace harbex::test;

namespace
{

/// Returns the names of a listing, sorted. Empty if it fails.
QByteArrayList listed(const std::string& path)
{
    Outcome<DirectoryListing> listing = DirectoryListing::open(path);
    QByteArrayList names;
    if (!listing) return names;
    const Outcome<void> done = listing->forEachName([&](std::string_view name) {
        names << QByteArray(name.data(), static_cast<qsizetype>(name.size()));
    });
    if (!done) return {};
    std::sort(names.begin(), names.end());
    return names;
}

/// Returns the errno of opening the folder. 0 if it succeeds.
int errorOfOpening(const std::string& path)
{
    const Outcome<DirectoryListing> listing = DirectoryListing::open(path);
    return listing ? 0 : listing.error().code;
}

FileIdentity identityAt(const std::string& path)
{
    const Outcome<DirectoryListing> listing = DirectoryListing::open(path);
    if (!listing) qFatal("cannot open %s", path.c_str());
    return listing->identity();
}

std::pair<time_t, long> timeOf(clockid_t clock)
{
    timespec time;
    ::clock_gettime(clock, &time);
    return {time.tv_sec, time.tv_nsec};
}

/// Waits until new files get a later time than those made before. File systems use the coarse clock, or a
/// finer one that is not later than now.
void waitForTheNextTimestamp()
{
    const auto now = timeOf(CLOCK_REALTIME);
    while (timeOf(CLOCK_REALTIME_COARSE) <= now)
        ::usleep(500);
}

} // namespace

class TestDirectoryListing : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { m_scratch = std::make_unique<ScratchFolder>(); }

    void everyName()
    {
        std::string everyByte;
        for (int byte = 1; byte < 256; ++byte)
            if (byte != '/') everyByte.push_back(static_cast<char>(byte));
        QByteArrayList names = {"plain.txt",        ".hidden", "...",    "..a",    " ",     "new\nline",
                                "\xff\xfe invalid", "e\u0301", "\u00e9", "Letter", "letter"};
        names << QByteArray(255, 'x') << QByteArray::fromStdString(everyByte);
        for (const QByteArray& name : names)
            writeFile(at(name.toStdString()), {});
        for (const char* kind : obstacleKinds) {
            names << kind;
            makeObstacle(kind, at(kind));
        }
        names << "pipe";
        QCOMPARE(::mkfifo(at("pipe").c_str(), 0600), 0);
        std::sort(names.begin(), names.end());
        QCOMPARE(listed(m_scratch->path()), names);
    }

    void manyEntries()
    {
        // In memory, where many entries are made quickly.
        m_scratch = std::make_unique<ScratchFolder>(folderOnAnotherVolume());
        QByteArrayList names;
        for (int i = 0; i < 10'000; ++i) {
            // Records of many lengths, so that they end at many offsets of the buffer.
            names << QByteArray::number(i) + QByteArray(i % 60, 'n');
            makeLink(at(names.back().toStdString()), "x");
        }
        std::sort(names.begin(), names.end());
        QVERIFY(listed(m_scratch->path()) == names);
    }

    void aFolderBehindALink()
    {
        const std::string folder = m_scratch->makeFolder("\xff\n folder");
        writeFile(folder + "/a", {});
        makeLink(at("link"), "\xff\n folder");
        QCOMPARE(listed(folder), QByteArrayList({"a"}));
        QCOMPARE(listed(at("link")), QByteArrayList({"a"}));
        QVERIFY(identityAt(at("link")) == identityAt(folder));
    }

    void errorsOfOpening()
    {
        writeFile(at("file"), {});
        makeLink(at("dangling"), "missing");
        makeLink(at("circle"), "circle");
        QCOMPARE(::mkfifo(at("pipe").c_str(), 0600), 0);
        QCOMPARE(::chmod(m_scratch->makeFolder("forbidden").c_str(), 0300), 0);
        const std::size_t before = descriptorCount();
        QCOMPARE(errorOfOpening(at("missing")), ENOENT);
        QCOMPARE(errorOfOpening(at("dangling")), ENOENT);
        QCOMPARE(errorOfOpening({}), ENOENT);
        QCOMPARE(errorOfOpening(at("file")), ENOTDIR);
        // Opening a pipe waits for its other end.
        QCOMPARE(errorOfOpening(at("pipe")), ENOTDIR);
        QCOMPARE(errorOfOpening(at("circle")), ELOOP);
        QCOMPARE(errorOfOpening(at(std::string(256, 'x'))), ENAMETOOLONG);
        {
            const WithoutPrivileges ordinary;
            QCOMPARE(errorOfOpening(at("forbidden")), EACCES);
            QCOMPARE(::chmod(at("forbidden").c_str(), 0700), 0);
        }
        {
            const DescriptorLimit limit(0);
            QCOMPARE(errorOfOpening(m_scratch->path()), EMFILE);
        }
        QCOMPARE(errorOfOpening(m_scratch->path()), 0);
        QCOMPARE(descriptorCount(), before);
    }

    void aFolderDeletedWhileOpen()
    {
        const std::string folder = m_scratch->makeFolder("folder");
        Outcome<DirectoryListing> listing = DirectoryListing::open(folder);
        QVERIFY(listing);
        removeEntry(folder);
        const Outcome<void> done = listing->forEachName([](std::string_view) { QFAIL("a name"); });
        QVERIFY(!done);
        QCOMPARE(done.error().code, ENOENT);
    }

    void theIdentityBelongsToTheFolder()
    {
        const std::string folder = m_scratch->makeFolder("folder");
        FileIdentity identity = identityAt(folder);
        QVERIFY(!(identityAt(m_scratch->path()) == identity));
        writeFile(folder + "/a", {});
        QCOMPARE(::chmod(folder.c_str(), 0700), 0);
        waitForTheNextTimestamp();
        QVERIFY(identityAt(folder) == identity);
        renameEntry(folder, at("renamed"));
        QVERIFY(identityAt(at("renamed")) == identity);
        makeFolder(folder);
        for (int i = 0; i < 20; ++i) {
            identity = identityAt(folder);
            removeEntry(folder);
            // The new folder often gets the same inode number.
            waitForTheNextTimestamp();
            makeFolder(folder);
            QVERIFY(!(identityAt(folder) == identity));
        }
    }

    void aFolderOpenedAgainHasItsOwnPosition()
    {
        writeFile(at("a"), {});
        const FileDescriptor folder(::open(m_scratch->path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        for (int round = 0; round < 2; ++round) {
            Outcome<DirectoryListing> listing = DirectoryListing::openAgain(folder.get());
            QVERIFY(listing && listing->identity() == identityAt(m_scratch->path()));
            int names = 0;
            QVERIFY(listing->forEachName([&](std::string_view) { ++names; }));
            QCOMPARE(names, 1);
        }
    }

    void theOpenedFolderIsHeldByOneDescriptor()
    {
        const std::string folder = m_scratch->makeFolder("folder");
        const std::size_t before = descriptorCount();
        {
            Outcome<DirectoryListing> listing = DirectoryListing::open(folder);
            QVERIFY(listing);
            renameEntry(folder, at("moved"));
            makeFolder(folder);
            QVERIFY(identityAt(listing->descriptorPath()) == listing->identity());
            QVERIFY(!(identityAt(folder) == listing->identity()));
            QVERIFY(listing->forEachName([](std::string_view) { QFAIL("a name in an empty folder"); }));
            QCOMPARE(descriptorCount(), before + 1);
        }
        QCOMPARE(descriptorCount(), before);
    }

    void theModificationTime()
    {
        setOldTimes(m_scratch->path());
        const Outcome<DirectoryListing> listing = DirectoryListing::open(m_scratch->path());
        QVERIFY(listing);
        const Outcome<timespec> time = listing->modificationTime();
        QVERIFY(time);
        QCOMPARE(time->tv_sec, oldModification.tv_sec);
        QCOMPARE(time->tv_nsec, oldModification.tv_nsec);
    }

private:
    [[nodiscard]] std::string at(const std::string& name) const { return m_scratch->path() + '/' + name; }

    std::unique_ptr<ScratchFolder> m_scratch;
};

HARBEX_TEST(TestDirectoryListing)

#include "tst_DirectoryListing.moc"
