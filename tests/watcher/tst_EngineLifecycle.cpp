#include "support/EngineOutput.h"
#include "support/EngineProbe.h"
#include "support/EngineResources.h"
#include "support/Eventually.h"
#include "support/SyscallInterceptor.h"

#include <QRegularExpression>
#include <QSet>
#include <QSignalSpy>
#include <QThread>
#include <QTime>

#include <cerrno>
#include <memory>
#include <set>
#include <sys/stat.h>

using namespace harbex;
using namespace harbex::test;

namespace
{

const QString started = QStringLiteral("Started watchers.");
const QString stopped = QStringLiteral("Stopped watcher.");

/// The numbers of the files that ArrivingFiles has left in a folder; empty when one of them holds anything
/// else than its number.
std::set<int> filesIn(const std::string& folder)
{
    std::set<int> numbers;
    for (const QByteArray& name : namesIn(folder)) {
        if (!name.startsWith("file-")) continue;
        const QByteArray number = name.mid(5);
        if (contents(folder + '/' + name.toStdString()) != number) return {};
        numbers.insert(number.toInt());
    }
    return numbers;
}

/// Whether the files with the numbers below `count` are each in exactly one of the two folders, untouched.
bool areInOneOf(const std::string& a, const std::string& b, int count)
{
    const std::set<int> inA = filesIn(a);
    const std::set<int> inB = filesIn(b);
    if (inA.size() + inB.size() != static_cast<size_t>(count)) return false;
    for (int i = 0; i < count; ++i)
        if (inA.contains(i) == inB.contains(i)) return false;
    return true;
}

} // namespace

/// Start, stop, restart, and the end of the engine.
class TestEngineLifecycle : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void anEmptyListOpensNothingAndStarts();
    void startWhileRunningDoesNothing();
    void startTwiceInOneTurnLeavesOneWatchForEachFolder();
    void stopEndsWatching();
    void stopWhileStoppedLogsAgain();
    void restartLogsStoppedThenStarted();
    void restartWhileStoppedStarts();
    void twoRestartsInOneTurnLeaveOneWatchForEachFolder();
    void rulesAreThoseOfTheLastStart();

    void changesComeInALaterTurnOfTheMainLoop();
    void observersAreToldBeforeEachChange();
    void aLogLineCarriesTheLocalTime();
    void aLogLineCarriesTheTimeAtWhichItIsRecorded();
    void theLogKeepsThe200NewestLines();

    void aFolderThatCannotBeListedIsPassedOver_data();
    void aFolderThatCannotBeListedIsPassedOver();
    void aFolderThatNoDescriptorIsLeftForIsWatchedLater_data();
    void aFolderThatNoDescriptorIsLeftForIsWatchedLater();
    void aFolderWhoseListingBreaksOffIsPassedOver();
    void aRefusedWatchIsLoggedAndAskedForAgainAtTheNextStart();

    void twoRecordsOfOneFolderShareItsDescriptorAndMoveEachEntryOnce();
    void twoUrlsOfOneFolderEachTryTheirRules();

    void whatArrivesDuringAStartIsKnownOrMoved();
    void whatArrivesBeforeAFolderIsWatchedIsKnown();
    void restartsDuringABurstLoseNothing();
    void stopDuringABurstLosesNothing();
    void destructionDuringABurstLosesNothing();
    void anEntryFoundBeforeAStopStillArrives();
    void aCopyUnderWayAtAStopStillArrives();
    void destructionGivesACopyUpAndKeepsItsSource();

private:
    std::unique_ptr<ScratchFolder> m_scratch;
    std::unique_ptr<EngineOutput> m_output;
    std::string m_inbox;
    std::string m_out;
    size_t m_threads = 0;
    size_t m_descriptors = 0;
};

void TestEngineLifecycle::init()
{
    m_scratch = std::make_unique<ScratchFolder>();
    m_output = std::make_unique<EngineOutput>();
    m_threads = threadCount();
    m_descriptors = descriptorCount();
    m_inbox = m_scratch->makeFolder("inbox");
    m_out = m_scratch->makeFolder("out");
}

