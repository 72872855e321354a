#include "support/EngineResources.h"
#include "support/EngineTest.h"
#include "support/Eventually.h"

#include <QRegularExpression>
#include <QSignalSpy>
#include <QThread>
#include <QTime>

#include <cerrno>
#include <set>
#include <sys/stat.h>

using namespace harbex;
using namespace harbex::test;

namespace
{

const QString started = QStringLiteral("Started watchers.");
const QString stopped = QStringLiteral("Stopped watcher.");

/// Returns the numbers of the files of ArrivingFiles in a folder. Returns nothing if one of them does not
/// contain its number.
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

/// Returns whether each of the files with numbers below `count` is in exactly one of the folders.
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
class TestEngineLifecycle : public EngineTest
{
    Q_OBJECT

private Q_SLOTS:
    void anEmptyListOpensNothing()
    {
        const size_t threads = threadCount();
        const size_t descriptors = descriptorCount();
        QVERIFY(!engine().isRunning());
        QVERIFY(engine().logs().isEmpty());
        QVERIFY(start(std::vector<WatchedFolder>()));
        QCOMPARE(log(), QStringList{started});
        QVERIFY(engine().activeFDs().empty());
        QCOMPARE(descriptorCount(), descriptors);
        QCOMPARE(threadCount(), threads);
    }

    void aStartWhileRunningDoesNothing()
    {
        const std::string other = newFolder("other");
        QVERIFY(start(std::vector<FilterRule>()));
        const std::vector<int> descriptors = engine().activeFDs();
        engine().start({watched(other, {takeAll(m_out)}), watched(m_inbox, {})});
        makeFolder(other + "/Notes");
        QVERIFY(sentinelFoldersPass());
        QCOMPARE(engine().activeFDs(), descriptors);
        QCOMPARE(countMessages(engine(), started), 1);
        QCOMPARE(namesIn(other), QByteArrayList{"Notes"});
    }

    void twoStartsAtOnceLeaveOneWatchForEachFolder()
    {
        const std::string other = newFolder("other");
        const std::vector<WatchedFolder> folders = {watched(m_inbox, {takeAll(m_out)}),
                                                    watched(other, {takeAll(m_out)})};
        const auto isWatchedOnce = [&](const std::string& path, const std::string& name) {
            makeFolder(path + '/' + name);
            return isLogged(moved(name)) &&
                   countPrinted("[\"" + QByteArray::fromStdString(name) + "\"]") == 1;
        };
        engine().start(folders);
        const size_t watches = kernelWatchCount();
        engine().start(folders);
        QTRY_COMPARE_WITH_TIMEOUT(log(), QStringList({started, started}), patience);
        QCOMPARE(engine().activeFDs().size(), 2U);
        QTRY_COMPARE_WITH_TIMEOUT(kernelWatchCount(), watches, patience);
        QVERIFY(isWatchedOnce(m_inbox, "a"));
        QVERIFY(isWatchedOnce(other, "b"));

        const qsizetype before = log().size();
        engine().restart(folders);
        engine().restart(folders);
        const QStringList restarts{stopped, stopped, started, started};
        QTRY_COMPARE_WITH_TIMEOUT(log().mid(before), restarts, patience);
        QVERIFY(engine().isRunning());
        QCOMPARE(engine().activeFDs().size(), 2U);
        QTRY_COMPARE_WITH_TIMEOUT(kernelWatchCount(), watches, patience);
        QVERIFY(isWatchedOnce(m_inbox, "c"));
        QVERIFY(isWatchedOnce(other, "d"));
    }

    void aStopEndsWatching()
    {
        QVERIFY(start({takeAll(m_out)}));
        QCOMPARE(engine().activeFDs().size(), 1U);
        QVERIFY(kernelWatchCount() > 0);
        engine().stop();
        QVERIFY(engine().activeFDs().empty());
        // A watch ends on the queue of its folder, because that may block.
        QTRY_COMPARE_WITH_TIMEOUT(kernelWatchCount(), 0U, patience);
        QTRY_VERIFY_WITH_TIMEOUT(!engine().isRunning(), patience);
        engine().stop();
        QTRY_COMPARE_WITH_TIMEOUT(log(), QStringList({started, stopped, stopped}), patience);
        QVERIFY(!engine().isRunning());

        arriveFolder("Notes");
        QVERIFY(start({takeAll(m_out)}));
        QVERIFY(sentinelFoldersPass());
        QCOMPARE(namesIn(m_out), QByteArrayList());
    }

