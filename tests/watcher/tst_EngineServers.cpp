#include "support/EngineOutput.h"
#include "support/EngineProbe.h"
#include "support/FuseMount.h"
#include "support/PrivateMounts.h"

#include <QRegularExpression>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <set>
#include <thread>

using namespace harbex;
using namespace harbex::test;

namespace
{

/// Goes on writing into a file that exists, wherever it is moved, until it is told to stop.
class Writer
{
public:
    explicit Writer(const std::string& path) : m_file(std::fopen(path.c_str(), "a"))
    {
        if (!m_file) qFatal("cannot open %s", path.c_str());
        // The size at which the file was sampled is history when this returns.
        write();
        m_thread = std::jthread([this](const std::stop_token& stop) {
            while (!stop.stop_requested()) {
                write();
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        });
    }
    ~Writer()
    {
        stop();
        std::fclose(m_file);
    }
    Writer(const Writer&) = delete;
    Writer& operator=(const Writer&) = delete;

    void stop()
    {
        m_thread.request_stop();
        if (m_thread.joinable()) m_thread.join();
    }

private:
    void write()
    {
        std::fputs(".", m_file);
        std::fflush(m_file);
    }

    std::FILE* const m_file;
    std::jthread m_thread;
};

using Threads = std::set<std::string>;

Threads threads()
{
    Threads threads;
    for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task"))
        threads.insert(thread.path().filename().string());
    return threads;
}

Threads without(Threads threads, const Threads& others)
{
    for (const std::string& other : others)
        threads.erase(other);
    return threads;
}

/// How often each of these threads has gone to sleep so far; one that has ended is left out.
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

/// Watched folders and destinations on volumes that a server has, while it answers and while it does not.
class TestEngineServers : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void aDestinationThatDoesNotAnswerHoldsUpNothingElse_data();
    void aDestinationThatDoesNotAnswerHoldsUpNothingElse();
    void manyDestinationsThatDoNotAnswerHoldUpNothingElse();
    void movesIntoOneFolderKeepTheirOrder();
    void whatWaitedForItsMoveIsSampledAgain_data();
    void whatWaitedForItsMoveIsSampledAgain();
    void aWatchedFolderThatDoesNotAnswerHoldsUpNothingElse();
    void aLinkIntoAServerThatDoesNotAnswerHoldsUpNothing_data();
    void aLinkIntoAServerThatDoesNotAnswerHoldsUpNothing();
    void aFolderThatIsMissingIsWaitedForWithoutATimer();

private:
    std::unique_ptr<ScratchFolder> m_scratch;
    std::unique_ptr<EngineOutput> m_output;
    std::unique_ptr<FuseMount> m_server;
    std::string m_inbox;
    std::string m_out;
    /// What the server has, as it is on the disk and as the engine is to see it.
    std::string m_real;
    std::string m_served;
};

void TestEngineServers::init()
{
    m_scratch = std::make_unique<ScratchFolder>();
    m_inbox = m_scratch->makeFolder("inbox");
    m_out = m_scratch->makeFolder("out");
    m_real = m_scratch->makeFolder("real");
    m_served = m_scratch->makeFolder("served");
    makeFolder(m_real + "/folder");
    m_server = std::make_unique<FuseMount>(m_real, m_served);
    m_output = std::make_unique<EngineOutput>();
}

void TestEngineServers::cleanup()
{
    m_output.reset();
    m_server.reset();
}

void TestEngineServers::aDestinationThatDoesNotAnswerHoldsUpNothingElse_data()
{
    QTest::addColumn<QString>("destination");
    QTest::newRow("its path") << QStringLiteral("/served/folder");
    QTest::newRow("a link to it") << QStringLiteral("/link");
    QTest::newRow("a path through a link") << QStringLiteral("/link above/folder");
    QTest::newRow("a link to a link") << QStringLiteral("/link to link");
}

void TestEngineServers::aDestinationThatDoesNotAnswerHoldsUpNothingElse()
{
    QFETCH(const QString, destination);
    makeLink(m_scratch->path() + "/link", m_served + "/folder");
    makeLink(m_scratch->path() + "/link above", "./served");
    makeLink(m_scratch->path() + "/link to link", "link");
    const std::string served = m_scratch->path() + destination.toStdString();
    const std::string second = m_scratch->makeFolder("second");
    Sentinel sentinel(*m_scratch, m_inbox);
    Sentinel inSecond(*m_scratch, second);
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(m_inbox, {sentinel.rule(), takeKind(RuleKind::video, served),
                                                    takeKind(RuleKind::folder, served), takeAll(m_out)}),
                                  watched(second, {inSecond.rule(), takeAll(served)})}));
    FuseMount::Silence silence(*m_server);
    m_scratch->arrive(m_inbox + "/film.mp4", "film");
    makeFolder(m_inbox + "/Notes");
    m_scratch->arrive(second + "/letter.pdf", "letter");
    QVERIFY(sentinel.passes(engine));
    QVERIFY(inSecond.passes(engine));
    m_scratch->arrive(m_inbox + "/photo.jpg", "photo");
    QTRY_COMPARE_WITH_TIMEOUT(contents(m_out + "/photo.jpg"), QByteArray("photo"), patience);
    QVERIFY(silence.holds());
    QCOMPARE(namesIn(m_inbox), QByteArrayList({"Notes", "film.mp4"}));
    QCOMPARE(namesIn(m_real + "/folder"), QByteArrayList());

    silence.end();
    QTRY_COMPARE_WITH_TIMEOUT(namesIn(m_inbox) + namesIn(second), QByteArrayList(), patience);
    QCOMPARE(namesIn(m_real + "/folder"), QByteArrayList({"Notes", "film.mp4", "letter.pdf"}));
    QCOMPARE(contents(m_real + "/folder/film.mp4"), QByteArray("film"));
    QCOMPARE(contents(m_real + "/folder/letter.pdf"), QByteArray("letter"));
}

