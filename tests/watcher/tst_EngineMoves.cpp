#include "support/EngineOutput.h"
#include "support/EngineProbe.h"
#include "support/EngineResources.h"
#include "support/SyscallInterceptor.h"

#include <QElapsedTimer>
#include <QRegularExpression>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <iterator>
#include <memory>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

using namespace harbex;
using namespace harbex::test;

namespace
{

QString moved(const char* name, const char* target = nullptr)
{
    return QStringLiteral("Moved ") + QString::fromUtf8(name) + QStringLiteral(" -> ") +
           QString::fromUtf8(target ? target : name);
}

QString skipped(const char* name)
{
    return QStringLiteral("Skipped busy file: ") + QString::fromUtf8(name);
}

} // namespace

/// What becomes of an entry once a rule has matched it: the tests whether it has stopped growing, and the
/// move.
class TestEngineMoves : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    // Waiting for an entry to settle.
    void aStableEntryIsSampledTwice();
    void anEmptyFileIsStable();
    void aDownloadThatPausesIsMovedEarly();
    void aDownloadThatGrowsAtItsFirstTestIsTriedOnceMoreASecondLater();
    void aDownloadThatStillGrowsASecondLaterIsSkippedForGood();
    void anEntryThatGrowsBetweenItsTwoTestsIsSkippedForGood();
    void anEntrySkippedAtItsSecondTestIsTakenByTheNextRule();
    void aBusyEntryOfTwoRulesIsMovedOnceAndSkippedOnce();
    void aBusyEntryThatIsGoneASecondLaterIsSkipped();
    void aFolderIsMovedHoweverBusyItsContents();
    void aFolderAndALinkToOneWaitForNoSampling();

    // Where it goes.
    void aTakenNameGetsANumber();
    void whateverStandsAtTheDestinationKeepsItsPlace();
    void entriesOfOneNameFromTwoFoldersAreBothKept();
    void aRuleWhoseMoveFailsLeavesTheEntryToTheNext();
    void aDestinationThatCannotTakeItIsLogged_data();
    void aDestinationThatCannotTakeItIsLogged();
    void aDestinationThatVanishesIsLogged();
    void aNameThatIsTakenAtTheLastMomentIsLogged();
    void anEntryOfAnotherFolderInThePlaceOfItsOwnStays();
    void anEntryWhoseDestinationIsItsOwnFolderStays_data();
    void anEntryWhoseDestinationIsItsOwnFolderStays();

    void anEntryMovesToAnotherVolume();
    void aBusyEntryOfTwoRulesGoesToAnotherVolumeOnce();

    void aStandardOutputThatNobodyReadsDisturbsNothing();
    void aClosedStandardOutputDisturbsNothing();

private:
    std::unique_ptr<ScratchFolder> m_scratch;
    std::unique_ptr<EngineOutput> m_output;
    std::string m_inbox;
    std::string m_out;
};

void TestEngineMoves::init()
{
    m_scratch = std::make_unique<ScratchFolder>();
    m_inbox = m_scratch->makeFolder("inbox");
    m_out = m_scratch->makeFolder("out");
    m_output = std::make_unique<EngineOutput>();
}

void TestEngineMoves::cleanup()
{
    m_output.reset();
}

void TestEngineMoves::aStableEntryIsSampledTwice()
{
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(m_inbox, {takeAll(m_out)})}));
    QElapsedTimer timer;
    timer.start();
    m_scratch->arrive(m_inbox + "/photo.jpg", "content");
    QTRY_COMPARE_WITH_TIMEOUT(lastMessage(engine), moved("photo.jpg"), patience);
    static_assert(EntryPipeline::samplingInterval == std::chrono::milliseconds(150));
    QVERIFY2(timer.elapsed() >= 300, qPrintable(QString::number(timer.elapsed())));
    QCOMPARE(contents(m_out + "/photo.jpg"), QByteArray("content"));
    QVERIFY(!exists(m_inbox + "/photo.jpg"));
}

