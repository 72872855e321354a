#include "support/EngineResources.h"
#include "support/EngineTest.h"
#include "support/Eventually.h"

#include <QTime>

#include <algorithm>
#include <cerrno>
#include <sys/stat.h>

using namespace harbex;
using namespace harbex::test;

/// Start, stop, restart, and the end of the engine.
class TestEngineLifecycle : public EngineTest
{
    Q_OBJECT

private Q_SLOTS:
    void anEmptyListOpensNothing()
    {
        QVERIFY(!engine().isRunning());
        QVERIFY(engine().logs().isEmpty());
        const size_t descriptors = descriptorCount();
        QVERIFY(start(std::vector<WatchedFolder>()));
        QCOMPARE(log(), QStringList{started});
        QVERIFY(engine().activeFDs().empty());
        QCOMPARE(descriptorCount(), descriptors);
        QCOMPARE(threadCount(), m_threads);
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
        QCOMPARE(log().count(started), 1);
        QCOMPARE(namesIn(other), QByteArrayList{"Notes"});
    }

    void twoStartsAtOnceLeaveOneWatchForEachFolder()
    {
        const std::vector<std::string> paths = {m_inbox, newFolder("other")};
        const std::vector<WatchedFolder> folders = {watched(paths[0], {takeAll(m_out)}),
                                                    watched(paths[1], {takeAll(m_out)})};
        const auto foldersAbove = size_t(std::ranges::count(m_inbox, '/'));
        int arrivals = 0;
        for (const bool isRestart : {false, true}) {
            const qsizetype before = engine().logs().size();
            for (int times = 0; times < 2; ++times)
                isRestart ? engine().restart(folders) : engine().start(folders);
            const QStringList expected =
                isRestart ? QStringList{stopped, stopped, started, started} : QStringList{started, started};
            QTRY_COMPARE_WITH_TIMEOUT(log().mid(before), expected, patience);
            QVERIFY(engine().isRunning());
            QCOMPARE(engine().activeFDs().size(), paths.size());
            QTRY_COMPARE_WITH_TIMEOUT(kernelWatchCount(), foldersAbove + paths.size(), patience);
            for (const std::string& path : paths) {
                const std::string name = std::to_string(++arrivals);
                makeFolder(path + '/' + name);
                QVERIFY(isLogged(moved(name)));
                QCOMPARE(countPrinted("[\"" + QByteArray::number(arrivals) + "\"]"), 1);
            }
        }
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
    }

    void aRestartStopsAndStartsWithItsRules()
    {
        engine().restart({inboxWith({takeAll(m_out)})});
        QTRY_COMPARE_WITH_TIMEOUT(log(), QStringList({stopped, started}), patience);
        QVERIFY(engine().isRunning());

        const std::string later = newFolder("later");
        engine().restart({inboxWith({takeAll(later)})});
        QVERIFY(engine().activeFDs().empty());
        QTRY_COMPARE_WITH_TIMEOUT(log(), QStringList({stopped, started, stopped, started}), patience);
        QCOMPARE(engine().activeFDs().size(), 1U);
        arriveFolder("Notes");
        QVERIFY(hasNames(later, {"Notes"}));
        QCOMPARE(namesIn(m_out), QByteArrayList());
    }