/// Whatever an engine did, nothing of it is left when it is gone.
void TestEngineLifecycle::cleanup()
{
    QCOMPARE(threadCount(), m_threads);
    QCOMPARE(descriptorCount(), m_descriptors);
    m_output.reset();
}

void TestEngineLifecycle::anEmptyListOpensNothingAndStarts()
{
    DownloadImageRedirector engine;
    QVERIFY(!engine.isRunning());
    QVERIFY(engine.logs().isEmpty());

    QVERIFY(startAndWait(engine, {}));
    QTRY_COMPARE(messages(engine), QStringList{started});
    QVERIFY(engine.activeFDs().empty());
    QCOMPARE(descriptorCount(), m_descriptors);
    QCOMPARE(threadCount(), m_threads);
}

void TestEngineLifecycle::startWhileRunningDoesNothing()
{
    const std::string other = m_scratch->makeFolder("other");
    Sentinel sentinel(*m_scratch, m_inbox);
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(m_inbox, {sentinel.rule()})}));
    const std::vector<int> descriptors = engine.activeFDs();

    engine.start({watched(other, {takeAll(m_out)}), watched(m_inbox, {})});
    m_scratch->arrive(other + "/photo.jpg", "");
    QVERIFY(sentinel.passes(engine));
    QCOMPARE(engine.activeFDs(), descriptors);
    QCOMPARE(countMessages(engine, started), 1);
    QCOMPARE(namesIn(other), QByteArrayList{"photo.jpg"});
}

void TestEngineLifecycle::startTwiceInOneTurnLeavesOneWatchForEachFolder()
{
    const std::string other = m_scratch->makeFolder("other");
    const std::vector<WatchedFolder> folders = {watched(m_inbox, {takeAll(m_out)}),
                                                watched(other, {takeAll(m_out)})};
    DownloadImageRedirector engine;
    engine.start(folders);
    const size_t watches = kernelWatchCount();
    engine.start(folders);
    QTRY_COMPARE(messages(engine), QStringList({started, started}));
    QCOMPARE(engine.activeFDs().size(), 2U);
    QTRY_COMPARE_WITH_TIMEOUT(kernelWatchCount(), watches, patience);

    m_scratch->arrive(m_inbox + "/photo.jpg", "");
    QTRY_COMPARE_WITH_TIMEOUT(lastMessage(engine), QStringLiteral("Moved photo.jpg -> photo.jpg"), patience);
    QCOMPARE(m_output->lines().count("[\"photo\", \"jpg\"]"), 1);
}

void TestEngineLifecycle::stopEndsWatching()
{
    Sentinel sentinel(*m_scratch, m_inbox);
    const std::vector<WatchedFolder> folders = {watched(m_inbox, {sentinel.rule(), takeAll(m_out)})};
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, folders));
    QCOMPARE(engine.activeFDs().size(), 1U);
    QVERIFY(kernelWatchCount() > 0);

    engine.stop();
    QVERIFY(engine.activeFDs().empty());
    // A folder's watches end on its queue, because ending them may take long.
    QTRY_COMPARE_WITH_TIMEOUT(kernelWatchCount(), 0U, patience);
    QTRY_VERIFY(!engine.isRunning());
    QTRY_COMPARE(messages(engine), QStringList({started, stopped}));

    m_scratch->arrive(m_inbox + "/while stopped.jpg", "");
    QVERIFY(startAndWait(engine, folders));
    QVERIFY(sentinel.passes(engine));
    QVERIFY(namesIn(m_out).isEmpty());
}

void TestEngineLifecycle::stopWhileStoppedLogsAgain()
{
    DownloadImageRedirector engine;
    engine.stop();
    engine.stop();
    QTRY_COMPARE(messages(engine), QStringList({stopped, stopped}));
    QVERIFY(!engine.isRunning());
}

