#include "support/EngineOutput.h"
#include "support/EngineProbe.h"
#include "support/Eventually.h"
#include "support/SyscallInterceptor.h"

#include <algorithm>
#include <cerrno>
#include <memory>
#include <unistd.h>

using namespace harbex;
using namespace harbex::test;

namespace
{

/// A listing of a small folder takes two calls, of which the second gives nothing.
constexpr size_t firstCallOfSecondListing = 3;

QByteArray targetOf(const std::string& link)
{
    QByteArray target(4096, '\0');
    target.resize(
        std::max<ssize_t>(0, ::readlink(link.c_str(), target.data(), static_cast<size_t>(target.size()))));
    return target;
}

} // namespace

/// Which entries of a watched folder count as new.
class TestEngineDetection : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void whatIsThereBeforeStartIsNeverMoved();
    void whatArrivesDuringARestartIsKnown();
    void anEntryThatMatchedNoRuleIsLookedAtAgainOnlyWhenItComesBack();
    void anEntryWhoseMoveFailedIsNotTriedAgain();
    void anEntryThatWasMovedAndComesAgainIsNew();
    void aNameGivenWithinTheFolderIsNew();
    void aDownloadIsTakenOnceItsNameIsFinal();
    void overwritingAndGrowingIsNotNew();
    void deletedAndMadeAgainBetweenTwoScansIsNotNew();
    void deletedAndMadeAgainAfterAScanIsNew();
    void entriesOfSubfoldersAreNotLookedAt();
    void hiddenEntriesAreFound();
    void aListingThatFailsKeepsTheSnapshot_data();
    void aListingThatFailsKeepsTheSnapshot();

    void namesAreBytesAndShownOnOneLine();
    void aFullLengthNameThatIsTakenFailsWithAClearLine();

    void aLinkToAFileIsMovedItself();
    void aLinkToAFolderIsMovedItselfAtOnce();
    void aDanglingLinkStays();

    void anEntryMovedIntoAnotherWatchedFolderIsNewThere();

private:
    std::unique_ptr<ScratchFolder> m_scratch;
    std::unique_ptr<EngineOutput> m_output;
    std::string m_inbox;
    std::string m_out;
};

void TestEngineDetection::init()
{
    m_scratch = std::make_unique<ScratchFolder>();
    m_inbox = m_scratch->makeFolder("inbox");
    m_out = m_scratch->makeFolder("out");
    m_output = std::make_unique<EngineOutput>();
}

void TestEngineDetection::cleanup()
{
    m_output.reset();
}

void TestEngineDetection::whatIsThereBeforeStartIsNeverMoved()
{
    writeFile(m_inbox + "/photo.jpg", "old");
    writeFile(m_inbox + "/.hidden", "old");
    makeFolder(m_inbox + "/Notes");
    const QByteArrayList before = namesIn(m_inbox);
    Sentinel sentinel(*m_scratch, m_inbox);
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(m_inbox, {sentinel.rule(), takeAll(m_out)})}));
    QVERIFY(sentinel.passes(engine));
    QCOMPARE(namesIn(m_inbox), before);
    QVERIFY(namesIn(m_out).isEmpty());
}

void TestEngineDetection::whatArrivesDuringARestartIsKnown()
{
    Sentinel sentinel(*m_scratch, m_inbox);
    const std::vector<WatchedFolder> folders = {watched(m_inbox, {sentinel.rule(), takeAll(m_out)})};
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, folders));
    engine.restart(folders);
    m_scratch->arrive(m_inbox + "/photo.jpg", "");
    QTRY_COMPARE(engine.logs().size(), 3);
    QVERIFY(sentinel.passes(engine));
    QCOMPARE(namesIn(m_inbox), QByteArrayList{"photo.jpg"});
}

void TestEngineDetection::anEntryThatMatchedNoRuleIsLookedAtAgainOnlyWhenItComesBack()
{
    Sentinel sentinel(*m_scratch, m_inbox);
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(m_inbox, {sentinel.rule(), takeKind(RuleKind::video, m_out)})}));
    m_scratch->arrive(m_inbox + "/photo.jpg", "");
    QVERIFY(sentinel.passes(engine));
    QVERIFY(restartAndWait(engine, {watched(m_inbox, {sentinel.rule(), takeAll(m_out)})}));
    QVERIFY(sentinel.passes(engine));
    QCOMPARE(namesIn(m_inbox), QByteArrayList{"photo.jpg"});
    QCOMPARE(m_output->lines().count("[\"photo\", \"jpg\"]"), 1);

    renameEntry(m_inbox + "/photo.jpg", m_scratch->path() + "/photo.jpg");
    QVERIFY(sentinel.passes(engine));
    renameEntry(m_scratch->path() + "/photo.jpg", m_inbox + "/photo.jpg");
    QTRY_COMPARE_WITH_TIMEOUT(namesIn(m_out), QByteArrayList{"photo.jpg"}, patience);
}