    void changesComeInALaterIterationOfTheMainLoopAndObserversAreToldBefore()
    {
        connect(&engine(), &DownloadImageRedirector::objectWillChange, this, [this] {
            note("will change", true);
            m_wasRunning = engine().isRunning();
            m_linesBefore = engine().logs().size();
        });
        connect(&engine(), &DownloadImageRedirector::isRunningChanged, this, [this](bool isRunning) {
            note("isRunning", isRunning == engine().isRunning() && isRunning != m_wasRunning);
        });
        connect(&engine(), &DownloadImageRedirector::logsChanged, this,
                [this] { note("logs", engine().logs().size() == m_linesBefore + 1); });
        engine().start({watched(m_inbox, {takeAll(m_out)})});
        QVERIFY(!engine().isRunning());
        QCOMPARE(m_seen, QStringList());
        QVERIFY(isLogged(started));
        arriveFolder("Notes");
        QVERIFY(isLogged(moved("Notes")));
        engine().stop();
        QVERIFY(engine().isRunning());
        QVERIFY(isLogged(stopped));
        QCOMPARE(m_seen.join(QStringLiteral(", ")),
                 QStringLiteral("will change, isRunning, will change, logs, will change, logs, "
                                "will change, isRunning, will change, logs"));
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

    void twoUrlsOfOneFolderEachTryTheirRules()
    {
        const std::string other = newFolder("other");
        WatchedFolder second = watched(m_inbox, {kindIs(RuleKind::document, other)});
        second.url = FileUrl::fromString(second.url.absoluteString() + u'/').value();
        QVERIFY(start({watched(m_inbox, {kindIs(RuleKind::image, m_out)}), second}));
        QCOMPARE(engine().activeFDs()[0], engine().activeFDs()[1]);
        // Files, because a folder would be moved at once, maybe before the other watch finds it.
        arrive("photo.jpg");
        arrive("letter.pdf");
        QVERIFY(hasNames(m_inbox, {}));
        QCOMPARE(namesIn(m_out), QByteArrayList{"photo.jpg"});
        QCOMPARE(namesIn(other), QByteArrayList{"letter.pdf"});
        QVERIFY(waitFor([this] { return countPrinted("[\"photo\", \"jpg\"]") == 2; }));
    }

    /// If the listing came before the watch, an entry between them would be found at the next event only, and
    /// would be moved. The engine watches the opened directory, by the path of its descriptor.
    void anEntryThatArrivesBeforeTheWatchIsKnown()
    {
        const auto work = [this] {
            engine().start({inboxWith({takeAll(m_out)})});
            arriveFolder("late");
            return waitFor([this] { return !exists(m_inbox + "/late"); }) && sentinelFoldersPass();
        };
        bool hasArrived = false;
        const InterceptedRun run = runInChild({"inotify_add_watch"}, work, [&](const InterceptedCall& call) {
            const std::string path = call.text(1);
            const bool isDescriptor = path.starts_with("/proc/self/fd/");
            const int descriptor = isDescriptor ? std::stoi(path.substr(path.rfind('/') + 1)) : -1;
            const bool isFirstWatch = call.pathOfOpen(descriptor) == m_inbox && !hasArrived;
            if (isFirstWatch) arriveFolder("early");
            hasArrived = hasArrived || isFirstWatch;
            return Answer::proceed();
        });
        QVERIFY(run.succeeded());
        QCOMPARE(namesIn(m_inbox), QByteArrayList{"early"});
    }

    void anEntryFoundBeforeAStopIsMovedByItsRules()
    {
        const std::string later = newFolder("later");
        QVERIFY(start({takeAll(m_out)}));
        arrive("film.mp4");
        QVERIFY(isProcessed("film.mp4"));
        engine().restart({watched(m_inbox, {takeAll(later)})});
        QVERIFY(hasNames(m_inbox, {}));
        QCOMPARE(namesIn(m_out), QByteArrayList{"film.mp4"});
        QCOMPARE(namesIn(later), QByteArrayList());
    }

    void aCopyGoesOnAfterAStopAndEndsWithTheEngine()
    {
        const ScratchFolder far(folderOnAnotherVolume());
        const std::string inbox = far.makeFolder("inbox");
        const std::string content(256 << 20, 'x');
        const auto beginCopy = [&](const std::string& name) {
            if (!start({watched(inbox, {takeAll(m_out)})})) return false;
            far.arrive(inbox + '/' + name, content);
            const QByteArray line = "Moving " + QByteArray::fromStdString(name) + " to out...";
            return waitFor([&] { return countPrinted(line) > 0; });
        };
        QVERIFY(beginCopy("first"));
        engine().stop();
        QVERIFY(isLogged(moved("first")) && isLogged(stopped));
        QCOMPARE(namesIn(inbox), QByteArrayList());
        QVERIFY(contents(m_out + "/first") == content.c_str());

        QVERIFY(beginCopy("second"));
        m_engine.reset();
        // The source shows that the destructor did not wait for the end of the copy.
        QCOMPARE(namesIn(inbox), QByteArrayList{"second"});
        QVERIFY(contents(inbox + "/second") == content.c_str());
        QCOMPARE(namesIn(m_out), QByteArrayList{"first"});
    }

private:
    void note(const char* what, bool isNew) { m_seen << QString::fromLatin1(isNew ? what : "nothing new"); }

    /// The signals of the engine, and its state before them.
    QStringList m_seen;
    bool m_wasRunning = false;
    qsizetype m_linesBefore = 0;
};

HARBEX_TEST(TestEngineLifecycle)

#include "tst_EngineLifecycle.moc"
