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

DirectoryListing opened(const std::string& path)
{
    return *DirectoryListing::open(path);
}

/// Returns the names of a listing, sorted.
QByteArrayList listed(const std::string& path)
{
    QByteArrayList names;
    const Outcome<void> done = opened(path).forEachName([&](std::string_view name) {
        names << QByteArray(name.data(), static_cast<qsizetype>(name.size()));
    });
    if (!done) qFatal("cannot list %s", path.c_str());
    std::ranges::sort(names);
    return names;
}

} // namespace

class TestDirectoryListing : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // In memory, where many entries are made quickly.
    void init() { m_scratch = std::make_unique<ScratchFolder>(folderOnAnotherVolume()); }

    void everyName()
    {
        QByteArrayList names = {".hidden", "...", "..a", " ", "new\nline", "\xff\xfe", "e\u0301", "\u00e9"};
        names << QByteArray(255, 'x');
        // Records of many lengths, so that they end at many offsets of the buffer.
        for (int i = 0; i < 10'000; ++i)
            names << QByteArray::number(i) + QByteArray(i % 60, 'n');
        for (const QByteArray& name : names)
            makeLink(at(name.toStdString()), "x");
        for (const char* kind : obstacleKinds) {
            names << kind;
            makeObstacle(kind, at(kind));
        }
        std::ranges::sort(names);
        QCOMPARE(listed(m_scratch->path()), names);
    }

    void aFolderBehindALink()
    {
        const std::string folder = m_scratch->makeFolder("\xff\n folder");
        writeFile(folder + "/a", {});
        makeLink(at("link"), "\xff\n folder");
        QCOMPARE(listed(folder), QByteArrayList({"a"}));
        QCOMPARE(listed(at("link")), QByteArrayList({"a"}));
        QVERIFY(opened(at("link")).identity() == opened(folder).identity());
    }

    void errorsOfOpening()
    {
        writeFile(at("file"), {});
        makeObstacle("pipe", at("pipe"));
        const std::size_t before = descriptorCount();
        QCOMPARE(DirectoryListing::open(at("missing")).error().code, ENOENT);
        QCOMPARE(DirectoryListing::open(at("file")).error().code, ENOTDIR);
        // Opening a pipe waits for its other end.
        QCOMPARE(DirectoryListing::open(at("pipe")).error().code, ENOTDIR);
        QCOMPARE(descriptorCount(), before);
    }

    void aFolderDeletedWhileOpen()
    {
        DirectoryListing listing = opened(m_scratch->makeFolder("folder"));
        removeEntry(at("folder"));
        const Outcome<void> done = listing.forEachName([](std::string_view) { QFAIL("a name"); });
        QVERIFY(!done);
        QCOMPARE(done.error().code, ENOENT);
    }

    void theOpenedFolderIsHeldByOneDescriptor()
    {
        const std::string folder = m_scratch->makeFolder("folder");
        const std::size_t before = descriptorCount();
        {
            DirectoryListing listing = opened(folder);
            renameEntry(folder, at("moved"));
            makeFolder(folder);
            QVERIFY(opened(listing.descriptorPath()).identity() == listing.identity());
            QVERIFY(opened(folder).identity() != listing.identity());
            QVERIFY(listing.forEachName([](std::string_view) { QFAIL("a name in an empty folder"); }));
            QCOMPARE(descriptorCount(), before + 1);
        }
        QCOMPARE(descriptorCount(), before);
    }

    void theModificationTime()
    {
        setOldTimes(m_scratch->path());
        const Outcome<timespec> time = opened(m_scratch->path()).modificationTime();
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