void TestEngineLifecycle::restartLogsStoppedThenStarted()
{
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(m_inbox, {})}));
    QSignalSpy running(&engine, &DownloadImageRedirector::isRunningChanged);
    engine.restart({watched(m_inbox, {})});
    QVERIFY(engine.activeFDs().empty());

    QTRY_COMPARE(messages(engine), QStringList({started, stopped, started}));
    QVERIFY(engine.logs().first().endsWith(started));
    QCOMPARE(running.size(), 2);
    QCOMPARE(running[0][0], false);
    QCOMPARE(running[1][0], true);
    QCOMPARE(engine.activeFDs().size(), 1U);
}

void TestEngineLifecycle::restartWhileStoppedStarts()
{
    DownloadImageRedirector engine;
    engine.restart({watched(m_inbox, {takeAll(m_out)})});
    QTRY_COMPARE(messages(engine), QStringList({stopped, started}));
    QVERIFY(engine.isRunning());

    m_scratch->arrive(m_inbox + "/photo.jpg", "");
    QTRY_COMPARE_WITH_TIMEOUT(namesIn(m_out), QByteArrayList{"photo.jpg"}, patience);
}

void TestEngineLifecycle::twoRestartsInOneTurnLeaveOneWatchForEachFolder()
{
    const std::string other = m_scratch->makeFolder("other");
    const std::vector<WatchedFolder> folders = {watched(m_inbox, {takeAll(m_out)}),
                                                watched(other, {takeAll(m_out)})};
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, folders));
    const size_t watches = kernelWatchCount();
    engine.restart(folders);
    engine.restart(folders);
    QTRY_COMPARE(messages(engine), QStringList({started, stopped, stopped, started, started}));
    QVERIFY(engine.isRunning());
    QCOMPARE(engine.activeFDs().size(), 2U);
    QTRY_COMPARE_WITH_TIMEOUT(kernelWatchCount(), watches, patience);

    m_scratch->arrive(m_inbox + "/a.jpg", "");
    QTRY_COMPARE_WITH_TIMEOUT(lastMessage(engine), QStringLiteral("Moved a.jpg -> a.jpg"), patience);
    m_scratch->arrive(other + "/b.jpg", "");
    QTRY_COMPARE_WITH_TIMEOUT(lastMessage(engine), QStringLiteral("Moved b.jpg -> b.jpg"), patience);
    QCOMPARE(m_output->lines().count("[\"a\", \"jpg\"]"), 1);
    QCOMPARE(m_output->lines().count("[\"b\", \"jpg\"]"), 1);
}

void TestEngineLifecycle::rulesAreThoseOfTheLastStart()
{
    const std::string later = m_scratch->makeFolder("later");
    std::vector<WatchedFolder> folders = {watched(m_inbox, {takeAll(m_out)})};
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, folders));

    folders[0].rules = {takeAll(later)};
    m_scratch->arrive(m_inbox + "/a.jpg", "");
    QTRY_COMPARE_WITH_TIMEOUT(namesIn(m_out), QByteArrayList{"a.jpg"}, patience);

    QVERIFY(restartAndWait(engine, folders));
    m_scratch->arrive(m_inbox + "/b.jpg", "");
    QTRY_COMPARE_WITH_TIMEOUT(namesIn(later), QByteArrayList{"b.jpg"}, patience);
    QCOMPARE(namesIn(m_out), QByteArrayList{"a.jpg"});
}

void TestEngineLifecycle::changesComeInALaterTurnOfTheMainLoop()
{
    DownloadImageRedirector engine;
    engine.start({});
    QVERIFY(!engine.isRunning());
    QVERIFY(engine.logs().isEmpty());
    QTRY_VERIFY(engine.isRunning());
    QTRY_COMPARE(engine.logs().size(), 1);

    engine.stop();
    QVERIFY(engine.isRunning());
    QCOMPARE(engine.logs().size(), 1);
    QTRY_VERIFY(!engine.isRunning());

    engine.restart({});
    QVERIFY(!engine.isRunning());
    QTRY_VERIFY(engine.isRunning());
}

