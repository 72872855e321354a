#include "fs/DirectoryListing.h"
#include "support/EngineFiles.h"
#include "support/EngineResources.h"
#include "support/TestMain.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

using namespace harbex;
using namespace harbex::test;

namespace
{

/// The names that a listing gives, sorted; empty when it fails.
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

/// The errno with which opening fails; 0 when it does not.
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

/// Returns when files that are made now are of a later time than those made before. File systems take the
/// time of the coarse clock, or a finer one that is no later than now.
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
    void givesNamesToTheByte();
    void givesEntriesOfEveryKind();
    void leavesOutTheFolderItselfAndItsParent();
    void emptyFolderGivesNothing();
    void givesAllOfTwentyThousandEntriesOnce();
    void findsTheFolderBehindALink();
    void opensAPathOfAnyBytes();
    void missingFolderIsENOENT();
    void fileInsteadOfFolderIsENOTDIR();
    void forbiddenFolderIsEACCES();
    void linkInACircleIsELOOP();
    void longNameIsENAMETOOLONG();
    void noMoreDescriptorsIsEMFILE();
    void folderDeletedWhileOpenIsENOENT();
    void identityStaysWhileTheFolderDoes();
    void identityDiffersAfterReplacement();
    void identityDiffersWhenTheFolderWasDeletedAndMadeAgain();
    void aFolderListedAgainHasAPositionOfItsOwn();
    void descriptorPathLeadsToTheOpenedFolder();
    void modificationTimeIsThatOfTheFolder();
    void keepsNothingOpenAfterItsLife();
};

void TestDirectoryListing::givesNamesToTheByte()
{
    const ScratchFolder scratch;
    std::string everyByte;
    for (int byte = 1; byte < 256; ++byte)
        if (byte != '/') everyByte.push_back(static_cast<char>(byte));

    QByteArrayList names = {"plain.txt",        ".hidden", "...",    "..a",    " ",     "new\nline",
                            "\xff\xfe invalid", "e\u0301", "\u00e9", "Letter", "letter"};
    names << QByteArray(255, 'x') << QByteArray::fromStdString(everyByte);
    for (const QByteArray& name : names)
        writeFile(scratch.path() + '/' + name.toStdString(), {});

    std::sort(names.begin(), names.end());
    QCOMPARE(listed(scratch.path()), names);
}

void TestDirectoryListing::givesEntriesOfEveryKind()
{
    const ScratchFolder scratch;
    const std::string prefix = scratch.path() + '/';
    writeFile(prefix + "file", "content");
    makeFolder(prefix + "folder");
    writeFile(prefix + "folder/inside", {});
    makeLink(prefix + "link", "file");
    makeLink(prefix + "dangling", "nowhere");
    QCOMPARE(::mkfifo((prefix + "pipe").c_str(), 0600), 0);
    QCOMPARE(listed(scratch.path()), QByteArrayList({"dangling", "file", "folder", "link", "pipe"}));
}

void TestDirectoryListing::leavesOutTheFolderItselfAndItsParent()
{
    const ScratchFolder scratch;
    for (const char* name : {"a", ".b", "..."})
        writeFile(scratch.path() + '/' + name, {});
    const QByteArrayList names = listed(scratch.path());
    QVERIFY(!names.contains("."));
    QVERIFY(!names.contains(".."));
    QCOMPARE(names.size(), 3);
}

void TestDirectoryListing::emptyFolderGivesNothing()
{
    const ScratchFolder scratch;
    Outcome<DirectoryListing> listing = DirectoryListing::open(scratch.path());
    QVERIFY(listing);
    int names = 0;
    QVERIFY(listing->forEachName([&](std::string_view) { ++names; }));
    QCOMPARE(names, 0);
}