    void aRestartStopsAndStartsWithItsRules()
    {
        const std::string later = newFolder("later");
        std::vector<WatchedFolder> folders = {watched(m_inbox, {takeAll(m_out)})};
        engine().restart(folders);
        folders[0].rules = {takeAll(later)};
        QTRY_COMPARE_WITH_TIMEOUT(log(), QStringList({stopped, started}), patience);
        QVERIFY(engine().isRunning());
        arriveFolder("a");
        QVERIFY(hasNames(m_out, {"a"}));
        QVERIFY(isLogged(moved("a")));

        const QSignalSpy running(&engine(), &DownloadImageRedirector::isRunningChanged);
        engine().restart(folders);
        QVERIFY(engine().activeFDs().empty());
        QTRY_COMPARE_WITH_TIMEOUT(log().mid(3), QStringList({stopped, started}), patience);
        QVERIFY(engine().logs().first().endsWith(started));
        QCOMPARE(running.size(), 2);
        QCOMPARE(running[0][0], false);
        QCOMPARE(running[1][0], true);
        QCOMPARE(engine().activeFDs().size(), 1U);
        arriveFolder("b");
        QVERIFY(hasNames(later, {"b"}));
        QCOMPARE(namesIn(m_out), QByteArrayList{"a"});
    }

    void changesComeInALaterIterationOfTheMainLoop()
    {
        engine().start({});
        QVERIFY(!engine().isRunning());
        QVERIFY(engine().logs().isEmpty());
        QTRY_VERIFY_WITH_TIMEOUT(engine().isRunning(), patience);
        QCOMPARE(engine().logs().size(), 1);
        engine().stop();
        QVERIFY(engine().isRunning());
        QCOMPARE(engine().logs().size(), 1);
        QTRY_VERIFY_WITH_TIMEOUT(!engine().isRunning(), patience);
        engine().restart({});
        QVERIFY(!engine().isRunning());
        QTRY_VERIFY_WITH_TIMEOUT(engine().isRunning(), patience);
    }

    void observersAreToldBeforeEachChange()
    {
        QStringList seen;
        bool wasRunning = false;
        qsizetype oldLines = 0;
        bool onMainThread = true;
        bool allNew = true;
        const auto note = [&](const char* what) {
            seen << QString::fromLatin1(what);
            onMainThread = onMainThread && QThread::currentThread() == qApp->thread();
        };
        connect(&engine(), &DownloadImageRedirector::objectWillChange, this, [&] {
            note("will change");
            wasRunning = engine().isRunning();
            oldLines = engine().logs().size();
        });
        connect(&engine(), &DownloadImageRedirector::isRunningChanged, this, [&](bool isRunning) {
            note("isRunning");
            allNew = allNew && isRunning == engine().isRunning() && isRunning != wasRunning;
        });
        connect(&engine(), &DownloadImageRedirector::logsChanged, this, [&] {
            note("logs");
            allNew = allNew && engine().logs().size() == oldLines + 1;
        });

        QVERIFY(start({watched(m_inbox, {takeAll(m_out)})}));
        arriveFolder("Notes");
        QVERIFY(isLogged(moved("Notes")));
        engine().stop();
        QVERIFY(isLogged(stopped));
        QCOMPARE(seen.join(QStringLiteral(", ")),
                 QStringLiteral("will change, isRunning, will change, logs, will change, logs, "
                                "will change, isRunning, will change, logs"));
        QVERIFY(onMainThread);
        QVERIFY(allNew);
    }

    /// The main loop can be late.
    void aLogLineHasTheTimeAtWhichItIsRecorded()
    {
        const auto text = [] { return QTime::currentTime().toString(QStringLiteral("HH:mm:ss")); };
        const QString before = text();
        engine().stop();
        QVERIFY(eventually([&] { return text() != before; }));
        QVERIFY(isLogged(stopped));
        QVERIFY2(!engine().logs().first().contains(before), qPrintable(engine().logs().first()));
    }

