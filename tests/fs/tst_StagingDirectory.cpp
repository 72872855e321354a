#include "fs/StagingDirectory.h"
#include "support/EngineFiles.h"
#include "support/InterceptedMove.h"
#include "support/SyscallInterceptor.h"
#include "support/TestMain.h"

#include <QRegularExpression>

#include <memory>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>

using namespace harbex;

namespace
{

const std::string partName = ".harbex-0123456789abcdef0123456789abcdef.part";
/// What a copy is called in it.
const std::string contentName = "/.harbex-0123456789abcdef0123456789abcdef.entry";

} // namespace

class TestStagingDirectory : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void isHiddenPrivateAndGoesWithAllThatIsInIt();
    void leftoversAreRemoved();
    void aLinkInALeftoverIsNotFollowed();
    void onesInUseStay();
    void similarNamesStay_data();
    void similarNamesStay();
    void aLeftoverOfSomebodyElseStays();
    void anotherFolderOfThatNameStays_data();
    void anotherFolderOfThatNameStays();
    void anotherFolderInItsPlaceStays();
    void aFolderOfSomebodyElseInItsPlaceIsRefused();
    void aNameIsTriedWithoutATrace();
    void aNameThatCannotBeIsRefused_data();
    void aNameThatCannotBeIsRefused();
    void killedWhileANameIsTried();
    void removedBeforeItWasLocked();
    void takenForALeftoverBeforeItWasLocked();
    void withoutLocksNothingIsTakenForALeftover();

private:
    [[nodiscard]] std::string inFolder(const std::string& name) const
    {
        return m_scratch->path() + '/' + name;
    }
    [[nodiscard]] QByteArrayList names() const { return test::namesIn(m_scratch->path()); }
    void removeLeftovers() const { StagingDirectory::removeLeftovers(m_folder.get()); }

    std::unique_ptr<test::ScratchFolder> m_scratch;
    FileDescriptor m_folder;
};

void TestStagingDirectory::init()
{
    m_scratch = std::make_unique<test::ScratchFolder>();
    Outcome<FileDescriptor> opened = openFolder(m_scratch->path());
    QVERIFY(opened);
    m_folder = std::move(*opened);
}

void TestStagingDirectory::cleanup()
{
    m_folder = FileDescriptor();
    m_scratch.reset();
}

void TestStagingDirectory::isHiddenPrivateAndGoesWithAllThatIsInIt()
{
    {
        const Outcome<StagingDirectory> part = StagingDirectory::create(m_folder.get());
        QVERIFY(part);
        QCOMPARE(names().size(), 1);
        const QRegularExpression pattern(QStringLiteral("^\\.harbex-[0-9a-f]{32}\\.part$"));
        QVERIFY(pattern.match(QString::fromUtf8(names()[0])).hasMatch());
        const DirEntry content = part->content();
        struct stat data = {};
        QCOMPARE(::fstat(content.folder, &data), 0);
        QCOMPARE(data.st_mode & 07777, mode_t(0700));
        QCOMPARE(data.st_ino, test::inodeOf(inFolder(names()[0].toStdString())));
        QCOMPARE(::mkdirat(content.folder, content.name.c_str(), 0700), 0);
        const std::string path = inFolder(names()[0].toStdString()) + '/' + content.name;
        test::makeFolder(path + "/sub");
        test::writeFile(path + "/sub/file", "content");
    }
    QCOMPARE(names(), QByteArrayList());
}

void TestStagingDirectory::leftoversAreRemoved()
{
    test::makeFolder(inFolder(partName));
    test::makeFolder(inFolder(partName) + contentName);
    test::writeFile(inFolder(partName) + contentName + "/file", "content");
    test::writeFile(inFolder("photo.jpg"), "content");
    removeLeftovers();
    QCOMPARE(names(), QByteArrayList{"photo.jpg"});
}

void TestStagingDirectory::aLinkInALeftoverIsNotFollowed()
{
    test::makeFolder(inFolder("precious"));
    test::writeFile(inFolder("precious/file"), "content");
    test::makeFolder(inFolder(partName));
    test::makeLink(inFolder(partName) + contentName, inFolder("precious"));
    removeLeftovers();
    QCOMPARE(names(), QByteArrayList{"precious"});
    QCOMPARE(test::contents(inFolder("precious/file")), QByteArray("content"));
}