void TestEngineDetection::anEntryWhoseMoveFailedIsNotTriedAgain()
{
    Sentinel sentinel(*m_scratch, m_inbox);
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(
        engine, {watched(m_inbox, {sentinel.rule(), takeAll(m_scratch->path() + "/not yet there")})}));
    m_scratch->arrive(m_inbox + "/photo.jpg", "");
    QVERIFY(sentinel.passes(engine));
    m_scratch->makeFolder("not yet there");
    QVERIFY(sentinel.passes(engine));
    QCOMPARE(messages(engine).filter(QStringLiteral("photo")),
             QStringList{QStringLiteral("Move failed for photo.jpg: No such file or directory")});
    QCOMPARE(namesIn(m_inbox), QByteArrayList{"photo.jpg"});
}

void TestEngineDetection::anEntryThatWasMovedAndComesAgainIsNew()
{
    Sentinel sentinel(*m_scratch, m_inbox);
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(m_inbox, {sentinel.rule(), takeAll(m_out)})}));
    m_scratch->arrive(m_inbox + "/photo.jpg", "first");
    // Its name leaves the snapshot with the scan that the move itself leads to.
    QVERIFY(sentinel.passes(engine));
    m_scratch->arrive(m_inbox + "/photo.jpg", "second");
    QTRY_COMPARE_WITH_TIMEOUT(namesIn(m_out), QByteArrayList({"photo-1.jpg", "photo.jpg"}), patience);
    QCOMPARE(contents(m_out + "/photo.jpg"), QByteArray("first"));
    QCOMPARE(contents(m_out + "/photo-1.jpg"), QByteArray("second"));
}

void TestEngineDetection::aNameGivenWithinTheFolderIsNew()
{
    writeFile(m_inbox + "/photo.jpg", "old");
    Sentinel sentinel(*m_scratch, m_inbox);
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(m_inbox, {sentinel.rule(), takeAll(m_out)})}));
    QVERIFY(sentinel.passes(engine));
    renameEntry(m_inbox + "/photo.jpg", m_inbox + "/holiday.jpg");
    QTRY_COMPARE_WITH_TIMEOUT(namesIn(m_out), QByteArrayList{"holiday.jpg"}, patience);
}

void TestEngineDetection::aDownloadIsTakenOnceItsNameIsFinal()
{
    const std::vector<std::string> extensions = {"download", "crdownload", "part", "tmp", "PART"};
    Sentinel sentinel(*m_scratch, m_inbox);
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(m_inbox, {sentinel.rule(), takeAll(m_out)})}));
    const auto path = [&](const std::string& folder, const std::string& extension) {
        return folder + "/film from " + extension + ".mp4";
    };
    for (const std::string& extension : extensions)
        m_scratch->arrive(path(m_inbox, extension) + '.' + extension, extension);
    QVERIFY(sentinel.passes(engine));
    QVERIFY(namesIn(m_out).isEmpty());

    for (const std::string& extension : extensions)
        renameEntry(path(m_inbox, extension) + '.' + extension, path(m_inbox, extension));
    for (const std::string& extension : extensions)
        QTRY_COMPARE_WITH_TIMEOUT(contents(path(m_out, extension)), QByteArray::fromStdString(extension),
                                  patience);
}

void TestEngineDetection::overwritingAndGrowingIsNotNew()
{
    writeFile(m_inbox + "/grows.txt", "old");
    writeFile(m_inbox + "/replaced.txt", "old");
    Sentinel sentinel(*m_scratch, m_inbox);
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(m_inbox, {sentinel.rule(), takeAll(m_out)})}));
    appendToFile(m_inbox + "/grows.txt", " and new");
    m_scratch->arrive(m_inbox + "/replaced.txt", "new");
    QVERIFY(sentinel.passes(engine));
    QCOMPARE(contents(m_inbox + "/grows.txt"), QByteArray("old and new"));
    QCOMPARE(contents(m_inbox + "/replaced.txt"), QByteArray("new"));
}