void TestEngineMoves::anEmptyFileIsStable()
{
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(m_inbox, {takeAll(m_out)})}));
    m_scratch->arrive(m_inbox + "/empty", "");
    QTRY_COMPARE_WITH_TIMEOUT(lastMessage(engine), moved("empty"), patience);
    QCOMPARE(contents(m_out + "/empty"), QByteArray(""));
}

void TestEngineMoves::aDownloadThatPausesIsMovedEarly()
{
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(m_inbox, {takeAll(m_out)})}));
    std::FILE* download = std::fopen((m_inbox + "/film.mp4").c_str(), "wx");
    QVERIFY(download);
    QTRY_COMPARE_WITH_TIMEOUT(lastMessage(engine), moved("film.mp4"), patience);
    std::fputs("the rest", download);
    std::fclose(download);
    QCOMPARE(contents(m_out + "/film.mp4"), QByteArray("the rest"));
}

void TestEngineMoves::aDownloadThatGrowsAtItsFirstTestIsTriedOnceMoreASecondLater()
{
    Sentinel sentinel(*m_scratch, m_inbox);
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(m_inbox, {sentinel.rule(), takeAll(m_out)})}));
    QElapsedTimer timer;
    timer.start();
    GrowingFiles download({m_inbox + "/film.mp4"});
    // It arrived later, so that its two tests end after the first of the download.
    QVERIFY(sentinel.passes(engine));
    download.stop();
    QTRY_COMPARE_WITH_TIMEOUT(lastMessage(engine), moved("film.mp4"), patience);
    // First test, a second, second test.
    QVERIFY2(timer.elapsed() >= 150 + 1000 + 150, qPrintable(QString::number(timer.elapsed())));
    QCOMPARE(m_output->lines().count("Moving film.mp4 to out..."), 1);
    QCOMPARE(messages(engine).filter(QStringLiteral("film")).size(), 1);
}

void TestEngineMoves::aDownloadThatStillGrowsASecondLaterIsSkippedForGood()
{
    Sentinel sentinel(*m_scratch, m_inbox);
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(m_inbox, {sentinel.rule(), takeAll(m_out)})}));
    GrowingFiles download({m_inbox + "/film.mp4"});
    QTRY_COMPARE_WITH_TIMEOUT(lastMessage(engine), skipped("film.mp4"), patience);
    download.stop();

    // Another one that gets its second chance shows that the first gets no third.
    GrowingFiles other({m_inbox + "/other.mp4"});
    QVERIFY(sentinel.passes(engine));
    other.stop();
    QTRY_COMPARE_WITH_TIMEOUT(lastMessage(engine), moved("other.mp4"), patience);
    QCOMPARE(namesIn(m_inbox), QByteArrayList{"film.mp4"});
    QCOMPARE(messages(engine).filter(QStringLiteral("film")), QStringList{skipped("film.mp4")});
    QVERIFY(!m_output->lines().contains("Moving film.mp4 to out..."));
}

/// Nothing shows from outside when the first test ends, so each of these files grows at another moment: the
/// first during their first test, the last when they have been moved, some in between.
void TestEngineMoves::anEntryThatGrowsBetweenItsTwoTestsIsSkippedForGood()
{
    constexpr int count = 24;
    const auto nameOf = [](int i) { return "film-" + std::to_string(i) + ".mp4"; };
    Sentinel sentinel(*m_scratch, m_inbox);
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(m_inbox, {sentinel.rule(), takeAll(m_out)})}));

    for (int i = 0; i < count; ++i)
        m_scratch->arrive(m_inbox + '/' + nameOf(i), "begin");
    for (int i = 0; i < count; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        const std::string path = m_inbox + '/' + nameOf(i);
        if (std::FILE* file = std::fopen(path.c_str(), "r+")) {
            std::fputs("begin and end", file);
            std::fclose(file);
        }
    }
    // Each has its one line, those that were busy at their first test a second later than the others.
    const QRegularExpression film(QStringLiteral("film-"));
    QTRY_COMPARE_WITH_TIMEOUT(messages(engine).filter(film).size(), count, patience);
    QVERIFY(sentinel.passes(engine));
    QCOMPARE(messages(engine).filter(film).size(), count);
    int left = 0;
    for (int i = 0; i < count; ++i) {
        const QByteArray name = QByteArray::fromStdString(nameOf(i));
        const bool isLeft = messages(engine).contains(skipped(name.constData()));
        QVERIFY(isLeft != messages(engine).contains(moved(name.constData())));
        QCOMPARE(exists(m_inbox + '/' + nameOf(i)), isLeft);
        QCOMPARE(exists(m_out + '/' + nameOf(i)), !isLeft);
        left += isLeft;
    }
    QVERIFY(left > 0);
    QVERIFY(left < count);
}

