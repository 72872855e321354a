#include "support/EngineTest.h"
#include "support/FuseMount.h"
#include "support/PrivateMounts.h"

#include <QRegularExpression>

#include <fstream>
#include <memory>

using namespace harbex;
using namespace harbex::test;

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

    void moreDestinationsThanThreadsThatDoNotAnswerBlockNothingElse()
    {
        // The first destination is a link. It gets a file, the others get folders.
        std::vector<std::string> films = {"film-0.mp4"};
        for (size_t i = 1; i < WorkerPool::maximumThreads + 6; ++i)
            films.push_back("film-" + std::to_string(i));
        makeLink(at("link"), m_served + "/film-0.mp4");
        std::vector<FilterRule> rules = {kindIs(RuleKind::video, at("link"))};
        for (const std::string& film : films) {
            makeFolder(m_real + '/' + film);
            rules.push_back(nameIs(film, m_served + '/' + film));
        }
        rules.push_back(takeAll(m_out));
        QVERIFY(start(rules));
        FuseMount::Silence silence(*m_server);
        arrive(films[0], "content");
        for (size_t i = 1; i < films.size(); ++i)
            arriveFolder(films[i]);
        QVERIFY(waitFor([&] { return engine().threadCount() >= films.size(); }));
        arrive("photo.jpg");
        QVERIFY(hasNames(m_out, {"photo.jpg"}));
        QVERIFY(sentinelFoldersPass());
        QVERIFY(silence.holds());
        QCOMPARE(namesIn(m_inbox).size(), qsizetype(films.size()));

        silence.end();
        QVERIFY(hasNames(m_inbox, {}));
        for (const std::string& film : films)
            QVERIFY2(exists(m_real + '/' + film + '/' + film), film.c_str());
        QCOMPARE(contents(m_real + "/film-0.mp4/film-0.mp4"), QByteArray("content"));
    }

    void movesIntoOneFolderKeepTheirOrder()
    {
        const std::string served = m_served + "/folder";
        // Two rules have the same destination.
        QVERIFY(start({kindIs(RuleKind::video, served), takeAll(served)}));
        FuseMount::Silence silence(*m_server);
        QStringList expected;
        for (int i = 0; i < 10; ++i) {
            const std::string name = std::to_string(i) + (i % 2 == 1 ? ".mp4" : ".jpg");
            arriveFolder(name);
            QVERIFY(isProcessed(name));
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
        struct {
            std::string name;
            bool stillGrows;
        } const cases[] = {{"changed", false}, {"grows", true}};
        std::vector<FilterRule> rules;
        for (const auto& each : cases) {
            makeFolder(m_real + '/' + each.name);
            rules.push_back(nameIs(each.name, m_served + '/' + each.name));
        }
        QVERIFY(start(rules));
        FuseMount::Silence silence(*m_server);
        for (const auto& each : cases)
            arrive(each.name + ".film", "begin");
        // The sentinel arrived later: the tests of the films are over.
        QVERIFY(sentinelPasses());
        std::vector<std::ofstream> films;
        for (const auto& each : cases) {
            films.emplace_back(m_inbox + '/' + each.name + ".film", std::ios::app);
            films.back() << '.' << std::flush;
        }
        QVERIFY(silence.holds());
        silence.end();
        QVERIFY(waitFor([&] {
            for (size_t i = 0; i < films.size(); ++i)
                if (cases[i].stillGrows) films[i] << '.' << std::flush;
            return log(".film").size() == 2;
        }));
        for (const auto& each : cases) {
            const std::string film = each.name + ".film";
            QCOMPARE(log(film.c_str()), QStringList{each.stillGrows ? skipped(film) : moved(film)});
            QCOMPARE(exists(m_inbox + '/' + film), each.stillGrows);
            const std::string copy = m_real + '/' + each.name + '/' + film;
            QCOMPARE(contents(copy).startsWith("begin."), !each.stillGrows);
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
        QVERIFY(areWatched(folders.size()));
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

    // The kernel does not report these files, as if another computer wrote them. FUSE caches the size of a
    // file for one second, longer than both samples take.
    void filesWrittenByOthersAreNoticed()
    {
        const std::string real = m_real + "/folder";
        QVERIFY(start({watched(m_served + "/folder", {takeAll(m_out)})}));
        QVERIFY(areWatched(1));
        {
            const GrowingFile writer(real + "/film.mp4");
            for (const char* name : {"first.jpg", "second.jpg"}) {
                m_scratch->arrive(real + '/' + name, "content");
                QVERIFY(isLogged(moved(name)));
                QCOMPARE(contents(m_out + '/' + name), QByteArray("content"));
            }
            QVERIFY(isLogged(skipped("film.mp4")));
        }
        QCOMPARE(log("film.mp4").size(), 1);
        QCOMPARE(namesIn(real), QByteArrayList{"film.mp4"});
        QCOMPARE(namesIn(m_out), (QByteArrayList{"first.jpg", "second.jpg"}));
    }

    void aKilledServerAffectsNothingElse()
    {
        makeFolder(m_real + "/out");
        const std::vector<WatchedFolder> folders = {watched(m_served + "/folder", {takeAll(m_out)}),
                                                    inboxWith({takeAll(m_served + "/out")})};
        QVERIFY(start(folders));
        QVERIFY(areWatched(2));
        m_server->killServer();
        arrive("photo.jpg", "content");
        QVERIFY(isLogged(moveFailed("photo.jpg", "Transport endpoint is not connected")));
        QCOMPARE(contents(m_inbox + "/photo.jpg"), QByteArray("content"));
        QVERIFY(sentinelPasses());

        m_server.reset();
        m_server = std::make_unique<FuseMount>(m_real, m_served);
        QVERIFY(restartAndWait(engine(), folders));
        QVERIFY(areWatched(2));
        m_scratch->arrive(m_real + "/folder/film.mp4", "film");
        arrive("other.jpg", "other");
        QVERIFY(isLogged(moved("film.mp4")) && isLogged(moved("other.jpg")));
        QCOMPARE(contents(m_out + "/film.mp4"), QByteArray("film"));
        QCOMPARE(contents(m_real + "/out/other.jpg"), QByteArray("other"));
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
    return runTest<QCoreApplication, TestEngineServers>(argc, argv);
}

#include "tst_EngineServers.moc"