void TestEngineLifecycle::observersAreToldBeforeEachChange()
{
    DownloadImageRedirector engine;
    QStringList seen;
    bool wasRunning = false;
    QStringList oldLogs;
    bool onMainThread = true;
    bool allNew = true;
    const auto note = [&](const char* what) {
        seen << QString::fromLatin1(what);
        onMainThread = onMainThread && QThread::currentThread() == qApp->thread();
    };
    connect(&engine, &DownloadImageRedirector::objectWillChange, this, [&] {
        note("will change");
        wasRunning = engine.isRunning();
        oldLogs = engine.logs();
    });
    connect(&engine, &DownloadImageRedirector::isRunningChanged, this, [&](bool isRunning) {
        note("isRunning");
        allNew = allNew && isRunning == engine.isRunning() && isRunning != wasRunning;
    });
    connect(&engine, &DownloadImageRedirector::logsChanged, this, [&] {
        note("logs");
        allNew = allNew && engine.logs().size() == oldLogs.size() + 1;
    });

    QVERIFY(startAndWait(engine, {watched(m_inbox, {takeAll(m_out)})}));
    m_scratch->arrive(m_inbox + "/photo.jpg", "");
    QTRY_COMPARE_WITH_TIMEOUT(engine.logs().size(), 2, patience);
    engine.stop();
    QTRY_COMPARE_WITH_TIMEOUT(engine.logs().size(), 3, patience);
    QCOMPARE(seen.join(QStringLiteral(", ")),
             QStringLiteral("will change, isRunning, will change, logs, will change, logs, "
                            "will change, isRunning, will change, logs"));
    QVERIFY(onMainThread);
    QVERIFY(allNew);
}

void TestEngineLifecycle::aLogLineCarriesTheLocalTime()
{
    DownloadImageRedirector engine;
    const QTime before = QTime::currentTime();
    QVERIFY(startAndWait(engine, {}));
    QTRY_COMPARE(engine.logs().size(), 1);
    const QTime after = QTime::currentTime();

    static const QRegularExpression form(
        QStringLiteral("^\\[(\\d\\d:\\d\\d:\\d\\d)\\] Started watchers\\.$"));
    const QRegularExpressionMatch line = form.match(engine.logs().first());
    QVERIFY2(line.hasMatch(), qPrintable(engine.logs().first()));
    const int sinceBefore = (QTime(before.hour(), before.minute(), before.second())
                                 .secsTo(QTime::fromString(line.captured(1), QStringLiteral("HH:mm:ss"))) +
                             24 * 3600) %
                            (24 * 3600);
    const int passed = (before.secsTo(after) + 24 * 3600) % (24 * 3600);
    QVERIFY2(sinceBefore <= passed + 1, qPrintable(engine.logs().first()));
}

/// Not at which it came about: the main loop was held up.
void TestEngineLifecycle::aLogLineCarriesTheTimeAtWhichItIsRecorded()
{
    DownloadImageRedirector engine;
    const auto text = [] { return QTime::currentTime().toString(QStringLiteral("HH:mm:ss")); };
    const QString before = text();
    engine.stop();
    QVERIFY(eventually([&] { return text() != before; }));
    QTRY_COMPARE(engine.logs().size(), 1);
    QVERIFY2(!engine.logs().first().contains(before), qPrintable(engine.logs().first()));
}

void TestEngineLifecycle::theLogKeepsThe200NewestLines()
{
    constexpr qsizetype kept = 200;
    DownloadImageRedirector engine;
    QStringList all;
    connect(&engine, &DownloadImageRedirector::logsChanged, this, [&] { all << engine.logs().first(); });
    QVERIFY(startAndWait(engine, {watched(m_inbox, {takeAll(m_out)})}));
    for (int i = 0; i < 250; ++i)
        m_scratch->arrive(m_inbox + "/photo" + std::to_string(i), "");
    QTRY_COMPARE_WITH_TIMEOUT(all.size(), 251, patience);

    QCOMPARE(engine.logs().size(), kept);
    QCOMPARE(QSet<QString>(all.begin(), all.end()).size(), 251);
    for (qsizetype i = 0; i < kept; ++i)
        QCOMPARE(engine.logs()[i], all[all.size() - 1 - i]);
}

