#include "support/EngineTest.h"
#include "support/FuseMount.h"
#include "support/PrivateMounts.h"

#include <QRegularExpression>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sys/stat.h>
#include <thread>

using namespace harbex;
using namespace harbex::test;

namespace
{

using Threads = std::set<std::string>;

Threads threadsExcept(const Threads& others)
{
    Threads threads;
    for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task"))
        if (!others.contains(thread.path().filename().string()))
            threads.insert(thread.path().filename().string());
    return threads;
}

/// Returns how often each of these threads has gone to sleep so far. Leaves out threads that have ended.
std::map<std::string, long> sleepsOf(const Threads& threads)
{
    std::map<std::string, long> sleeps;
    for (const std::string& thread : threads) {
        std::ifstream file("/proc/self/task/" + thread + "/status");
        for (std::string line; std::getline(file, line);)
            if (line.starts_with("voluntary_ctxt_switches:"))
                sleeps[thread] = std::stol(line.substr(line.find(':') + 1));
    }
    return sleeps;
}

} // namespace

/// Watched folders and destinations on a remote volume, whose server answers or does not answer.
class TestEngineServers : public EngineTest
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        EngineTest::init();
        m_real = newFolder("real");
        m_served = newFolder("served");
        makeFolder(m_real + "/folder");
        m_server = std::make_unique<FuseMount>(m_real, m_served);
    }

    void cleanup()
    {
        m_engine.reset();
        m_server.reset();
        EngineTest::cleanup();
    }

    void aDestinationThatDoesNotAnswerBlocksNothingElse()
    {
        makeLink(at("link"), m_served + "/folder");
        makeLink(at("link above"), "./served");
        makeLink(at("link to link"), "link");
        std::vector<Inbox> inboxes;
        std::vector<WatchedFolder> folders;
        for (const char* path : {"served/folder", "link", "link above/folder", "link to link"}) {
            const Inbox& inbox = inboxes.emplace_back(*m_scratch, "case " + std::to_string(inboxes.size()));
            folders.push_back(inbox.with({takeKind(RuleKind::video, at(path)),
                                          takeKind(RuleKind::folder, at(path)), takeAll(inbox.out)}));
        }
        // Another folder with the same destination.
        const Inbox& other = inboxes.emplace_back(*m_scratch, "other");
        folders.push_back(other.with({takeAll(m_served + "/folder")}));
        QVERIFY(start(folders));
        FuseMount::Silence silence(*m_server);
        QByteArrayList names{"letter.pdf"};
        m_scratch->arrive(other.path + "/letter.pdf", "letter");
        for (size_t i = 0; i < 4; ++i) {
            const std::string number = std::to_string(i);
            m_scratch->arrive(inboxes[i].path + "/film" + number + ".mp4", "film");
            makeFolder(inboxes[i].path + "/notes" + number);
            names << QByteArray::fromStdString("film" + number + ".mp4");
            names << QByteArray::fromStdString("notes" + number);
        }
        QVERIFY(sentinelsPass(inboxes));
        for (size_t i = 0; i < 4; ++i)
            m_scratch->arrive(inboxes[i].path + "/photo.jpg", "photo");
        for (size_t i = 0; i < 4; ++i) {
            QVERIFY(hasNames(inboxes[i].out, {"photo.jpg"}));
            QCOMPARE(namesIn(inboxes[i].path).size(), 2);
        }
        QVERIFY(silence.holds());
        QCOMPARE(namesIn(m_real + "/folder"), QByteArrayList());

        silence.end();
        std::ranges::sort(names);
        QVERIFY(hasNames(m_real + "/folder", names));
        for (const Inbox& inbox : inboxes)
            QVERIFY(hasNames(inbox.path, {}));
        QCOMPARE(contents(m_real + "/folder/film0.mp4"), QByteArray("film"));
        QCOMPARE(contents(m_real + "/folder/letter.pdf"), QByteArray("letter"));
    }

    void moreDestinationsThanThreadsBlockNothingElse()
    {
        constexpr size_t count = WorkerPool::maximumThreads + 6;
        std::vector<FilterRule> rules;
        for (size_t i = 0; i < count; ++i) {
            const std::string name = "film-" + std::to_string(i);
            makeFolder(m_real + '/' + name);
            rules.push_back(takeNamed(RuleOperator::isEqual, name.c_str(), m_served + '/' + name));
        }
        rules.push_back(takeAll(m_out));
        QVERIFY(start(rules));
        FuseMount::Silence silence(*m_server);
        for (size_t i = 0; i < count; ++i)
            arriveFolder("film-" + std::to_string(i));
        // One thread for each of them, and one for the other work.
        QVERIFY(waitFor([this] { return engine().threadCount() > count; }));
        arriveFolder("photo.jpg");
        QVERIFY(hasNames(m_out, {"photo.jpg"}));
        QVERIFY(sentinelFoldersPass());
        QVERIFY(silence.holds());
        QCOMPARE(namesIn(m_inbox).size(), qsizetype(count));

        silence.end();
        QVERIFY(hasNames(m_inbox, {}));
        for (size_t i = 0; i < count; ++i) {
            const std::string name = "film-" + std::to_string(i);
            QVERIFY2(exists(m_real + '/' + name + '/' + name), name.c_str());
        }
    }

    void movesIntoOneFolderKeepTheirOrder()
    {
        const std::string served = m_served + "/folder";
        // Two rules have the same destination.
        QVERIFY(start({takeKind(RuleKind::video, served), takeAll(served)}));
        FuseMount::Silence silence(*m_server);
        QStringList expected;
        for (int i = 0; i < 10; ++i) {
            const std::string name = std::to_string(i) + (i % 2 == 1 ? ".mp4" : ".jpg");
            arriveFolder(name);
            const QByteArray found = "Processing: " + QByteArray::fromStdString(name);
            QVERIFY(waitFor([&] { return countPrinted(found) > 0; }));
            expected << moved(name);
        }
        QVERIFY(sentinelFoldersPass());
        QVERIFY(silence.holds());
        silence.end();
        const QRegularExpression numbers(QStringLiteral("^Moved \\d"));
        QTRY_COMPARE_WITH_TIMEOUT(log().filter(numbers), expected, patience);
    }

    void aFileThatWaitedForItsMoveIsSampledAgain()
    {
        // Four destinations: the moves into one of them wait for each other.
        struct {
            std::string name;
            bool waitsBehindAnother;
            bool stillGrows;
        } const cases[] = {
            {"waited for the server", false, false},
            {"waited for the server and grows", false, true},
            {"waited behind another", true, false},
            {"waited behind another and grows", true, true},
        };
        std::vector<FilterRule> rules;
        for (const auto& each : cases) {
            makeFolder(m_real + '/' + each.name);
            rules.push_back(takeNamed(RuleOperator::isEqual, each.name.c_str(), m_served + '/' + each.name));
        }
        QVERIFY(start(rules));
        FuseMount::Silence silence(*m_server);
        for (const auto& each : cases)
            if (each.waitsBehindAnother) arrive(each.name + ".first");
        QVERIFY(sentinelPasses());
        for (const auto& each : cases)
            arrive(each.name + ".film", "begin");
        // The sentinel arrived later: the tests of the films are over.
        QVERIFY(sentinelPasses());
        std::vector<std::jthread> writers;
        for (const auto& each : cases) {
            const auto film =
                std::make_shared<std::ofstream>(m_inbox + '/' + each.name + ".film", std::ios::app);
            *film << '.' << std::flush;
            if (!each.stillGrows) continue;
            writers.emplace_back([film](const std::stop_token& stop) {
                while (!stop.stop_requested()) {
                    *film << '.' << std::flush;
                    std::this_thread::sleep_for(std::chrono::milliseconds(1));
                }
            });
        }
        QVERIFY(silence.holds());
        silence.end();
        for (const auto& each : cases) {
            const std::string film = each.name + ".film";
            QVERIFY(isLogged(each.stillGrows ? skipped(film) : moved(film)));
            QCOMPARE(log(film.c_str()).size(), 1);
            QCOMPARE(exists(m_inbox + '/' + film), each.stillGrows);
            const std::string out = m_real + '/' + each.name + '/';
            QCOMPARE(contents(out + film).startsWith("begin."), !each.stillGrows);
            QCOMPARE(exists(out + each.name + ".first"), each.waitsBehindAnother);
        }
    }

    void aWatchedFolderThatDoesNotAnswerBlocksNothingElse()
    {
        const std::string real = m_real + "/folder";
        makeLink(at("link"), m_served + "/folder");
        makeFolder(real + "/old");
        const std::vector<WatchedFolder> folders = {watched(m_served + "/folder", {takeAll(m_out)}),
                                                    watched(at("link"), {}), inboxWith({takeAll(m_out)})};
        FuseMount::Silence silence(*m_server);
        QVERIFY(start(folders));
        QVERIFY(sentinelFoldersPass());
        QCOMPARE(engine().activeFDs().size(), 1U);
        QVERIFY(restartAndWait(engine(), folders));
        QVERIFY(sentinelFoldersPass());
        QCOMPARE(engine().activeFDs().size(), 1U);
        QVERIFY(silence.holds());

        silence.end();
        QVERIFY(waitFor([&] { return engine().activeFDs().size() == folders.size(); }));
        makeFolder(real + "/new");
        QVERIFY(isLogged(moved("new")));
        QCOMPARE(namesIn(real), QByteArrayList{"old"});

        // The same while the folder is watched.
        FuseMount::Silence later(*m_server);
        QVERIFY(sentinelFoldersPass());
        engine().stop();
        QVERIFY(waitFor([this] { return !engine().isRunning(); }));
        QVERIFY(start(folders));
        QVERIFY(sentinelFoldersPass());
        QVERIFY(later.holds());
    }

    void aLinkIntoAServerThatDoesNotAnswerBlocksNothing()
    {
        const std::vector<std::pair<const char*, std::string>> links = {
            {"to a file", m_served + "/photo.jpg"},
            {"to a folder", m_served + "/folder"},
            {"to nothing", m_served + "/missing"},
            {"to another link", at("another link")},
        };
        writeFile(m_real + "/photo.jpg", "photo");
        makeLink(at("another link"), "served/photo.jpg");
        QVERIFY(start({takeAll(m_out)}));
        FuseMount::Silence silence(*m_server);
        for (const auto& [name, target] : links)
            makeLink(m_inbox + '/' + name, target);
        QVERIFY(sentinelPasses());
        QVERIFY(hasNames(m_out, {"to a file", "to a folder", "to another link", "to nothing"}));
        QVERIFY(silence.holds());
    }

    void anUnchangedRemoteFolderIsNotListedAtEachPoll()
    {
        const std::string folder = m_served + "/folder";
        const auto work = [&] {
            return start({watched(folder, {takeAll(m_out)})}) &&
                   waitFor([this] { return exists(at("a poll led to no listing")); });
        };
        // The number of calls that list the folder, before the first poll and after each one.
        std::vector<int> listings = {0};
        const InterceptedRun run =
            runInChild({"getdents64", "statx"}, work, [&](const InterceptedCall& call) {
                if (call.pathOfOpen(static_cast<int>(call.arguments[0])) != folder) return Answer::proceed();
                if (call.name == "getdents64") ++listings.back();
                if (call.name == "getdents64" || call.arguments[3] != STATX_MTIME) return Answer::proceed();
                // The first poll knows no earlier time, and times may be coarse: two polls lead to a listing.
                // Later ones do only if a mount elsewhere happens to lead to one.
                if (listings.size() > 3 && listings.back() == 0)
                    writeFile(at("a poll led to no listing"), "");
                listings.push_back(0);
                return Answer::proceed();
            });
        QVERIFY(run.succeeded());
        QVERIFY(listings[0] > 0 && listings[1] > 0 && listings[2] > 0);
    }

    /// Another engine, which polls a remote folder every two seconds, shows how much time has passed.
    void aMissingFolderIsWaitedForWithoutATimer()
    {
        const std::string missing = at("not/yet/there");
        const Threads before = threadsExcept({});
        QVERIFY(start({watched(missing, {takeAll(m_out)}), watched(m_inbox, {takeAll(m_out)})}));
        // The reader of events wakes up for every change in a folder above, also in that for temporary files.
        Threads others = threadsExcept(before);
        others.insert(before.begin(), before.end());
        arriveFolder("Notes");
        QVERIFY(isLogged(moved("Notes")));

        const std::string otherOut = newFolder("other out");
        bool wasAsleep = false;
        // At first, idle threads may end.
        for (int i = 0; i < 5 && !wasAsleep; ++i) {
            const Threads workers = threadsExcept(others);
            const auto sleeps = sleepsOf(workers);
            DownloadImageRedirector polling;
            QVERIFY(startAndWait(polling, {watched(m_served + "/folder", {takeAll(otherOut)})}));
            QVERIFY(waitFor([&] { return polling.activeFDs().size() == 1; }));
            for (const char* poll : {"/first", "/second"}) {
                makeFolder(m_real + "/folder" + poll + std::to_string(i));
                QVERIFY(waitFor([&] { return exists(otherOut + poll + std::to_string(i)); }));
            }
            wasAsleep = !workers.empty() && sleepsOf(workers) == sleeps;
        }
        QVERIFY(wasAsleep);

        std::filesystem::create_directories(missing);
        QVERIFY(waitFor([this] { return engine().activeFDs().size() == 2; }));
    }

private:
    std::unique_ptr<FuseMount> m_server;
    /// The folder of the server, as it is on the disk and as the engine sees it.
    std::string m_real;
    std::string m_served;
};

HARBEX_MAIN(TestEngineServers)
{
    if (!FuseMount::isPossible(argc, argv)) return notPossibleHere;
    reportApartFromStandardOutput();
    return runTest<QCoreApplication, TestEngineServers>(argc, argv);
}

#include "tst_EngineServers.moc"
