#include "fs/DirectoryListing.h"
#include "support/EngineResources.h"
#include "support/InterceptedMove.h"
#include "support/TestMain.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <memory>

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

} // namespace

class TestDirectoryListing : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { m_scratch = std::make_unique<ScratchFolder>(); }

    void everyName()
    {
        QByteArrayList names = {".hidden", "...", "..a", " ", "new\nline", "\xff\xfe", "e\u0301", "\u00e9"};
        names << QByteArray(255, 'x');
        for (const QByteArray& name : names)
            writeFile(at(name.toStdString()), {});
        for (const char* kind : obstacleKinds) {
            names << kind;
            makeObstacle(kind, at(kind));
        }
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
        makeObstacle("pipe", at("pipe"));
        const std::size_t before = descriptorCount();
        QCOMPARE(errorOfOpening(at("missing")), ENOENT);
        QCOMPARE(errorOfOpening(at("file")), ENOTDIR);
        // Opening a pipe waits for its other end.
        QCOMPARE(errorOfOpening(at("pipe")), ENOTDIR);
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