void TestEngineLifecycle::aFolderThatCannotBeListedIsPassedOver_data()
{
    QTest::addColumn<QString>("url");
    const auto url = [](const std::string& path) { return FileUrl::fromPath(path).absoluteString(); };
    const std::string path = "/SCRATCH/";
    QTest::newRow("it does not exist") << url(path + "missing");
    QTest::newRow("it is a file") << url(path + "file");
    QTest::newRow("it is a dangling link") << url(path + "dangling");
    QTest::newRow("it may not be read") << url(path + "forbidden");
    QTest::newRow("it is on another computer") << QStringLiteral("https://example.org/folder");
}

void TestEngineLifecycle::aFolderThatCannotBeListedIsPassedOver()
{
    QFETCH(QString, url);
    url.replace(QStringLiteral("/SCRATCH"), QString::fromStdString(m_scratch->path()));
    const WithoutPrivileges withoutPrivileges;
    writeFile(m_scratch->path() + "/file", "");
    makeLink(m_scratch->path() + "/dangling", "nowhere");
    const std::string forbidden = m_scratch->makeFolder("forbidden");
    QCOMPARE(::chmod(forbidden.c_str(), 0), 0);

    WatchedFolder folder = watched(m_inbox, {takeAll(m_out)});
    folder.url = FileUrl::fromString(url).value();
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {folder, watched(m_inbox, {takeAll(m_out)})}));
    QCOMPARE(engine.activeFDs().size(), 1U);
    m_scratch->arrive(m_inbox + "/photo.jpg", "");
    QTRY_COMPARE_WITH_TIMEOUT(
        messages(engine), QStringList({started, QStringLiteral("Moved photo.jpg -> photo.jpg")}), patience);
}

void TestEngineLifecycle::aFolderThatNoDescriptorIsLeftForIsWatchedLater_data()
{
    QTest::addColumn<int>("descriptors");
    QTest::addColumn<QStringList>("failures");
    const QStringList refused{QStringLiteral("Failed to open folder: inbox")};
    QTest::newRow("none for the events") << 0 << QStringList();
    QTest::newRow("none for ending their reader") << 1 << refused;
    QTest::newRow("none for the mounts") << 2 << refused;
    QTest::newRow("none for the listing") << 3 << QStringList();
}

void TestEngineLifecycle::aFolderThatNoDescriptorIsLeftForIsWatchedLater()
{
    QFETCH(const int, descriptors);
    QFETCH(const QStringList, failures);
    writeFile(m_inbox + "/old.jpg", "");
    Sentinel sentinel(*m_scratch, m_inbox);
    DownloadImageRedirector engine;
    {
        const DescriptorLimit limit(static_cast<size_t>(descriptors));
        engine.start({watched(m_inbox, {sentinel.rule(), takeAll(m_out)})});
        QVERIFY(engine.activeFDs().empty());
    }
    // Nothing happens in the folder that would remind the engine of it.
    QTRY_COMPARE_WITH_TIMEOUT(engine.activeFDs().size(), 1U, patience);
    QVERIFY(sentinel.passes(engine));
    QCOMPARE(messages(engine).filter(QStringLiteral("ailed")), failures);
    QCOMPARE(namesIn(m_inbox), QByteArrayList{"old.jpg"});
}

void TestEngineLifecycle::aFolderWhoseListingBreaksOffIsPassedOver()
{
    writeFile(m_inbox + "/old", "");
    const auto work = [this]() -> Outcome<void> {
        DownloadImageRedirector engine;
        if (!startAndWait(engine, {watched(m_inbox, {takeAll(m_out)})})) return SystemError{ETIME};
        const bool isPassedOver = engine.activeFDs().empty() && messages(engine) == QStringList{started};
        return isPassedOver ? Outcome<void>() : SystemError{EEXIST};
    };
    const InterceptedRun run =
        runIntercepted({"getdents64"}, work, [](const InterceptedCall&) { return Answer::fail(EIO); });
    QCOMPARE(run.error, 0);
    QCOMPARE(run.calls, std::vector<std::string>{"getdents64 #1"});
}