void TestEngineDetection::deletedAndMadeAgainBetweenTwoScansIsNotNew()
{
    writeFile(m_inbox + "/photo.jpg", "old");
    const auto work = [this]() -> Outcome<void> {
        Sentinel sentinel(*m_scratch, m_inbox);
        DownloadImageRedirector engine;
        if (!startAndWait(engine, {watched(m_inbox, {sentinel.rule(), takeAll(m_out)})}))
            return SystemError{ETIME};
        // Found together with the first of them or not at all.
        return sentinel.passes(engine) ? Outcome<void>() : SystemError{ETIME};
    };
    const InterceptedRun run = runIntercepted({"getdents64"}, work, [this](const InterceptedCall& call) {
        if (call.ordinal == firstCallOfSecondListing) {
            removeEntry(m_inbox + "/photo.jpg");
            writeFile(m_inbox + "/photo.jpg", "new");
        }
        return Answer::proceed();
    });
    QVERIFY(run.succeeded());
    QCOMPARE(contents(m_inbox + "/photo.jpg"), QByteArray("new"));
}

void TestEngineDetection::deletedAndMadeAgainAfterAScanIsNew()
{
    writeFile(m_inbox + "/photo.jpg", "old");
    Sentinel sentinel(*m_scratch, m_inbox);
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(m_inbox, {sentinel.rule(), takeAll(m_out)})}));
    removeEntry(m_inbox + "/photo.jpg");
    QVERIFY(sentinel.passes(engine));
    m_scratch->arrive(m_inbox + "/photo.jpg", "new");
    QTRY_COMPARE_WITH_TIMEOUT(contents(m_out + "/photo.jpg"), QByteArray("new"), patience);
}

void TestEngineDetection::entriesOfSubfoldersAreNotLookedAt()
{
    makeFolder(m_inbox + "/sub");
    Sentinel sentinel(*m_scratch, m_inbox);
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(m_inbox, {sentinel.rule(), takeAll(m_out)})}));
    m_scratch->arrive(m_inbox + "/sub/photo.jpg", "");
    QVERIFY(sentinel.passes(engine));
    QCOMPARE(namesIn(m_inbox + "/sub"), QByteArrayList{"photo.jpg"});
}

void TestEngineDetection::hiddenEntriesAreFound()
{
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(m_inbox, {takeAll(m_out)})}));
    m_scratch->arrive(m_inbox + "/.DS_Store", "");
    makeFolder(m_inbox + "/.config");
    QTRY_COMPARE_WITH_TIMEOUT(namesIn(m_out), QByteArrayList({".DS_Store", ".config"}), patience);
}

void TestEngineDetection::aListingThatFailsKeepsTheSnapshot_data()
{
    QTest::addColumn<size_t>("call");
    QTest::newRow("before the first name") << firstCallOfSecondListing;
    QTest::newRow("after the last name") << firstCallOfSecondListing + 1;
}

void TestEngineDetection::aListingThatFailsKeepsTheSnapshot()
{
    QFETCH(const size_t, call);
    writeFile(m_inbox + "/old.jpg", "");
    const std::string failed = m_scratch->path() + "/failed";
    const auto work = [&]() -> Outcome<void> {
        Sentinel sentinel(*m_scratch, m_inbox);
        DownloadImageRedirector engine;
        if (!startAndWait(engine, {watched(m_inbox, {sentinel.rule(), takeAll(m_out)})}))
            return SystemError{ETIME};
        m_scratch->arrive(m_inbox + "/first.jpg", "first");
        if (!eventually([&] { return exists(failed); })) return SystemError{ETIME};
        m_scratch->arrive(m_inbox + "/second.jpg", "second");
        return sentinel.passes(engine) ? Outcome<void>() : SystemError{ETIME};
    };
    const InterceptedRun run = runIntercepted({"getdents64"}, work, [&](const InterceptedCall& each) {
        if (each.ordinal != call) return Answer::proceed();
        writeFile(failed, "");
        return Answer::fail(EIO);
    });
    QCOMPARE(run.error, 0);
    QCOMPARE(namesIn(m_inbox), QByteArrayList{"old.jpg"});
    QCOMPARE(namesIn(m_out), QByteArrayList({"first.jpg", "second.jpg"}));
}