    void foldersThatCannotBeListedAreIgnored()
    {
        const WithoutPrivileges withoutPrivileges;
        writeFile(at("file"), "");
        makeLink(at("dangling"), "nowhere");
        QCOMPARE(::chmod(newFolder("forbidden").c_str(), 0), 0);
        std::vector<WatchedFolder> folders = {inboxWith({takeAll(m_out)})};
        for (const char* name : {"missing", "file", "dangling", "forbidden", "remote"})
            folders.push_back(watched(at(name), {takeAll(m_out)}));
        folders.back().url = FileUrl::fromString(QStringLiteral("https://example.org/folder")).value();
        QVERIFY(start(folders));
        QCOMPARE(engine().activeFDs().size(), 1U);
        arriveFolder("Notes");
        QVERIFY(isLogged(moved("Notes")));
        QCOMPARE(log(), QStringList({started, moved("Notes")}));
    }

    void aFolderIsWatchedAfterAShortageOfDescriptors()
    {
        struct {
            const char* missing;
            QStringList failures;
        } const cases[] = {
            {"events", {}},
            {"wake-up of the reader",
             {QStringLiteral("Failed to open folder: without wake-up of the reader")}},
            {"mounts", {QStringLiteral("Failed to open folder: without mounts")}},
            {"listing", {}},
        };
        std::vector<Inbox> inboxes;
        std::vector<std::unique_ptr<DownloadImageRedirector>> engines;
        for (const auto& each : cases) {
            const size_t descriptors = engines.size();
            const Inbox& inbox = inboxes.emplace_back(*m_scratch, std::string("without ") + each.missing);
            makeFolder(inbox.path + "/old");
            engines.push_back(std::make_unique<DownloadImageRedirector>());
            const DescriptorLimit limit(descriptors);
            engines.back()->start({inbox.with({takeAll(m_out)})});
            QVERIFY2(engines.back()->activeFDs().empty(), each.missing);
        }
        // No event in the folder leads to this.
        for (const auto& engine : engines)
            QVERIFY(waitFor([&] { return engine->activeFDs().size() == 1; }));
        for (size_t i = 0; i < engines.size(); ++i) {
            QVERIFY(inboxes[i].sentinel.foldersPass(*engines[i]));
            QCOMPARE(messages(*engines[i]).filter(QStringLiteral("ailed")), cases[i].failures);
            QCOMPARE(namesIn(inboxes[i].path), QByteArrayList{"old"});
        }
    }

    void aFolderWhoseListingFailsIsIgnored()
    {
        writeFile(m_inbox + "/old", "");
        const auto work = [this] { return start({takeAll(m_out)}) && engine().activeFDs().empty(); };
        const auto failure = [](const InterceptedCall&) { return Answer::fail(EIO); };
        const InterceptedRun run = runInChild({"getdents64"}, work, failure);
        QVERIFY(run.succeeded());
        QCOMPARE(childLog(), QStringList{started});
        QCOMPARE(run.calls, std::vector<std::string>{"getdents64 #1"});
    }

    void aRefusedWatchIsLoggedAndTriedAgainAtTheNextStart()
    {
        const std::vector<WatchedFolder> folders = {watched(m_inbox, {takeAll(m_out)}),
                                                    watched(newFolder("two\nlines"), {})};
        {
            // Enough for a listing, too little for an inotify instance and the wake-up of its reader.
            const DescriptorLimit limit(1);
            engine().start(folders);
        }
        QTRY_COMPARE_WITH_TIMEOUT(
            log(),
            QStringList({QStringLiteral("Failed to open folder: inbox"),
                         QStringLiteral("Failed to open folder: two\\nlines"), started}),
            patience);
        QVERIFY(engine().isRunning());
        QVERIFY(engine().activeFDs().empty());

        QVERIFY(restartAndWait(engine(), folders));
        QCOMPARE(engine().activeFDs().size(), 2U);
        arriveFolder("Notes");
        QVERIFY(hasNames(m_out, {"Notes"}));
    }