void TestEngineLifecycle::aRefusedWatchIsLoggedAndAskedForAgainAtTheNextStart()
{
    const std::string other = m_scratch->makeFolder("two\nlines");
    const std::vector<WatchedFolder> folders = {watched(m_inbox, {takeAll(m_out)}), watched(other, {})};
    DownloadImageRedirector engine;
    {
        // Enough to list a folder, too little for an instance of inotify and what wakes its reader.
        const DescriptorLimit limit(1);
        engine.start(folders);
    }
    QTRY_COMPARE(messages(engine),
                 QStringList({QStringLiteral("Failed to open folder: inbox"),
                              QStringLiteral("Failed to open folder: two\\nlines"), started}));
    QVERIFY(engine.isRunning());
    QVERIFY(engine.activeFDs().empty());

    QVERIFY(restartAndWait(engine, folders));
    QCOMPARE(engine.activeFDs().size(), 2U);
    m_scratch->arrive(m_inbox + "/photo.jpg", "");
    QTRY_COMPARE_WITH_TIMEOUT(namesIn(m_out), QByteArrayList{"photo.jpg"}, patience);
}

void TestEngineLifecycle::twoRecordsOfOneFolderShareItsDescriptorAndMoveEachEntryOnce()
{
    const std::string otherOut = m_scratch->makeFolder("other out");
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(m_inbox, {takeAll(m_out)})}));
    const size_t watches = kernelWatchCount();
    QVERIFY(
        restartAndWait(engine, {watched(m_inbox, {takeAll(m_out)}), watched(m_inbox, {takeAll(otherOut)})}));
    const std::vector<int> descriptors = engine.activeFDs();
    QCOMPARE(descriptors.size(), 2U);
    QCOMPARE(descriptors[0], descriptors[1]);
    QTRY_COMPARE_WITH_TIMEOUT(kernelWatchCount(), watches, patience);

    ArrivingFiles files(*m_scratch, m_inbox);
    QTRY_VERIFY_WITH_TIMEOUT(files.count() >= 100, patience);
    files.stop();
    QTRY_COMPARE_WITH_TIMEOUT(namesIn(m_inbox), QByteArrayList{}, patience);
    // The rule of the first record stands before that of the second.
    QVERIFY(namesIn(otherOut).isEmpty());
    QVERIFY(areInOneOf(m_out, otherOut, files.count()));
    QTRY_COMPARE_WITH_TIMEOUT(messages(engine).filter(QStringLiteral("Moved")).size(), files.count(),
                              patience);
    for (int i = 0; i < files.count(); ++i)
        QCOMPARE(m_output->lines().count("[\"file-" + QByteArray::number(i) + "\"]"), 1);
}

void TestEngineLifecycle::twoUrlsOfOneFolderEachTryTheirRules()
{
    const std::string otherOut = m_scratch->makeFolder("other out");
    WatchedFolder second = watched(m_inbox, {takeKind(RuleKind::document, otherOut)});
    second.url = FileUrl::fromString(second.url.absoluteString() + u'/').value();
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(m_inbox, {takeKind(RuleKind::image, m_out)}), second}));
    QCOMPARE(engine.activeFDs()[0], engine.activeFDs()[1]);

    m_scratch->arrive(m_inbox + "/photo.jpg", "");
    m_scratch->arrive(m_inbox + "/letter.pdf", "");
    QTRY_COMPARE_WITH_TIMEOUT(namesIn(m_inbox), QByteArrayList{}, patience);
    QCOMPARE(namesIn(m_out), QByteArrayList{"photo.jpg"});
    QCOMPARE(namesIn(otherOut), QByteArrayList{"letter.pdf"});
    QCOMPARE(m_output->lines().count("[\"photo\", \"jpg\"]"), 2);
}