void TestEngineDetection::namesAreBytesAndShownOnOneLine()
{
    // The names, and where it is another text, how they are shown.
    const std::vector<std::pair<QByteArray, QByteArray>> names = {
        {"two\nlines.jpg", "two\\nlines.jpg"},
        {"bell\x07 escape\x1b[2J.jpg", "bell\\u{7} escape\\u{1b}[2J.jpg"},
        {"no UTF-8: caf\xe9.jpg", "no UTF-8: caf\xef\xbf\xbd.jpg"},
        {"turned around: \xe2\x80\xaegpj.exe", "turned around: \\u{202e}gpj.exe"},
        {QByteArray(251, 'n') + ".jpg", {}},
        {QByteArray(255, '\xff'), QByteArray("\xef\xbf\xbd").repeated(255)},
        {"...", {}},
        {"-rf", {}},
        {" --help -- ", {}},
        {"100%25%.jpg", {}},
        {"\"a\" 'b' `c` $(d) \\.jpg", {}},
        {"photo.", {}},
        {"composed \xc3\xa9.jpg", {}},
        {"composed e\xcc\x81.jpg", {}},
        {"\xf0\x9f\x93\xb7.jpg", {}},
    };
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(m_inbox, {takeAll(m_out)})}));
    for (const auto& [name, shown] : names)
        m_scratch->arrive(m_inbox + '/' + name.toStdString(), name.toStdString());
    QTRY_COMPARE_WITH_TIMEOUT(static_cast<size_t>(engine.logs().size()), 1 + names.size(), patience);
    for (const auto& [name, shown] : names) {
        const QString text = QString::fromUtf8(shown.isEmpty() ? name : shown);
        QCOMPARE(contents(m_out + '/' + name.toStdString()), name);
        QVERIFY2(messages(engine).contains(QStringLiteral("Moved ") + text + QStringLiteral(" -> ") + text),
                 qPrintable(text));
    }
}

void TestEngineDetection::aFullLengthNameThatIsTakenFailsWithAClearLine()
{
    const std::string name = std::string(251, 'n') + ".jpg";
    writeFile(m_out + '/' + name, "old");
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(m_inbox, {takeAll(m_out)})}));
    m_scratch->arrive(m_inbox + '/' + name, "new");
    QTRY_COMPARE_WITH_TIMEOUT(
        lastMessage(engine),
        QStringLiteral("Move failed for %1: File name too long").arg(QString::fromStdString(name)), patience);
    QCOMPARE(contents(m_out + '/' + name), QByteArray("old"));
    QCOMPARE(contents(m_inbox + '/' + name), QByteArray("new"));
}

void TestEngineDetection::aLinkToAFileIsMovedItself()
{
    writeFile(m_scratch->path() + "/original.txt", "content");
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(m_inbox, {takeAll(m_out)})}));
    makeLink(m_inbox + "/link.txt", "../original.txt");
    QTRY_COMPARE_WITH_TIMEOUT(namesIn(m_out), QByteArrayList{"link.txt"}, patience);
    QCOMPARE(targetOf(m_out + "/link.txt"), QByteArray("../original.txt"));
    QCOMPARE(contents(m_scratch->path() + "/original.txt"), QByteArray("content"));
}

void TestEngineDetection::aLinkToAFolderIsMovedItselfAtOnce()
{
    const std::string folder = m_scratch->makeFolder("folder");
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(
        engine, {watched(m_inbox, {takeKind(RuleKind::folder, m_inbox + "/missing"), takeAll(m_out)})}));
    makeLink(m_inbox + "/link", folder);
    QTRY_COMPARE_WITH_TIMEOUT(namesIn(m_out), QByteArrayList{"link"}, patience);
    QCOMPARE(targetOf(m_out + "/link"), QByteArray::fromStdString(folder));
    // It leads to a folder but is none: the first rule did not take it.
    QCOMPARE(messages(engine).filter(QStringLiteral("failed")), QStringList{});
}

void TestEngineDetection::aDanglingLinkStays()
{
    Sentinel sentinel(*m_scratch, m_inbox);
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(m_inbox, {sentinel.rule(), takeAll(m_out)})}));
    makeLink(m_inbox + "/link.txt", "nowhere");
    QVERIFY(sentinel.passes(engine));
    QCOMPARE(namesIn(m_inbox), QByteArrayList{"link.txt"});
    QCOMPARE(messages(engine).filter(QStringLiteral("link")), QStringList{});
    QVERIFY(m_output->lines().contains("[\"link\", \"txt\"]"));
    QVERIFY(!m_output->lines().contains("Processing: link.txt"));
}

void TestEngineDetection::anEntryMovedIntoAnotherWatchedFolderIsNewThere()
{
    const std::string second = m_scratch->makeFolder("second");
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(
        engine, {watched(m_inbox, {takeKind(RuleKind::image, second)}), watched(second, {takeAll(m_out)})}));
    m_scratch->arrive(m_inbox + "/photo.jpg", "");
    QTRY_COMPARE_WITH_TIMEOUT(namesIn(m_out), QByteArrayList{"photo.jpg"}, patience);
}

HARBEX_ENGINE_TEST_MAIN(TestEngineDetection)

#include "tst_EngineDetection.moc"