    void twoRecordsOfOneFolderShareItsWatch()
    {
        const std::string other = newFolder("other");
        QVERIFY(start({watched(m_inbox, {takeAll(m_out)})}));
        const size_t watches = kernelWatchCount();
        QVERIFY(restartAndWait(engine(),
                               {watched(m_inbox, {takeAll(m_out)}), watched(m_inbox, {takeAll(other)})}));
        const std::vector<int> descriptors = engine().activeFDs();
        QCOMPARE(descriptors.size(), 2U);
        QCOMPARE(descriptors[0], descriptors[1]);
        QTRY_COMPARE_WITH_TIMEOUT(kernelWatchCount(), watches, patience);

        ArrivingFiles files(*m_scratch, m_inbox);
        QVERIFY(waitFor([&] { return files.count() >= 100; }));
        files.stop();
        QVERIFY(waitFor([&] { return log("Moved").size() == files.count(); }));
        // The rule of the first record comes before the rule of the second one.
        QCOMPARE(namesIn(other), QByteArrayList());
        QVERIFY(areInOneOf(m_out, other, files.count()));
        for (int i = 0; i < files.count(); ++i)
            QCOMPARE(countPrinted("[\"file-" + QByteArray::number(i) + "\"]"), 1);
    }

    void twoUrlsOfOneFolderEachTryTheirRules()
    {
        const std::string other = newFolder("other");
        WatchedFolder second = watched(m_inbox, {takeKind(RuleKind::document, other)});
        second.url = FileUrl::fromString(second.url.absoluteString() + u'/').value();
        QVERIFY(start({watched(m_inbox, {takeKind(RuleKind::image, m_out)}), second}));
        QCOMPARE(engine().activeFDs()[0], engine().activeFDs()[1]);
        arriveFolder("photo.jpg");
        arriveFolder("letter.pdf");
        QVERIFY(hasNames(m_inbox, {}));
        QCOMPARE(namesIn(m_out), QByteArrayList{"photo.jpg"});
        QCOMPARE(namesIn(other), QByteArrayList{"letter.pdf"});
        QVERIFY(waitFor([this] { return countPrinted("[\"photo\", \"jpg\"]") == 2; }));
    }

    void aFileThatArrivesDuringAStartIsKnownOrMoved()
    {
        ArrivingFiles files(*m_scratch, m_inbox);
        QVERIFY(waitFor([&] { return files.count() >= 50; }));
        const int before = files.count();
        engine().start({inboxWith({takeAll(m_out)})});
        const int after = files.count() + 1;
        QVERIFY(waitFor([&] { return files.count() >= after + 50; }));
        files.stop();
        QVERIFY(sentinelPasses());

        // The files of the first listing stay, and all later ones are moved.
        QVERIFY(areInOneOf(m_inbox, m_out, files.count()));
        const std::set<int> known = filesIn(m_inbox);
        QCOMPARE(*known.rbegin(), static_cast<int>(known.size()) - 1);
        QVERIFY(static_cast<int>(known.size()) >= before);
        QVERIFY(static_cast<int>(known.size()) <= after);
    }

    /// If the listing came before the watch, an entry between them would be noticed at the next event only.
    void anEntryThatArrivesBeforeTheWatchIsKnown()
    {
        const auto work = [this] {
            engine().start({inboxWith({takeAll(m_out)})});
            return sentinelFoldersPass();
        };
        const InterceptedRun run =
            runInChild({"inotify_add_watch"}, work, [this](const InterceptedCall& call) {
                if (call.text(1) == m_inbox && !exists(m_inbox + "/early")) arriveFolder("early");
                return Answer::proceed();
            });
        QVERIFY(run.succeeded());
        QCOMPARE(namesIn(m_inbox), QByteArrayList{"early"});
    }