void TestEngineLifecycle::whatArrivesDuringAStartIsKnownOrMoved()
{
    Sentinel sentinel(*m_scratch, m_inbox);
    ArrivingFiles files(*m_scratch, m_inbox);
    QTRY_VERIFY_WITH_TIMEOUT(files.count() >= 50, patience);
    DownloadImageRedirector engine;
    const int before = files.count();
    engine.start({watched(m_inbox, {sentinel.rule(), takeAll(m_out)})});
    const int after = files.count() + 1;
    QTRY_VERIFY_WITH_TIMEOUT(files.count() >= after + 50, patience);
    files.stop();
    QVERIFY(sentinel.passes(engine));

    // All that were there when the folder was listed are known, and none that came later was overlooked.
    QVERIFY(areInOneOf(m_inbox, m_out, files.count()));
    const std::set<int> known = filesIn(m_inbox);
    QCOMPARE(*known.rbegin(), static_cast<int>(known.size()) - 1);
    QVERIFY(static_cast<int>(known.size()) >= before);
    QVERIFY(static_cast<int>(known.size()) <= after);
}

/// Listed first and watched afterwards, a folder would hide what arrives in between until something else
/// does.
void TestEngineLifecycle::whatArrivesBeforeAFolderIsWatchedIsKnown()
{
    const auto work = [this]() -> Outcome<void> {
        DownloadImageRedirector engine;
        engine.start({watched(m_inbox, {takeAll(m_out)})});
        // Found together with the first or not at all: it would have been moved before the second.
        for (const char* name : {"first", "second"}) {
            m_scratch->arrive(m_inbox + '/' + name, name);
            if (!eventually([&] { return exists(m_out + '/' + name); })) return SystemError{ETIME};
        }
        return {};
    };
    const InterceptedRun run =
        runIntercepted({"inotify_add_watch"}, work, [this](const InterceptedCall& call) {
            if (call.text(1) == m_inbox && !exists(m_inbox + "/early"))
                m_scratch->arrive(m_inbox + "/early", "early");
            return Answer::proceed();
        });
    QVERIFY(run.succeeded());
    QCOMPARE(namesIn(m_inbox), QByteArrayList{"early"});
}

void TestEngineLifecycle::restartsDuringABurstLoseNothing()
{
    Sentinel sentinel(*m_scratch, m_inbox);
    const std::vector<WatchedFolder> folders = {watched(m_inbox, {sentinel.rule(), takeAll(m_out)})};
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, folders));
    const size_t watches = kernelWatchCount();
    ArrivingFiles files(*m_scratch, m_inbox);
    for (int i = 0; i < 10; ++i) {
        const int count = files.count();
        QTRY_VERIFY_WITH_TIMEOUT(files.count() > count + 20, patience);
        QVERIFY(restartAndWait(engine, folders));
    }
    QTRY_VERIFY_WITH_TIMEOUT(!namesIn(m_out).isEmpty(), patience);
    files.stop();
    QVERIFY(sentinel.passes(engine));
    QVERIFY(areInOneOf(m_inbox, m_out, files.count()));
    QTRY_COMPARE_WITH_TIMEOUT(kernelWatchCount(), watches, patience);
    // None was tried twice: the second try would have found it gone.
    QCOMPARE(messages(engine).filter(QRegularExpression(QStringLiteral("^(Skipped|Move failed)"))),
             QStringList{});
}