void TestStagingDirectory::onesInUseStay()
{
    std::optional<Outcome<StagingDirectory>> part = StagingDirectory::create(m_folder.get());
    QVERIFY(*part);
    removeLeftovers();
    QCOMPARE(names().size(), 1);
    part.reset();
    QCOMPARE(names(), QByteArrayList());
}

void TestStagingDirectory::similarNamesStay_data()
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
    row("a file", partName.c_str(), "file");
    row("a link to a folder", partName.c_str(), "link");
}

void TestStagingDirectory::similarNamesStay()
{
    QFETCH(const QByteArray, name);
    QFETCH(const QByteArray, kind);
    const std::string path = inFolder(name.toStdString());
    if (kind == "folder") test::makeFolder(path);
    if (kind == "file") test::writeFile(path, "content");
    if (kind == "link") test::makeLink(path, m_scratch->path());
    removeLeftovers();
    QCOMPARE(names(), QByteArrayList{name});
}

void TestStagingDirectory::aLeftoverOfSomebodyElseStays()
{
    if (::geteuid() != 0) QSKIP("only root makes folders of somebody else");
    test::makeFolder(inFolder(partName));
    QCOMPARE(::chown(inFolder(partName).c_str(), 12345, 12345), 0);
    removeLeftovers();
    QCOMPARE(names().size(), 1);
}

void TestStagingDirectory::anotherFolderOfThatNameStays_data()
{
    QTest::addColumn<QByteArray>("inside");
    QTest::addColumn<bool>("isOpenToOthers");
    QTest::newRow("other content") << QByteArray("/thesis.txt") << false;
    QTest::newRow("content that others may have brought") << QByteArray::fromStdString(contentName) << true;
}

// Others, who may rename in the folder around but not write into this one, called it so.
void TestStagingDirectory::anotherFolderOfThatNameStays()
{
    QFETCH(const QByteArray, inside);
    QFETCH(const bool, isOpenToOthers);
    const std::string file = inFolder(partName) + inside.toStdString();
    test::makeFolder(inFolder(partName));
    test::writeFile(file, "precious");
    QCOMPARE(::chmod(inFolder(partName).c_str(), isOpenToOthers ? 0770 : 0700), 0);
    removeLeftovers();
    QCOMPARE(test::contents(file), QByteArray("precious"));
}

void TestStagingDirectory::anotherFolderInItsPlaceStays()
{
    std::string place;
    {
        const Outcome<StagingDirectory> part = StagingDirectory::create(m_folder.get());
        QVERIFY(part);
        place = inFolder(names()[0].toStdString());
        test::writeFile(place + '/' + part->content().name, "content");
        test::renameEntry(place, inFolder("away"));
        test::makeFolder(place);
        test::writeFile(place + '/' + part->content().name, "precious");
        test::writeFile(place + "/thesis.txt", "precious");
    }
    QCOMPARE(test::namesIn(place).size(), 2);
    QCOMPARE(test::namesIn(inFolder("away")), QByteArrayList());
}

void TestStagingDirectory::aFolderOfSomebodyElseInItsPlaceIsRefused()
{
    if (::geteuid() != 0) QSKIP("only root makes folders of somebody else");
    const auto work = [this]() -> Outcome<void> {
        test::becomeOrdinary();
        const Outcome<StagingDirectory> part = StagingDirectory::create(m_folder.get());
        if (!part) return part.error();
        return {};
    };
    QCOMPARE(::chmod(m_scratch->path().c_str(), 0777), 0);
    const auto keeper = [this](const test::InterceptedCall& call) {
        // As where there are no access lists, which would give it away as well.
        if (call.name == "fremovexattr") return test::Answer::fail(EOPNOTSUPP);
        if (call.ordinal != 1) return test::Answer::proceed();
        const std::string place = inFolder(call.text(1));
        test::renameEntry(place, inFolder("away"));
        test::makeFolder(place);
        if (::chmod(place.c_str(), 0777) != 0) qFatal("cannot open the folder to all");
        return test::Answer::proceed();
    };
    const test::InterceptedRun run = test::runIntercepted({"openat", "fremovexattr"}, work, keeper);
    QCOMPARE(run.error, EPERM);
}

void TestStagingDirectory::aNameIsTriedWithoutATrace()
{
    // Whether the name is free is not the question.
    test::writeFile(inFolder("taken"), "content");
    for (const std::string& name : {std::string("free"), std::string("taken"), std::string(255, 'x')}) {
        QVERIFY(StagingDirectory::expectPossible({m_folder.get(), name}));
        QCOMPARE(names(), QByteArrayList{"taken"});
    }
    QCOMPARE(test::contents(inFolder("taken")), QByteArray("content"));
}