void TestEngineMoves::anEntrySkippedAtItsSecondTestIsTakenByTheNextRule()
{
    constexpr int count = 24;
    const std::string other = m_scratch->makeFolder("other");
    std::vector<std::string> names;
    for (int i = 0; i < count; ++i)
        names.push_back("film-" + std::to_string(i) + ".mp4");
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(m_inbox, {takeAll(m_out), takeAll(other)})}));
    for (const std::string& name : names)
        m_scratch->arrive(m_inbox + '/' + name, "begin");
    for (const std::string& name : names) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        if (exists(m_inbox + '/' + name)) appendToFile(m_inbox + '/' + name, " and end");
    }
    QTRY_COMPARE_WITH_TIMEOUT(namesIn(m_out).size() + namesIn(other).size(), count, patience);
    // The line of one that the first rule moved at its delayed attempt, or found gone there, comes later.
    int taken = 0;
    const QStringList told = messages(engine);
    for (const std::string& name : names) {
        const qsizetype skip = told.indexOf(skipped(name.c_str()));
        const qsizetype move = told.indexOf(moved(name.c_str()));
        taken += skip >= 0 && skip < move && exists(other + '/' + name);
    }
    QVERIFY(taken > 0);
}

void TestEngineMoves::aBusyEntryOfTwoRulesIsMovedOnceAndSkippedOnce()
{
    constexpr int count = 20;
    const std::string other = m_scratch->makeFolder("other");
    std::vector<std::string> paths;
    for (int i = 0; i < count; ++i)
        paths.push_back(m_inbox + "/film-" + std::to_string(i) + ".mp4");
    Sentinel sentinel(*m_scratch, m_inbox);
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(
        engine, {watched(m_inbox, {sentinel.rule(), takeKind(RuleKind::video, m_out), takeAll(other)})}));
    GrowingFiles downloads(paths);
    // It arrived later, so that its two tests end after the first of both rules.
    QVERIFY(sentinel.passes(engine));
    downloads.stop();
    const QRegularExpression film(QStringLiteral("film-"));
    QTRY_COMPARE_WITH_TIMEOUT(messages(engine).filter(film).size(), 2 * count, patience);
    QCOMPARE(namesIn(m_out).size() + namesIn(other).size(), count);
    QVERIFY(namesIn(m_inbox).isEmpty());
    for (int i = 0; i < count; ++i) {
        const QByteArray name = "film-" + QByteArray::number(i) + ".mp4";
        QCOMPARE(countMessages(engine, moved(name.constData())), 1);
        QCOMPARE(countMessages(engine, skipped(name.constData())), 1);
    }
}

void TestEngineMoves::aBusyEntryThatIsGoneASecondLaterIsSkipped()
{
    Sentinel sentinel(*m_scratch, m_inbox);
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(m_inbox, {sentinel.rule(), takeAll(m_out)})}));
    GrowingFiles download({m_inbox + "/film.mp4"});
    QVERIFY(sentinel.passes(engine));
    removeEntry(m_inbox + "/film.mp4");
    QTRY_COMPARE_WITH_TIMEOUT(lastMessage(engine), skipped("film.mp4"), patience);
    QVERIFY(namesIn(m_out).isEmpty());
}