void TestEngineLifecycle::stopDuringABurstLosesNothing()
{
    const std::string elsewhere = m_scratch->makeFolder("elsewhere");
    Sentinel sentinel(*m_scratch, elsewhere);
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(m_inbox, {takeAll(m_out)})}));
    ArrivingFiles files(*m_scratch, m_inbox);
    QTRY_VERIFY_WITH_TIMEOUT(!namesIn(m_out).isEmpty(), patience);
    engine.stop();
    const int found = files.count();
    QTRY_VERIFY_WITH_TIMEOUT(files.count() > found + 200, patience);
    files.stop();

    // What was found before has had its time when another engine has moved something.
    DownloadImageRedirector other;
    QVERIFY(startAndWait(other, {watched(elsewhere, {sentinel.rule()})}));
    QVERIFY(sentinel.passes(other));
    QVERIFY(areInOneOf(m_inbox, m_out, files.count()));
    const std::set<int> moved = filesIn(m_out);
    QVERIFY(*moved.rbegin() <= found);
}

void TestEngineLifecycle::destructionDuringABurstLosesNothing()
{
    auto engine = std::make_unique<DownloadImageRedirector>();
    QVERIFY(startAndWait(*engine, {watched(m_inbox, {takeAll(m_out)})}));
    ArrivingFiles files(*m_scratch, m_inbox);
    QTRY_VERIFY_WITH_TIMEOUT(!namesIn(m_out).isEmpty(), patience);
    engine.reset();
    const QByteArrayList moved = namesIn(m_out);
    files.stop();
    QVERIFY(areInOneOf(m_inbox, m_out, files.count()));
    QCOMPARE(namesIn(m_out), moved);
}

void TestEngineLifecycle::anEntryFoundBeforeAStopStillArrives()
{
    const std::string later = m_scratch->makeFolder("later");
    Sentinel sentinel(*m_scratch, m_inbox);
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(m_inbox, {sentinel.rule(), takeAll(m_out)})}));
    GrowingFiles download({m_inbox + "/film.mp4"});
    // The sentinel comes later: once it is through, the first test of the download has failed.
    QVERIFY(sentinel.passes(engine));
    engine.restart({watched(m_inbox, {takeAll(later)})});
    download.stop();
    QTRY_COMPARE_WITH_TIMEOUT(namesIn(m_inbox), QByteArrayList{}, patience);
    QCOMPARE(namesIn(m_out), QByteArrayList{"film.mp4"});
    QVERIFY(namesIn(later).isEmpty());
}

void TestEngineLifecycle::aCopyUnderWayAtAStopStillArrives()
{
    const ScratchFolder far(folderOnAnotherVolume());
    const std::string farOut = far.makeFolder("far");
    const std::string content(64 << 20, 'x');
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(m_inbox, {takeAll(farOut)})}));
    m_scratch->arrive(m_inbox + "/film.mp4", content);
    QTRY_VERIFY_WITH_TIMEOUT(m_output->lines().contains("Moving film.mp4 to far..."), patience);
    engine.stop();
    QTRY_COMPARE_WITH_TIMEOUT(lastMessage(engine), QStringLiteral("Moved film.mp4 -> film.mp4"), patience);
    QVERIFY(namesIn(m_inbox).isEmpty());
    QCOMPARE(namesIn(farOut), QByteArrayList{"film.mp4"});
    QVERIFY(contents(farOut + "/film.mp4") == content.c_str());
}

void TestEngineLifecycle::destructionGivesACopyUpAndKeepsItsSource()
{
    const ScratchFolder far(folderOnAnotherVolume());
    const std::string farInbox = far.makeFolder("inbox");
    const std::string content(256 << 20, 'x');
    auto engine = std::make_unique<DownloadImageRedirector>();
    QVERIFY(startAndWait(*engine, {watched(farInbox, {takeAll(m_out)})}));
    far.arrive(farInbox + "/film.mp4", content);
    QTRY_VERIFY_WITH_TIMEOUT(m_output->lines().contains("Moving film.mp4 to out..."), patience);
    engine.reset();
    // That the source is still there shows that nobody waited for the end of the copy.
    QCOMPARE(namesIn(farInbox), QByteArrayList{"film.mp4"});
    QVERIFY(contents(farInbox + "/film.mp4") == content.c_str());
    QVERIFY(namesIn(m_out).isEmpty());
}

HARBEX_ENGINE_TEST_MAIN(TestEngineLifecycle)

#include "tst_EngineLifecycle.moc"
