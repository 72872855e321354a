#include "fs/StagingDirectory.h"
#include "support/EngineFiles.h"
#include "support/InterceptedMove.h"
#include "support/TestMain.h"

#include <QRegularExpression>

#include <memory>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>

using namespace harbex;
using namespace harbex::test;

namespace
{

const std::string stagingName = ".harbex-0123456789abcdef0123456789abcdef.part";
/// The name of the copy in it.
const std::string contentName = "/.harbex-0123456789abcdef0123456789abcdef.entry";

/// Creates a staging directory in a child process. Calls `act` before the first call named `moment`. Returns
/// how many directories the child made, or -1 if it failed or removeLeftovers() changed anything.
int directoriesMadeWhile(int folder, const char* moment, const std::function<Answer()>& act)
{
    int made = 0;
    const InterceptedRun run = runIntercepted(
        {"mkdirat", "openat", "flock"},
        [folder]() -> Outcome<void> {
            const Outcome<StagingDirectory> staging = StagingDirectory::create(folder);
            if (!staging) return staging.error();
            // Does nothing if the directory is locked.
            StagingDirectory::removeLeftovers(folder);
            const Outcome<std::vector<std::string>> names = namesIn(folder);
            if (!names || names->size() != 1) return SystemError{ENOTEMPTY};
            return {};
        },
        [&](const InterceptedCall& call) {
            made += call.name == "mkdirat";
            return call.name == moment && call.ordinal == 1 ? act() : Answer::proceed();
        });
    return run.succeeded() ? made : -1;
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
            QCOMPARE(data.st_ino, inodeOf(path));
            makeFolder(path + '/' + content.name);
            makeObstacle("full folder", path + '/' + content.name + "/sub");
        }
        QCOMPARE(names(), QByteArrayList());
    }

    void leftoversAreRemoved()
    {
        makeFolder(inFolder(stagingName));
        makeObstacle("full folder", inFolder(stagingName) + contentName);
        writeFile(inFolder("photo.jpg"), "content");
        removeLeftovers();
        QCOMPARE(names(), QByteArrayList{"photo.jpg"});
    }

    void aLinkInALeftoverIsNotFollowed()
    {
        makeObstacle("full folder", inFolder("precious"));
        makeFolder(inFolder(stagingName));
        makeLink(inFolder(stagingName) + contentName, inFolder("precious"));
        removeLeftovers();
        QCOMPARE(names(), QByteArrayList{"precious"});
        QVERIFY(exists(inFolder("precious/inside")));
    }

    void aDirectoryInUseStays()
    {
        std::optional<Outcome<StagingDirectory>> staging = StagingDirectory::create(m_folder.get());
        QVERIFY(*staging);
        removeLeftovers();
        QCOMPARE(names().size(), 1);
        staging.reset();
        QCOMPARE(names(), QByteArrayList());
    }

    void similarNamesStay_data()
    {
        QTest::addColumn<QByteArray>("name");
        QTest::addColumn<QByteArray>("kind");
        const auto row = [](const char* tag, const char* name, const char* kind = "folder") {
            QTest::newRow(tag) << QByteArray(name) << QByteArray(kind);
        };
        row("a digit less", ".harbex-0123456789abcdef0123456789abcde.part");
        row("a digit more", ".harbex-0123456789abcdef0123456789abcdef0.part");
        row("upper case", ".harbex-0123456789ABCDEF0123456789ABCDEF.part");
        row("no digit", ".harbex-0123456789abcdef0123456789abcdeg.part");
        row("not hidden", "xharbex-0123456789abcdef0123456789abcdef.part");
        row("another ending", ".harbex-0123456789abcdef0123456789abcdef.par1");
        row("more at the end", ".harbex-0123456789abcdef0123456789abcdef.part2");
        row("a file", stagingName.c_str(), "file");
        row("a link to a folder", stagingName.c_str(), "link");
    }

    void similarNamesStay()
    {
        QFETCH(const QByteArray, name);
        QFETCH(const QByteArray, kind);
        makeObstacle(kind.toStdString(), inFolder(name.toStdString()));
        removeLeftovers();
        QCOMPARE(names(), QByteArrayList{name});
    }

    void aLeftoverOfAnotherUserStays()
    {
        if (::geteuid() != 0) QSKIP("only root makes folders of another user");
        makeFolder(inFolder(stagingName));
        QCOMPARE(::chown(inFolder(stagingName).c_str(), 12345, 12345), 0);
        removeLeftovers();
        QCOMPARE(names().size(), 1);
    }

    void anotherFolderWithThatNameStays_data()
    {
        QTest::addColumn<QByteArray>("inside");
        QTest::addColumn<int>("mode");
        QTest::newRow("other content") << QByteArray("/thesis.txt") << 0700;
        for (const int mode : {0770, 0707})
            QTest::addRow("content that others may have written, mode %o", mode)
                << QByteArray::fromStdString(contentName) << mode;
    }

    // A user who may rename in the folder above, but not write into this one, can give it that name.
    void anotherFolderWithThatNameStays()
    {
        QFETCH(const QByteArray, inside);
        QFETCH(const int, mode);
        const std::string file = inFolder(stagingName) + inside.toStdString();
        makeFolder(inFolder(stagingName));
        writeFile(file, "precious");
        QCOMPARE(::chmod(inFolder(stagingName).c_str(), mode_t(mode)), 0);
        removeLeftovers();
        QCOMPARE(contents(file), QByteArray("precious"));
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

    void tryingANameLeavesNoTrace()
    {
        // A name that is taken is possible too.
        writeFile(inFolder("taken"), "content");
        for (const std::string& name : {std::string("free"), std::string("taken"), std::string(255, 'x')}) {
            QVERIFY(StagingDirectory::expectPossible({m_folder.get(), name}));
            QCOMPARE(names(), QByteArrayList{"taken"});
        }
        QCOMPARE(contents(inFolder("taken")), QByteArray("content"));

        const Outcome<void> tooLong =
            StagingDirectory::expectPossible({m_folder.get(), std::string(256, 'x')});
        QVERIFY(!tooLong && tooLong.error().code == ENAMETOOLONG);
        QCOMPARE(names(), QByteArrayList{"taken"});
    }

    void createdAgainIfRemovedBeforeTheLock_data()
    {
        QTest::addColumn<QByteArray>("moment");
        QTest::addColumn<int>("error");
        QTest::newRow("before it is opened") << QByteArray("openat") << 0;
        QTest::newRow("before it is locked") << QByteArray("flock") << 0;
        QTest::newRow("while it is removed") << QByteArray("flock") << EWOULDBLOCK;
    }

    void createdAgainIfRemovedBeforeTheLock()
    {
        QFETCH(const QByteArray, moment);
        QFETCH(const int, error);
        const int made = directoriesMadeWhile(m_folder.get(), moment.constData(), [&] {
            if (error != 0) return Answer::fail(error);
            removeLeftovers();
            return Answer::proceed();
        });
        QCOMPARE(made, 2);
        QCOMPARE(names(), QByteArrayList());
    }

    void withoutLocksNothingIsALeftover()
    {
        const auto work = [this]() -> Outcome<void> {
            const Outcome<StagingDirectory> staging = StagingDirectory::create(m_folder.get());
            if (!staging) return staging.error();
            removeLeftovers();
            if (names().size() != 1) return SystemError{ENOTEMPTY};
            return {};
        };
        const InterceptedRun run =
            runIntercepted({"flock"}, work, [](const InterceptedCall&) { return Answer::fail(ENOLCK); });
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