/// More than the engine otherwise has threads.
void TestEngineServers::manyDestinationsThatDoNotAnswerHoldUpNothingElse()
{
    constexpr size_t count = WorkerPool::maximumThreads + 6;
    Sentinel sentinel(*m_scratch, m_inbox);
    std::vector<FilterRule> rules = {sentinel.rule()};
    for (size_t i = 0; i < count; ++i) {
        const std::string name = "film-" + std::to_string(i);
        makeFolder(m_real + '/' + name);
        rules.push_back(takeNamed(RuleOperator::isEqual, name.c_str(), m_served + '/' + name));
    }
    rules.push_back(takeAll(m_out));
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(m_inbox, rules)}));
    FuseMount::Silence silence(*m_server);
    for (size_t i = 0; i < count; ++i)
        m_scratch->arrive(m_inbox + "/film-" + std::to_string(i) + ".mp4", "film");
    // One for each of them, and one for whatever else there is to do.
    QTRY_VERIFY_WITH_TIMEOUT(engine.threadCount() > count, patience);
    m_scratch->arrive(m_inbox + "/photo.jpg", "photo");
    QTRY_COMPARE_WITH_TIMEOUT(contents(m_out + "/photo.jpg"), QByteArray("photo"), patience);
    QVERIFY(sentinel.passes(engine));
    QVERIFY(silence.holds());
    QCOMPARE(namesIn(m_inbox).size(), qsizetype(count));

    silence.end();
    QTRY_COMPARE_WITH_TIMEOUT(namesIn(m_inbox), QByteArrayList(), patience);
    for (size_t i = 0; i < count; ++i) {
        const std::string name = "film-" + std::to_string(i);
        QCOMPARE(contents(m_real + '/' + name + '/' + name + ".mp4"), QByteArray("film"));
    }
}