void TestEngineMoves::aFolderIsMovedHoweverBusyItsContents()
{
    const std::string prepared = m_scratch->makeFolder("Tool.app");
    const std::string notes = m_scratch->makeFolder("Notes");
    GrowingFiles contents({prepared + "/log", notes + "/log"});
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(m_inbox, {takeAll(m_out)})}));
    renameEntry(prepared, m_inbox + "/Tool.app");
    renameEntry(notes, m_inbox + "/Notes");
    QTRY_COMPARE_WITH_TIMEOUT(namesIn(m_out), QByteArrayList({"Notes", "Tool.app"}), patience);
    contents.stop();
    QTRY_COMPARE_WITH_TIMEOUT(messages(engine).size(), 3, patience);
    QCOMPARE(messages(engine).filter(QStringLiteral("Moved ")).size(), 2);
}

/// A file arrives first, and what comes after it is moved before it.
void TestEngineMoves::aFolderAndALinkToOneWaitForNoSampling()
{
    const std::string folder = m_scratch->makeFolder("folder");
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(m_inbox, {takeAll(m_out)})}));
    // On a busy machine the file can be moved before the folder has even been made.
    bool wasFirst[] = {false, false};
    for (int i = 0; i < 20 && !(wasFirst[0] && wasFirst[1]); ++i) {
        const std::string number = std::to_string(i);
        m_scratch->arrive(m_inbox + "/file" + number, "");
        const QByteArray sampled = "Processing: file" + QByteArray::fromStdString(number);
        QTRY_VERIFY_WITH_TIMEOUT(m_output->lines().contains(sampled), patience);
        if (i % 2 == 0)
            makeFolder(m_inbox + "/late" + number);
        else
            makeLink(m_inbox + "/late" + number, folder);
        QTRY_COMPARE_WITH_TIMEOUT(namesIn(m_out).size(), 2 * (i + 1), patience);
        QTRY_COMPARE_WITH_TIMEOUT(messages(engine).size(), 1 + 2 * (i + 1), patience);
        if (lastMessage(engine) == moved(("file" + number).c_str())) wasFirst[i % 2] = true;
    }
    QVERIFY(wasFirst[0]);
    QVERIFY(wasFirst[1]);
}

void TestEngineMoves::aTakenNameGetsANumber()
{
    struct {
        QByteArray name;
        QByteArrayList taken;
        QByteArray target;
    } const cases[] = {
        {"free.txt", {}, "free.txt"},
        {"report.pdf", {"report.pdf"}, "report-1.pdf"},
        {"photo.jpg", {"photo.jpg", "photo-1.jpg"}, "photo-2.jpg"},
        {"gap.jpg", {"gap.jpg", "gap-2.jpg"}, "gap-1.jpg"},
        {"archive.tar.gz", {"archive.tar.gz"}, "archive.tar-1.gz"},
        {"README", {"README"}, "README-1"},
        {".env", {".env"}, ".env-1"},
        {"Photo.JPG", {"Photo.JPG"}, "Photo-1.JPG"},
    };
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(m_inbox, {takeAll(m_out)})}));
    for (const auto& each : cases) {
        for (const QByteArray& name : each.taken)
            writeFile(m_out + '/' + name.toStdString(), "old");
        m_scratch->arrive(m_inbox + '/' + each.name.toStdString(), "new");
    }
    QTRY_COMPARE_WITH_TIMEOUT(static_cast<size_t>(messages(engine).size()), 1 + std::size(cases), patience);
    for (const auto& each : cases) {
        QVERIFY2(messages(engine).contains(moved(each.name.constData(), each.target.constData())),
                 each.name.constData());
        QCOMPARE(contents(m_out + '/' + each.target.toStdString()), QByteArray("new"));
        for (const QByteArray& name : each.taken)
            QCOMPARE(contents(m_out + '/' + name.toStdString()), QByteArray("old"));
    }
}

