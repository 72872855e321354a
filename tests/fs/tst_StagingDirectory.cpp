#include "fs/StagingDirectory.h"
#include "support/EngineFiles.h"
#include "support/InterceptedMove.h"
#include "support/TestMain.h"

#include <QRegularExpression>

#include <filesystem>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

using namespace harbex;
using namespace harbex::test;

namespace
{

const std::string stagingName = ".harbex-0123456789abcdef0123456789abcdef.part";
/// The name of the copy in it.
const std::string contentName = "/.harbex-0123456789abcdef0123456789abcdef.entry";

/// Creates a staging directory in a child process. Fails with ENOTEMPTY if removeLeftovers() changes
/// anything.
Outcome<void> createAndCleanUp(int folder)
{
    const Outcome<StagingDirectory> staging = StagingDirectory::create(folder);
    if (!staging) return staging.error();
    // Does nothing if the directory is locked.
    StagingDirectory::removeLeftovers(folder);
    const Outcome<std::vector<std::string>> names = namesIn(folder);
    if (!names || names->size() != 1) return SystemError{ENOTEMPTY};
    return {};
}
} // namespace

class TestStagingDirectory : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        m_scratch = std::make_unique<ScratchFolder>();
        Outcome<FileDescriptor> opened = openFolder(m_scratch->path());
        QVERIFY(opened);
        m_folder = std::move(*opened);
    }

    void isHiddenAndPrivateAndRemovedWithItsContent()
    {
        {
            const Outcome<StagingDirectory> staging = StagingDirectory::create(m_folder.get());
            QVERIFY(staging);
            QCOMPARE(names().size(), 1);
            const QRegularExpression pattern(QStringLiteral("^\\.harbex-[0-9a-f]{32}\\.part$"));
            QVERIFY(pattern.match(QString::fromUtf8(names()[0])).hasMatch());
            const std::string path = inFolder(names()[0].toStdString());
            const DirEntry content = staging->content();
            struct stat data = {};
            QCOMPARE(::fstat(content.folder, &data), 0);
            QCOMPARE(data.st_mode & 07777, mode_t(0700));
            QCOMPARE(data.st_ino, statusOf(path).st_ino);
            makeFolder(path + '/' + content.name);
            makeObstacle("full folder", path + '/' + content.name + "/sub");
        }
        QCOMPARE(names(), QByteArrayList());
    }

    void leftoversAreRemoved()
    {
        writeFile(inFolder("photo.jpg"), "content");
        makeObstacle("full folder", inFolder("precious"));
        for (const bool isLink : {false, true}) {
            makeFolder(inFolder(stagingName));
            if (isLink)
                makeLink(inFolder(stagingName) + contentName, inFolder("precious"));
            else
                makeObstacle("full folder", inFolder(stagingName) + contentName);
            removeLeftovers();
            QCOMPARE(names(), (QByteArrayList{"photo.jpg", "precious"}));
            QVERIFY(exists(inFolder("precious/inside")));
        }
    }

    void similarNamesStay()
    {
        // Upper case, a digit less, another end, a digit more, no digit, another beginning.
        const QByteArrayList similar = {".harbex-0123456789ABCDEF0123456789ABCDEF.part",
                                        ".harbex-0123456789abcdef0123456789abcde.part",
                                        ".harbex-0123456789abcdef0123456789abcdef.par1",
                                        ".harbex-0123456789abcdef0123456789abcdef.part2",
                                        ".harbex-0123456789abcdef0123456789abcdef0.part",
                                        ".harbex-0123456789abcdef0123456789abcdeg.part",
                                        "xharbex-0123456789abcdef0123456789abcdef.part"};
        for (const QByteArray& name : similar)
            makeFolder(inFolder(name.toStdString()));
        makeFolder(inFolder(stagingName));
        removeLeftovers();
        QCOMPARE(names(), similar);
        for (const char* kind : {"file", "link"}) {
            makeObstacle(kind, inFolder(stagingName));
            removeLeftovers();
            QVERIFY2(exists(inFolder(stagingName)), kind);
            removeEntry(inFolder(stagingName));
        }
    }

    void aLeftoverOfAnotherUserStays()
    {
        if (::geteuid() != 0) QSKIP("only root makes folders of another user");
        makeFolder(inFolder(stagingName));
        QCOMPARE(::chown(inFolder(stagingName).c_str(), 12345, 12345), 0);
        removeLeftovers();
        QCOMPARE(names().size(), 1);
    }

    void anotherFolderWithThatNameStays()
    {
        const auto stays = [this](const std::string& inside, mode_t mode) {
            const std::string folder = inFolder(stagingName);
            makeFolder(folder);
            writeFile(folder + inside, "precious");
            if (::chmod(folder.c_str(), mode) != 0) return false;
            removeLeftovers();
            const bool isThere = contents(folder + inside) == "precious";
            std::filesystem::remove_all(folder);
            return isThere;
        };
        // A user who may rename in the folder above, but not write into this one, can give it that name.
        QVERIFY(stays("/thesis.txt", 0700));
        // Others may have written the content.
        QVERIFY(stays(contentName, 0770));
        QVERIFY(stays(contentName, 0707));
        QVERIFY(!stays(contentName, 0700));
    }

    void anotherFolderInItsPlaceStays()
    {
        std::string place;
        {
            const Outcome<StagingDirectory> staging = StagingDirectory::create(m_folder.get());
            QVERIFY(staging);
            const std::string name = '/' + staging->content().name;
            place = inFolder(names()[0].toStdString());
            writeFile(place + name, "content");
            renameEntry(place, inFolder("away"));
            makeFolder(place);
            writeFile(place + name, "precious");
            writeFile(place + "/thesis.txt", "precious");
        }
        QCOMPARE(namesIn(place).size(), 2);
        QCOMPARE(namesIn(inFolder("away")), QByteArrayList());
    }

    void aFolderOfAnotherUserInItsPlaceIsRefused()
    {
        if (::geteuid() != 0) QSKIP("only root makes folders of another user");
        const auto work = [this]() -> Outcome<void> {
            dropPrivileges();
            const Outcome<StagingDirectory> staging = StagingDirectory::create(m_folder.get());
            if (!staging) return staging.error();
            return {};
        };
        QCOMPARE(::chmod(m_scratch->path().c_str(), 0777), 0);
        const auto interceptor = [this](const InterceptedCall& call) {
            // Without ACLs, only the owner shows that the folder was replaced.
            if (call.name == "fremovexattr") return Answer::fail(EOPNOTSUPP);
            if (call.ordinal != 1) return Answer::proceed();
            const std::string place = inFolder(call.text(1));
            renameEntry(place, inFolder("away"));
            makeFolder(place);
            if (::chmod(place.c_str(), 0777) != 0) qFatal("cannot open the folder to all");
            return Answer::proceed();
        };
        QCOMPARE(runIntercepted({"openat", "fremovexattr"}, work, interceptor).error, EPERM);
    }

    void createdAgainIfRemovedBeforeTheLock()
    {
        const auto directoriesMadeWhile = [this](const char* moment, int error) {
            const auto interceptor = [&](const InterceptedCall& call) {
                if (call.name != moment || call.ordinal != 1) return Answer::proceed();
                if (error != 0) return Answer::fail(error);
                removeLeftovers();
                return Answer::proceed();
            };
            const auto work = [this] { return createAndCleanUp(m_folder.get()); };
            const InterceptedRun run = runIntercepted({"mkdirat", "openat", "flock"}, work, interceptor);
            return run.succeeded() && names().isEmpty() ? run.count("mkdirat") : -1;
        };
        QCOMPARE(directoriesMadeWhile("openat", 0), 2);
        QCOMPARE(directoriesMadeWhile("flock", 0), 2);
        // It is being removed.
        QCOMPARE(directoriesMadeWhile("flock", EWOULDBLOCK), 2);
    }

    void withoutLocksNothingIsALeftover()
    {
        const auto noLocks = [](const InterceptedCall&) { return Answer::fail(ENOLCK); };
        const auto work = [this] { return createAndCleanUp(m_folder.get()); };
        const InterceptedRun run = runIntercepted({"flock"}, work, noLocks);
        QCOMPARE(run.error, 0);
        QCOMPARE(run.calls.size(), 2U);
        QCOMPARE(names(), QByteArrayList());
    }

private:
    [[nodiscard]] std::string inFolder(const std::string& name) const
    {
        return m_scratch->path() + '/' + name;
    }
    [[nodiscard]] QByteArrayList names() const { return namesIn(m_scratch->path()); }
    void removeLeftovers() const { StagingDirectory::removeLeftovers(m_folder.get()); }

    std::unique_ptr<ScratchFolder> m_scratch;
    FileDescriptor m_folder;
};

HARBEX_TEST(TestStagingDirectory)

#include "tst_StagingDirectory.moc"