void TestEngineServers::movesIntoOneFolderKeepTheirOrder()
{
    constexpr int count = 10;
    const std::string served = m_served + "/folder";
    Sentinel sentinel(*m_scratch, m_inbox);
    DownloadImageRedirector engine;
    // By whatever rule they go there.
    QVERIFY(startAndWait(
        engine, {watched(m_inbox, {sentinel.rule(), takeKind(RuleKind::video, served), takeAll(served)})}));
    FuseMount::Silence silence(*m_server);
    QStringList expected;
    for (int i = 0; i < count; ++i) {
        const QByteArray name = QByteArray::number(i) + (i % 2 ? ".mp4" : ".jpg");
        m_scratch->arrive(m_inbox + '/' + name.toStdString(), "content");
        QTRY_VERIFY_WITH_TIMEOUT(m_output->lines().contains("Processing: " + name), patience);
        expected << QStringLiteral("Moved %1 -> %1").arg(QString::fromUtf8(name));
    }
    QVERIFY(sentinel.passes(engine));
    QVERIFY(silence.holds());
    silence.end();
    QTRY_COMPARE_WITH_TIMEOUT(namesIn(m_inbox), QByteArrayList(), patience);
    const QRegularExpression film(QStringLiteral("^Moved \\d"));
    QTRY_COMPARE_WITH_TIMEOUT(messages(engine).filter(film), expected, patience);
}

void TestEngineServers::whatWaitedForItsMoveIsSampledAgain_data()
{
    QTest::addColumn<bool>("waitsBehindAnother");
    QTest::addColumn<bool>("stillGrows");
    for (const bool waitsBehindAnother : {false, true}) {
        const char* why = waitsBehindAnother ? "behind another" : "for its server";
        QTest::addRow("it waited %s, grew, and is at rest", why) << waitsBehindAnother << false;
        QTest::addRow("it waited %s and still grows", why) << waitsBehindAnother << true;
    }
}

void TestEngineServers::whatWaitedForItsMoveIsSampledAgain()
{
    QFETCH(const bool, waitsBehindAnother);
    QFETCH(const bool, stillGrows);
    const std::string out = m_real + "/folder";
    const std::string film = m_inbox + "/film.mp4";
    Sentinel sentinel(*m_scratch, m_inbox);
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(m_inbox, {sentinel.rule(), takeAll(m_served + "/folder")})}));
    FuseMount::Silence silence(*m_server);
    if (waitsBehindAnother) {
        m_scratch->arrive(m_inbox + "/first.mp4", "first");
        QVERIFY(sentinel.passes(engine));
    }
    m_scratch->arrive(film, "begin");
    // It arrived later, so that the film is through its tests.
    QVERIFY(sentinel.passes(engine));
    Writer writer(film);
    if (!stillGrows) writer.stop();
    QVERIFY(silence.holds());
    silence.end();
    if (stillGrows) {
        QTRY_COMPARE_WITH_TIMEOUT(lastMessage(engine), QStringLiteral("Skipped busy file: film.mp4"),
                                  patience);
        QVERIFY(exists(film));
        QVERIFY(!exists(out + "/film.mp4"));
    } else {
        QTRY_COMPARE_WITH_TIMEOUT(lastMessage(engine), QStringLiteral("Moved film.mp4 -> film.mp4"),
                                  patience);
        QVERIFY(contents(out + "/film.mp4").startsWith("begin."));
        QCOMPARE(messages(engine).filter(QStringLiteral("film")).size(), 1);
    }
    QCOMPARE(exists(out + "/first.mp4"), waitsBehindAnother);
}

void TestEngineServers::aWatchedFolderThatDoesNotAnswerHoldsUpNothingElse()
{
    const std::string real = m_real + "/folder";
    const std::string link = m_scratch->path() + "/link";
    makeLink(link, m_served + "/folder");
    writeFile(real + "/old.jpg", "");
    Sentinel sentinel(*m_scratch, m_inbox);
    const std::vector<WatchedFolder> folders = {watched(m_served + "/folder", {takeAll(m_out)}),
                                                watched(link, {}),
                                                watched(m_inbox, {sentinel.rule(), takeAll(m_out)})};
    DownloadImageRedirector engine;
    FuseMount::Silence silence(*m_server);
    QVERIFY(startAndWait(engine, folders));
    QVERIFY(sentinel.passes(engine));
    QCOMPARE(engine.activeFDs().size(), 1U);

    QVERIFY(restartAndWait(engine, folders));
    QVERIFY(sentinel.passes(engine));
    QCOMPARE(engine.activeFDs().size(), 1U);
    QVERIFY(silence.holds());

    silence.end();
    QTRY_COMPARE_WITH_TIMEOUT(engine.activeFDs().size(), folders.size(), patience);
    m_scratch->arrive(real + "/new.jpg", "new");
    QTRY_COMPARE_WITH_TIMEOUT(contents(m_out + "/new.jpg"), QByteArray("new"), patience);
    QCOMPARE(namesIn(real), QByteArrayList{"old.jpg"});

    // The same when the server falls silent while the folder is watched.
    FuseMount::Silence later(*m_server);
    QVERIFY(sentinel.passes(engine));
    engine.stop();
    QTRY_VERIFY_WITH_TIMEOUT(!engine.isRunning(), patience);
    QVERIFY(startAndWait(engine, folders));
    QVERIFY(sentinel.passes(engine));
    QVERIFY(later.holds());
}