void TestEngineMoves::whateverStandsAtTheDestinationKeepsItsPlace()
{
    makeLink(m_out + "/dangling.txt", "nowhere");
    makeLink(m_out + "/link.txt", "original.txt");
    writeFile(m_out + "/original.txt", "original");
    makeFolder(m_out + "/folder.txt");
    makeFolder(m_out + "/Notes");
    writeFile(m_out + "/Tool.app", "a file");
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(m_inbox, {takeAll(m_out)})}));
    for (const char* name : {"/dangling.txt", "/link.txt", "/folder.txt"})
        m_scratch->arrive(m_inbox + name, "new");
    makeFolder(m_inbox + "/Notes");
    makeFolder(m_inbox + "/Tool.app");
    QTRY_COMPARE_WITH_TIMEOUT(messages(engine).size(), 6, patience);
    QCOMPARE(namesIn(m_out),
             QByteArrayList({"Notes", "Notes-1", "Tool-1.app", "Tool.app", "dangling-1.txt", "dangling.txt",
                             "folder-1.txt", "folder.txt", "link-1.txt", "link.txt", "original.txt"}));
    QCOMPARE(contents(m_out + "/original.txt"), QByteArray("original"));
    QCOMPARE(contents(m_out + "/Tool.app"), QByteArray("a file"));
    QVERIFY(!exists(m_out + "/nowhere"));
}

void TestEngineMoves::entriesOfOneNameFromTwoFoldersAreBothKept()
{
    constexpr int count = 50;
    const std::string second = m_scratch->makeFolder("second");
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(m_inbox, {takeAll(m_out)}), watched(second, {takeAll(m_out)})}));
    for (int i = 0; i < count; ++i) {
        const std::string name = "/photo" + std::to_string(i) + ".jpg";
        m_scratch->arrive(m_inbox + name, "first" + std::to_string(i));
        m_scratch->arrive(second + name, "second" + std::to_string(i));
    }
    QTRY_COMPARE_WITH_TIMEOUT(messages(engine).size(), 1 + 2 * count, patience);
    // Two folders can choose the same name in the same moment. Then one of the moves fails, and its entry
    // stays.
    QByteArrayList found;
    for (const std::string& folder : {m_inbox, second, m_out})
        for (const QByteArray& name : namesIn(folder))
            found << contents(folder + '/' + name.toStdString());
    QCOMPARE(found.size(), 2 * count);
    for (int i = 0; i < count; ++i) {
        QVERIFY(found.contains("first" + QByteArray::number(i)));
        QVERIFY(found.contains("second" + QByteArray::number(i)));
    }
    const QStringList failures = messages(engine).filter(QStringLiteral("Move failed"));
    for (const QString& failure : failures)
        QVERIFY(failure.endsWith(QStringLiteral("File exists")));
    QCOMPARE(namesIn(m_inbox).size() + namesIn(second).size(), failures.size());
}

void TestEngineMoves::aRuleWhoseMoveFailsLeavesTheEntryToTheNext()
{
    DownloadImageRedirector engine;
    QVERIFY(
        startAndWait(engine, {watched(m_inbox, {takeAll(m_scratch->path() + "/missing"), takeAll(m_out)})}));
    m_scratch->arrive(m_inbox + "/photo.jpg", "content");
    QTRY_COMPARE_WITH_TIMEOUT(lastMessage(engine), moved("photo.jpg"), patience);
    QCOMPARE(messages(engine)[1], QStringLiteral("Move failed for photo.jpg: No such file or directory"));
    QCOMPARE(m_output->lines().count("Processing: photo.jpg"), 2);
    QVERIFY(!exists(m_scratch->path() + "/missing"));
}