    void restartsDuringABurstLoseNothing()
    {
        const std::vector<WatchedFolder> folders = {inboxWith({takeAll(m_out)})};
        QVERIFY(start(folders));
        const size_t watches = kernelWatchCount();
        ArrivingFiles files(*m_scratch, m_inbox);
        for (int i = 0; i < 10; ++i) {
            const int count = files.count();
            QVERIFY(waitFor([&] { return files.count() > count + 20; }));
            QVERIFY(restartAndWait(engine(), folders));
        }
        QVERIFY(waitFor([this] { return !namesIn(m_out).isEmpty(); }));
        files.stop();
        QVERIFY(sentinelPasses());
        QVERIFY(areInOneOf(m_inbox, m_out, files.count()));
        QTRY_COMPARE_WITH_TIMEOUT(kernelWatchCount(), watches, patience);
        // A second attempt at an entry would fail.
        QCOMPARE(log().filter(QRegularExpression(QStringLiteral("^(Skipped|Move failed)"))), QStringList());
    }

    void aStopDuringABurstLosesNothing()
    {
        const Inbox elsewhere(*m_scratch, "elsewhere");
        QVERIFY(start({watched(m_inbox, {takeAll(m_out)})}));
        ArrivingFiles files(*m_scratch, m_inbox);
        QVERIFY(waitFor([this] { return !namesIn(m_out).isEmpty(); }));
        engine().stop();
        const int found = files.count();
        QVERIFY(waitFor([&] { return files.count() > found + 200; }));
        files.stop();

        // The entries found before the stop are moved before another engine has moved a later one.
        DownloadImageRedirector other;
        QVERIFY(startAndWait(other, {elsewhere.with({})}));
        QVERIFY(elsewhere.sentinel.passes(other));
        QVERIFY(areInOneOf(m_inbox, m_out, files.count()));
        QVERIFY(*filesIn(m_out).rbegin() <= found);
    }

    void destructionDuringABurstLosesNothing()
    {
        QVERIFY(start({watched(m_inbox, {takeAll(m_out)})}));
        ArrivingFiles files(*m_scratch, m_inbox);
        QVERIFY(waitFor([this] { return !namesIn(m_out).isEmpty(); }));
        m_engine.reset();
        const QByteArrayList moved = namesIn(m_out);
        files.stop();
        QVERIFY(areInOneOf(m_inbox, m_out, files.count()));
        QCOMPARE(namesIn(m_out), moved);
    }

    void anEntryFoundBeforeAStopIsMovedByItsRules()
    {
        const std::string later = newFolder("later");
        QVERIFY(start({takeAll(m_out)}));
        arrive("film.mp4");
        QVERIFY(waitFor([this] { return countPrinted("Processing: film.mp4") > 0; }));
        engine().restart({watched(m_inbox, {takeAll(later)})});
        QVERIFY(hasNames(m_inbox, {}));
        QCOMPARE(namesIn(m_out), QByteArrayList{"film.mp4"});
        QCOMPARE(namesIn(later), QByteArrayList());
    }

    void aCopyGoesOnAfterAStop()
    {
        const ScratchFolder far(folderOnAnotherVolume());
        const std::string content(64 << 20, 'x');
        QVERIFY(start({takeAll(far.makeFolder("far"))}));
        arrive("film.mp4", content);
        QVERIFY(waitFor([this] { return countPrinted("Moving film.mp4 to far...") > 0; }));
        engine().stop();
        QVERIFY(isLogged(moved("film.mp4")));
        QCOMPARE(namesIn(m_inbox), QByteArrayList());
        QCOMPARE(namesIn(far.path() + "/far"), QByteArrayList{"film.mp4"});
        QVERIFY(contents(far.path() + "/far/film.mp4") == content.c_str());
    }

    void destructionEndsACopyAndKeepsItsSource()
    {
        const ScratchFolder far(folderOnAnotherVolume());
        const std::string inbox = far.makeFolder("inbox");
        const std::string content(256 << 20, 'x');
        QVERIFY(start({watched(inbox, {takeAll(m_out)})}));
        far.arrive(inbox + "/film.mp4", content);
        QVERIFY(waitFor([this] { return countPrinted("Moving film.mp4 to out...") > 0; }));
        m_engine.reset();
        // The source shows that the destructor did not wait for the end of the copy.
        QCOMPARE(namesIn(inbox), QByteArrayList{"film.mp4"});
        QVERIFY(contents(inbox + "/film.mp4") == content.c_str());
        QCOMPARE(namesIn(m_out), QByteArrayList());
    }
};

HARBEX_ENGINE_TEST(TestEngineLifecycle)

#include "tst_EngineLifecycle.moc"