void TestEngineServers::aLinkIntoAServerThatDoesNotAnswerHoldsUpNothing_data()
{
    QTest::addColumn<QString>("target");
    QTest::newRow("to a file") << QStringLiteral("/served/photo.jpg");
    QTest::newRow("to a folder") << QStringLiteral("/served/folder");
    QTest::newRow("to what is not there") << QStringLiteral("/served/missing");
    QTest::newRow("to another link") << QStringLiteral("/another link");
}

void TestEngineServers::aLinkIntoAServerThatDoesNotAnswerHoldsUpNothing()
{
    QFETCH(const QString, target);
    writeFile(m_real + "/photo.jpg", "photo");
    makeLink(m_scratch->path() + "/another link", "served/photo.jpg");
    Sentinel sentinel(*m_scratch, m_inbox);
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(m_inbox, {sentinel.rule(), takeAll(m_out)})}));
    FuseMount::Silence silence(*m_server);
    makeLink(m_inbox + "/link.jpg", m_scratch->path() + target.toStdString());
    QVERIFY(sentinel.passes(engine));
    QTRY_COMPARE_WITH_TIMEOUT(namesIn(m_out), QByteArrayList{"link.jpg"}, patience);
    QVERIFY(silence.holds());
}

/// Another engine, which looks at a folder of the server every two seconds, tells how much time has passed.
void TestEngineServers::aFolderThatIsMissingIsWaitedForWithoutATimer()
{
    const std::string real = m_real + "/folder";
    const std::string missing = m_scratch->path() + "/not/yet/there";
    const Threads before = threads();
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, {watched(missing, {takeAll(m_out)}), watched(m_inbox, {takeAll(m_out)})}));
    // It wakes up whenever anything is made or removed in a folder above, in the one for temporary files too.
    const Threads readers = without(threads(), before);
    m_scratch->arrive(m_inbox + "/photo.jpg", "");
    QTRY_COMPARE_WITH_TIMEOUT(namesIn(m_out), QByteArrayList{"photo.jpg"}, patience);

    const std::string otherOut = m_scratch->makeFolder("other out");
    bool wasAsleep = false;
    // At first its threads may still end, but for one.
    for (int i = 0; i < 5 && !wasAsleep; ++i) {
        const Threads workers = without(without(threads(), before), readers);
        const auto sleeps = sleepsOf(workers);
        DownloadImageRedirector polling;
        QVERIFY(startAndWait(polling, {watched(m_served + "/folder", {takeAll(otherOut)})}));
        QTRY_COMPARE_WITH_TIMEOUT(polling.activeFDs().size(), 1U, patience);
        // From one look at the folder to the next.
        for (const char* name : {"/first", "/second"}) {
            const std::string path = name + std::to_string(i);
            m_scratch->arrive(real + path, "");
            QTRY_VERIFY_WITH_TIMEOUT(exists(otherOut + path), patience);
        }
        wasAsleep = !workers.empty() && sleepsOf(workers) == sleeps;
    }
    QVERIFY(wasAsleep);

    // And it does wait for that folder.
    std::filesystem::create_directories(missing);
    QTRY_COMPARE_WITH_TIMEOUT(engine.activeFDs().size(), 2U, patience);
}

int main(int argc, char** argv)
{
    if (!FuseMount::isPossible(argc, argv)) return notPossibleHere;
    reportApartFromStandardOutput();
    return runTest<QCoreApplication, TestEngineServers>(argc, argv);
}

#include "tst_EngineServers.moc"