void TestEngineMoves::aDestinationThatCannotTakeItIsLogged_data()
{
    QTest::addColumn<QString>("url");
    QTest::addColumn<QString>("reason");
    const auto url = [](const std::string& path) { return FileUrl::fromPath(path).absoluteString(); };
    QTest::newRow("missing") << url("/SCRATCH/missing") << QStringLiteral("No such file or directory");
    QTest::newRow("a file") << url("/SCRATCH/file") << QStringLiteral("Not a directory");
    QTest::newRow("forbidden") << url("/SCRATCH/forbidden") << QStringLiteral("Permission denied");
    QTest::newRow("a dangling link") << url("/SCRATCH/dangling")
                                     << QStringLiteral("No such file or directory");
    QTest::newRow("on another computer")
        << QStringLiteral("https://example.org/folder") << QStringLiteral("No such file or directory");
}

void TestEngineMoves::aDestinationThatCannotTakeItIsLogged()
{
    QFETCH(QString, url);
    QFETCH(const QString, reason);
    url.replace(QStringLiteral("/SCRATCH"), QString::fromStdString(m_scratch->path()));
    const WithoutPrivileges withoutPrivileges;
    writeFile(m_scratch->path() + "/file", "");
    makeLink(m_scratch->path() + "/dangling", "nowhere");
    const std::string forbidden = m_scratch->makeFolder("forbidden");
    QCOMPARE(::chmod(forbidden.c_str(), 0555), 0);

    WatchedFolder folder = watched(m_inbox, {takeAll(m_out)});
    folder.rules[0].destination = FileUrl::fromString(url).value();
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {folder}));
    m_scratch->arrive(m_inbox + "/photo.jpg", "content");
    QTRY_COMPARE_WITH_TIMEOUT(lastMessage(engine), QStringLiteral("Move failed for photo.jpg: ") + reason,
                              patience);
    QCOMPARE(contents(m_inbox + "/photo.jpg"), QByteArray("content"));
    QVERIFY(namesIn(forbidden).isEmpty());
}

void TestEngineMoves::aDestinationThatVanishesIsLogged()
{
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(m_inbox, {takeAll(m_out)})}));
    m_scratch->arrive(m_inbox + "/a.jpg", "");
    QTRY_COMPARE_WITH_TIMEOUT(lastMessage(engine), moved("a.jpg"), patience);
    removeEntry(m_out + "/a.jpg");
    removeEntry(m_out);
    m_scratch->arrive(m_inbox + "/b.jpg", "");
    QTRY_COMPARE_WITH_TIMEOUT(lastMessage(engine),
                              QStringLiteral("Move failed for b.jpg: No such file or directory"), patience);
    makeFolder(m_out);
    m_scratch->arrive(m_inbox + "/c.jpg", "");
    QTRY_COMPARE_WITH_TIMEOUT(lastMessage(engine), moved("c.jpg"), patience);
    QCOMPARE(namesIn(m_inbox), QByteArrayList{"b.jpg"});
}

void TestEngineMoves::aNameThatIsTakenAtTheLastMomentIsLogged()
{
    const auto work = [this]() -> Outcome<void> {
        DownloadImageRedirector engine;
        if (!startAndWait(engine, {watched(m_inbox, {takeAll(m_out)})})) return SystemError{ETIME};
        m_scratch->arrive(m_inbox + "/photo.jpg", "photo");
        const auto isTold = [&engine] {
            return lastMessage(engine) == QStringLiteral("Move failed for photo.jpg: File exists");
        };
        if (!QTest::qWaitFor(isTold, patience)) return SystemError{ETIME};
        return {};
    };
    const InterceptedRun run = runIntercepted({"renameat2"}, work, [this](const InterceptedCall& call) {
        if (call.ordinal == 1) writeFile(m_out + "/photo.jpg", "victim");
        return Answer::proceed();
    });
    QVERIFY(run.succeeded());
    QCOMPARE(run.calls, std::vector<std::string>{"renameat2 #1"});
    QCOMPARE(contents(m_inbox + "/photo.jpg"), QByteArray("photo"));
    QCOMPARE(contents(m_out + "/photo.jpg"), QByteArray("victim"));
    QCOMPARE(namesIn(m_out), QByteArrayList{"photo.jpg"});
}