void TestDirectoryListing::givesAllOfTwentyThousandEntriesOnce()
{
    const ScratchFolder scratch;
    QByteArrayList names;
    for (int i = 0; i < 20'000; ++i) {
        // Records of many lengths, so that they end at many places of the buffer.
        names << QByteArray::number(i) + QByteArray(i % 60, 'n');
        makeLink(scratch.path() + '/' + names.back().toStdString(), "x");
    }
    std::sort(names.begin(), names.end());
    QVERIFY(listed(scratch.path()) == names);
}

void TestDirectoryListing::findsTheFolderBehindALink()
{
    const ScratchFolder scratch;
    const std::string folder = scratch.makeFolder("folder");
    writeFile(folder + "/a", {});
    makeLink(scratch.path() + "/link", "folder");
    QCOMPARE(listed(scratch.path() + "/link"), QByteArrayList({"a"}));
    QVERIFY(identityAt(scratch.path() + "/link") == identityAt(folder));
}

void TestDirectoryListing::opensAPathOfAnyBytes()
{
    const ScratchFolder scratch;
    const std::string folder = scratch.makeFolder("\xff\n folder");
    writeFile(folder + "/a", {});
    QCOMPARE(listed(folder), QByteArrayList({"a"}));
}

void TestDirectoryListing::missingFolderIsENOENT()
{
    const ScratchFolder scratch;
    QCOMPARE(errorOfOpening(scratch.path() + "/missing"), ENOENT);
    makeLink(scratch.path() + "/dangling", "missing");
    QCOMPARE(errorOfOpening(scratch.path() + "/dangling"), ENOENT);
    QCOMPARE(errorOfOpening({}), ENOENT);
}

void TestDirectoryListing::fileInsteadOfFolderIsENOTDIR()
{
    const ScratchFolder scratch;
    writeFile(scratch.path() + "/file", {});
    QCOMPARE(errorOfOpening(scratch.path() + "/file"), ENOTDIR);
    // Opening a pipe would wait for its other end.
    QCOMPARE(::mkfifo((scratch.path() + "/pipe").c_str(), 0600), 0);
    QCOMPARE(errorOfOpening(scratch.path() + "/pipe"), ENOTDIR);
}

void TestDirectoryListing::forbiddenFolderIsEACCES()
{
    const ScratchFolder scratch;
    const std::string folder = scratch.makeFolder("folder");
    QCOMPARE(::chmod(folder.c_str(), 0300), 0);
    int error = 0;
    {
        const WithoutPrivileges ordinary;
        error = errorOfOpening(folder);
    }
    QCOMPARE(::chmod(folder.c_str(), 0700), 0);
    QCOMPARE(error, EACCES);
}

void TestDirectoryListing::linkInACircleIsELOOP()
{
    const ScratchFolder scratch;
    makeLink(scratch.path() + "/circle", "circle");
    QCOMPARE(errorOfOpening(scratch.path() + "/circle"), ELOOP);
}

void TestDirectoryListing::longNameIsENAMETOOLONG()
{
    const ScratchFolder scratch;
    QCOMPARE(errorOfOpening(scratch.path() + '/' + std::string(256, 'x')), ENAMETOOLONG);
}

void TestDirectoryListing::noMoreDescriptorsIsEMFILE()
{
    const ScratchFolder scratch;
    {
        const DescriptorLimit limit(0);
        QCOMPARE(errorOfOpening(scratch.path()), EMFILE);
    }
    QCOMPARE(errorOfOpening(scratch.path()), 0);
}

void TestDirectoryListing::folderDeletedWhileOpenIsENOENT()
{
    const ScratchFolder scratch;
    const std::string folder = scratch.makeFolder("folder");
    Outcome<DirectoryListing> listing = DirectoryListing::open(folder);
    QVERIFY(listing);
    removeEntry(folder);

    int names = 0;
    const Outcome<void> done = listing->forEachName([&](std::string_view) { ++names; });
    QVERIFY(!done);
    QCOMPARE(done.error().code, ENOENT);
    QCOMPARE(names, 0);
}