void TestStagingDirectory::aNameThatCannotBeIsRefused_data()
{
    QTest::addColumn<QByteArray>("name");
    QTest::addColumn<int>("error");
    QTest::newRow("too long") << QByteArray(256, 'x') << ENAMETOOLONG;
    QTest::newRow("too long for any path") << QByteArray(5000, 'x') << ENAMETOOLONG;
    QTest::newRow("characters that are not allowed") << QByteArray("a:b") << EINVAL;
    QTest::newRow("not of the encoding") << QByteArray("\xff") << EILSEQ;
}

void TestStagingDirectory::aNameThatCannotBeIsRefused()
{
    QFETCH(const QByteArray, name);
    QFETCH(const int, error);
    const test::InterceptedRun run = test::runIntercepted(
        {"openat"}, [&] { return StagingDirectory::expectPossible({m_folder.get(), name.toStdString()}); },
        [&](const test::InterceptedCall& call) {
            const bool isTried = (call.arguments[2] & O_CREAT) && name.size() < 10;
            return isTried ? test::Answer::fail(error) : test::Answer::proceed();
        });
    QCOMPARE(run.error, error);
    QCOMPARE(names(), QByteArrayList());
}

void TestStagingDirectory::killedWhileANameIsTried()
{
    bool wasKilled = true;
    size_t n = 0;
    for (; wasKilled; ++n) {
        const test::InterceptedRun run = test::runIntercepted(
            test::fileSystemCalls(),
            [this] { return StagingDirectory::expectPossible({m_folder.get(), "name"}); },
            [n](const test::InterceptedCall& call) {
                return call.index == n ? test::Answer::kill() : test::Answer::proceed();
            });
        wasKilled = run.wasKilled;
        removeLeftovers();
        QCOMPARE(names(), QByteArrayList());
    }
    QVERIFY(n > 10);
}

namespace
{

/// Makes a staging directory behind a gate that calls `act` before the first call named `moment`. Gives how
/// many were made, or -1 when creating failed or one was left behind.
int partsMadeWhile(int folder, const char* moment, const std::function<test::Answer()>& act)
{
    int made = 0;
    const test::InterceptedRun run = test::runIntercepted(
        {"mkdirat", "openat", "flock"},
        [folder]() -> Outcome<void> {
            const Outcome<StagingDirectory> part = StagingDirectory::create(folder);
            if (!part) return part.error();
            // Somebody else's lock on it would be refused.
            StagingDirectory::removeLeftovers(folder);
            const Outcome<std::vector<std::string>> names = harbex::namesIn(folder);
            if (!names || names->size() != 1) return SystemError{ENOTEMPTY};
            return {};
        },
        [&](const test::InterceptedCall& call) {
            made += call.name == "mkdirat";
            return call.name == moment && call.ordinal == 1 ? act() : test::Answer::proceed();
        });
    return run.succeeded() ? made : -1;
}

} // namespace

void TestStagingDirectory::removedBeforeItWasLocked()
{
    for (const char* moment : {"openat", "flock"}) {
        const int made = partsMadeWhile(m_folder.get(), moment, [this] {
            removeLeftovers();
            return test::Answer::proceed();
        });
        QCOMPARE(made, 2);
        QCOMPARE(names(), QByteArrayList());
    }
}

void TestStagingDirectory::takenForALeftoverBeforeItWasLocked()
{
    const int made = partsMadeWhile(m_folder.get(), "flock", [] { return test::Answer::fail(EWOULDBLOCK); });
    QCOMPARE(made, 2);
    QCOMPARE(names(), QByteArrayList());
}

void TestStagingDirectory::withoutLocksNothingIsTakenForALeftover()
{
    const auto work = [this]() -> Outcome<void> {
        const Outcome<StagingDirectory> part = StagingDirectory::create(m_folder.get());
        if (!part) return part.error();
        StagingDirectory::removeLeftovers(m_folder.get());
        if (names().size() != 1) return SystemError{ENOTEMPTY};
        return {};
    };
    const test::InterceptedRun run = test::runIntercepted(
        {"flock"}, work, [](const test::InterceptedCall&) { return test::Answer::fail(ENOLCK); });
    QCOMPARE(run.error, 0);
    QCOMPARE(run.calls.size(), 2U);
    QCOMPARE(names(), QByteArrayList());
}

HARBEX_TEST_MAIN(TestStagingDirectory)

#include "tst_StagingDirectory.moc"