void TestEngineMoves::anEntryOfAnotherFolderInThePlaceOfItsOwnStays()
{
    const std::string other = m_scratch->makeFolder("other");
    // Of the same size.
    writeFile(other + "/photo.jpg", "of another");
    const auto work = [&]() -> Outcome<void> {
        DownloadImageRedirector engine;
        if (!startAndWait(engine, {watched(m_inbox, {takeAll(m_out)})})) return SystemError{ETIME};
        m_scratch->arrive(m_inbox + "/photo.jpg", "of its own");
        const auto isTold = [&engine] { return test::messages(engine).size() > 1; };
        if (!QTest::qWaitFor(isTold, patience)) return SystemError{ETIME};
        return lastMessage(engine) == QStringLiteral("Skipped busy file: photo.jpg") ? Outcome<void>()
                                                                                     : SystemError{EINVAL};
    };
    // When its size is read for the last time.
    int looks = 0;
    const InterceptedRun run = runIntercepted({"statx"}, work, [&](const InterceptedCall& call) {
        if (call.text(1) == m_inbox + "/photo.jpg" && ++looks == 5) {
            renameEntry(m_inbox, m_scratch->path() + "/elsewhere");
            renameEntry(other, m_inbox);
        }
        return Answer::proceed();
    });
    QCOMPARE(run.error, 0);
    QCOMPARE(looks, 5);
    QCOMPARE(contents(m_inbox + "/photo.jpg"), QByteArray("of another"));
    QCOMPARE(namesIn(m_out), QByteArrayList());
}

void TestEngineMoves::anEntryWhoseDestinationIsItsOwnFolderStays_data()
{
    QTest::addColumn<QString>("path");
    QTest::newRow("the same path") << QStringLiteral("/inbox");
    QTest::newRow("a trailing slash") << QStringLiteral("/inbox/");
    QTest::newRow("through a link") << QStringLiteral("/link");
    QTest::newRow("a roundabout path") << QStringLiteral("/out/../inbox/.");
}

void TestEngineMoves::anEntryWhoseDestinationIsItsOwnFolderStays()
{
    QFETCH(const QString, path);
    makeLink(m_scratch->path() + "/link", m_inbox);
    FilterRule stay = takeKind(RuleKind::image, m_inbox);
    stay.destination =
        FileUrl::fromString(FileUrl::fromPath(m_scratch->path()).absoluteString() + path).value();
    Sentinel sentinel(*m_scratch, m_inbox);
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(m_inbox, {sentinel.rule(), stay, takeAll(m_out)})}));
    m_scratch->arrive(m_inbox + "/photo.jpg", "content");
    m_scratch->arrive(m_inbox + "/letter.pdf", "");
    QVERIFY(sentinel.passes(engine));
    QCOMPARE(namesIn(m_inbox), QByteArrayList{"photo.jpg"});
    QCOMPARE(namesIn(m_out), QByteArrayList{"letter.pdf"});
    QCOMPARE(messages(engine).filter(QStringLiteral("photo")), QStringList{});
    QCOMPARE(m_output->lines().count("[\"photo\", \"jpg\"]"), 1);
}