void TestDirectoryListing::identityStaysWhileTheFolderDoes()
{
    const ScratchFolder scratch;
    const std::string folder = scratch.makeFolder("folder");
    const FileIdentity identity = identityAt(folder);
    writeFile(folder + "/a", {});
    QCOMPARE(::chmod(folder.c_str(), 0700), 0);
    waitForTheNextTimestamp();
    QVERIFY(identityAt(folder) == identity);
    renameEntry(folder, scratch.path() + "/renamed");
    QVERIFY(identityAt(scratch.path() + "/renamed") == identity);
}

void TestDirectoryListing::identityDiffersAfterReplacement()
{
    const ScratchFolder scratch;
    const std::string folder = scratch.makeFolder("folder");
    const FileIdentity identity = identityAt(folder);
    QVERIFY(!(identityAt(scratch.path()) == identity));
    renameEntry(folder, scratch.path() + "/old");
    scratch.makeFolder("folder");
    QVERIFY(!(identityAt(folder) == identity));
}

void TestDirectoryListing::identityDiffersWhenTheFolderWasDeletedAndMadeAgain()
{
    const ScratchFolder scratch;
    const std::string folder = scratch.makeFolder("folder");
    for (int i = 0; i < 20; ++i) {
        const FileIdentity identity = identityAt(folder);
        removeEntry(folder);
        // Often of the same inode number.
        waitForTheNextTimestamp();
        makeFolder(folder);
        QVERIFY(!(identityAt(folder) == identity));
    }
}

void TestDirectoryListing::aFolderListedAgainHasAPositionOfItsOwn()
{
    const ScratchFolder scratch;
    writeFile(scratch.path() + "/a", {});
    const FileDescriptor folder(::open(scratch.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    for (int round = 0; round < 2; ++round) {
        Outcome<DirectoryListing> listing = DirectoryListing::openAgain(folder.get());
        QVERIFY(listing && listing->identity() == identityAt(scratch.path()));
        int names = 0;
        QVERIFY(listing->forEachName([&](std::string_view) { ++names; }));
        QCOMPARE(names, 1);
    }
}

void TestDirectoryListing::descriptorPathLeadsToTheOpenedFolder()
{
    const ScratchFolder scratch;
    const std::string folder = scratch.makeFolder("folder");
    const Outcome<DirectoryListing> listing = DirectoryListing::open(folder);
    QVERIFY(listing);
    renameEntry(folder, scratch.path() + "/moved");
    makeFolder(folder);
    QVERIFY(identityAt(listing->descriptorPath()) == listing->identity());
    QVERIFY(!(identityAt(folder) == listing->identity()));
}

void TestDirectoryListing::modificationTimeIsThatOfTheFolder()
{
    const ScratchFolder scratch;
    const std::array<timespec, 2> times{timespec{1, 2}, timespec{1234567890, 123456789}};
    QCOMPARE(::utimensat(AT_FDCWD, scratch.path().c_str(), times.data(), 0), 0);
    const Outcome<DirectoryListing> listing = DirectoryListing::open(scratch.path());
    QVERIFY(listing);
    const Outcome<timespec> time = listing->modificationTime();
    QVERIFY(time);
    QCOMPARE(time->tv_sec, times[1].tv_sec);
    QCOMPARE(time->tv_nsec, times[1].tv_nsec);
}

void TestDirectoryListing::keepsNothingOpenAfterItsLife()
{
    const ScratchFolder scratch;
    const std::size_t before = descriptorCount();
    {
        Outcome<DirectoryListing> listing = DirectoryListing::open(scratch.path());
        QVERIFY(listing);
        QCOMPARE(descriptorCount(), before + 1);
        QVERIFY(listing->forEachName([](std::string_view) {}));
    }
    QCOMPARE(descriptorCount(), before);
    QCOMPARE(errorOfOpening(scratch.path() + "/missing"), ENOENT);
    QCOMPARE(descriptorCount(), before);
}

HARBEX_TEST_MAIN(TestDirectoryListing)

#include "tst_DirectoryListing.moc"