void TestEngineMoves::anEntryMovesToAnotherVolume()
{
    const ScratchFolder far(folderOnAnotherVolume());
    writeFile(far.path() + "/photo.jpg", "old");
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(m_inbox, {takeAll(far.path())})}));
    m_scratch->arrive(m_inbox + "/photo.jpg", "new");
    const std::string prepared = m_scratch->makeFolder("Notes");
    writeFile(prepared + "/note.txt", "note");
    renameEntry(prepared, m_inbox + "/Notes");
    makeLink(m_inbox + "/link.txt", m_scratch->path() + "/original.txt");
    writeFile(m_scratch->path() + "/original.txt", "original");
    renameEntry(m_inbox + "/link.txt", m_inbox + "/link too.txt");
    QTRY_COMPARE_WITH_TIMEOUT(messages(engine).size(), 4, patience);
    QVERIFY(messages(engine).contains(moved("photo.jpg", "photo-1.jpg")));
    QVERIFY(messages(engine).contains(moved("Notes")));
    QVERIFY(messages(engine).contains(moved("link too.txt")));
    QCOMPARE(namesIn(m_inbox), QByteArrayList{});
    QCOMPARE(contents(far.path() + "/photo.jpg"), QByteArray("old"));
    QCOMPARE(contents(far.path() + "/photo-1.jpg"), QByteArray("new"));
    QCOMPARE(contents(far.path() + "/Notes/note.txt"), QByteArray("note"));
    QCOMPARE(contents(far.path() + "/link too.txt"), QByteArray("original"));
    QCOMPARE(namesIn(far.path()), QByteArrayList({"Notes", "link too.txt", "photo-1.jpg", "photo.jpg"}));
}

/// A copy takes time, in which the attempt for the second rule still sees the entry.
void TestEngineMoves::aBusyEntryOfTwoRulesGoesToAnotherVolumeOnce()
{
    const ScratchFolder far(folderOnAnotherVolume());
    const std::string inbox = far.makeFolder("inbox");
    const std::string other = m_scratch->makeFolder("other");
    Sentinel sentinel(far, inbox);
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(
        engine, {watched(inbox, {sentinel.rule(), takeKind(RuleKind::video, m_out), takeAll(other)})}));
    GrowingFiles download({far.path() + "/film.mp4"});
    appendToFile(far.path() + "/film.mp4", std::string(256 << 20, 'x'));
    renameEntry(far.path() + "/film.mp4", inbox + "/film.mp4");
    QVERIFY(sentinel.passes(engine));
    download.stop();
    QTRY_COMPARE_WITH_TIMEOUT(messages(engine).filter(QStringLiteral("film")).size(), 2, patience);
    QCOMPARE(countMessages(engine, moved("film.mp4")), 1);
    QCOMPARE(countMessages(engine, skipped("film.mp4")), 1);
    QCOMPARE(namesIn(m_out).size() + namesIn(other).size(), 1);
    QVERIFY(contents((namesIn(m_out).isEmpty() ? other : m_out) + "/film.mp4").size() > (256 << 20));
    QVERIFY(!exists(inbox + "/film.mp4"));
}

void TestEngineMoves::aStandardOutputThatNobodyReadsDisturbsNothing()
{
    int ends[2];
    QCOMPARE(::pipe2(ends, O_CLOEXEC), 0);
    const FileDescriptor writing(ends[1]);
    ::close(ends[0]);
    // As the program does; Qt Test has it end the test.
    std::signal(SIGPIPE, SIG_IGN);
    const RedirectedOutput redirected(writing.get());
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(m_inbox, {takeAll(m_out)})}));
    m_scratch->arrive(m_inbox + "/photo.jpg", "content");
    QTRY_COMPARE_WITH_TIMEOUT(lastMessage(engine), moved("photo.jpg"), patience);
}

void TestEngineMoves::aClosedStandardOutputDisturbsNothing()
{
    // Something that cannot be written to holds the place, or the next file that is opened would take it.
    const FileDescriptor closed(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    const RedirectedOutput redirected(closed.get());
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(m_inbox, {takeAll(m_out)})}));
    m_scratch->arrive(m_inbox + "/photo.jpg", "content");
    QTRY_COMPARE_WITH_TIMEOUT(lastMessage(engine), moved("photo.jpg"), patience);
}

HARBEX_ENGINE_TEST_MAIN(TestEngineMoves)

#include "tst_EngineMoves.moc"
