#include "stress/EngineProcess.h"
#include "support/EngineOutput.h"
#include "support/EngineProbe.h"
#include "support/EngineResources.h"
#include "support/PrivateMounts.h"
#include "support/RandomSeed.h"
#include "support/Stress.h"

#include <algorithm>
#include <chrono>
#include <ctime>
#include <fstream>
#include <memory>

using namespace harbex;
using namespace harbex::test;

namespace
{

using Seconds = std::chrono::duration<double>;

Seconds processorTime(clockid_t clock)
{
    timespec time = {};
    if (::clock_gettime(clock, &time) != 0) qFatal("no such clock");
    return Seconds(double(time.tv_sec) + double(time.tv_nsec) / 1e9);
}

/// How much processor time the other threads of this process use while this one uses all it can get, as a
/// share of the latter: a loop that waits for nothing would have about 1.
double shareOfOtherThreads()
{
    const Seconds ownBefore = processorTime(CLOCK_THREAD_CPUTIME_ID);
    const Seconds allBefore = processorTime(CLOCK_PROCESS_CPUTIME_ID);
    Seconds own{};
    while (own < Seconds(0.3))
        own = processorTime(CLOCK_THREAD_CPUTIME_ID) - ownBefore;
    const Seconds all = processorTime(CLOCK_PROCESS_CPUTIME_ID) - allBefore;
    return (all - own) / own;
}

int numberIn(const char* path)
{
    int number = 0;
    std::ifstream(path) >> number;
    return number;
}

void limitInstances(int count)
{
    std::ofstream file("/proc/sys/user/max_inotify_instances");
    file << count << std::flush;
    if (!file) qFatal("cannot limit the instances of inotify");
}

constexpr int noLimit = 100'000;

} // namespace

/// Limits of the system on what it watches for a process, reached.
class TestWatchLimits : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void anOverflowScansEveryFolder();
    void watchesRefusedAtRandom();
    void noInstanceAtAll();
    void fewDescriptors();

private:
    struct Pair {
        std::string inbox;
        std::string out;
        [[nodiscard]] QString name() const
        {
            return QString::fromStdString(inbox.substr(inbox.rfind('/') + 1));
        }
    };

    [[nodiscard]] std::vector<Pair> makePairs(size_t count) const;
    [[nodiscard]] static std::vector<WatchedFolder> watchedIn(const std::vector<Pair>& pairs);
    /// Whether something that arrives now in each of the folders is moved.
    [[nodiscard]] bool allAreWatched(const std::vector<Pair>& pairs);

    std::unique_ptr<ScratchFolder> m_scratch;
    std::unique_ptr<EngineOutput> m_output;
    int m_arrivals = 0;
};

void TestWatchLimits::init()
{
    m_scratch = std::make_unique<ScratchFolder>();
    m_output = std::make_unique<EngineOutput>();
}

void TestWatchLimits::cleanup()
{
    m_output.reset();
}

std::vector<TestWatchLimits::Pair> TestWatchLimits::makePairs(size_t count) const
{
    std::vector<Pair> pairs;
    pairs.reserve(count);
    for (size_t i = 0; i < count; ++i) {
        const std::string number = std::to_string(i);
        pairs.push_back({m_scratch->makeFolder("in " + number), m_scratch->makeFolder("out " + number)});
    }
    return pairs;
}

std::vector<WatchedFolder> TestWatchLimits::watchedIn(const std::vector<Pair>& pairs)
{
    std::vector<WatchedFolder> folders;
    folders.reserve(pairs.size());
    for (const Pair& pair : pairs)
        folders.push_back(watched(pair.inbox, {takeAll(pair.out)}));
    return folders;
}

bool TestWatchLimits::allAreWatched(const std::vector<Pair>& pairs)
{
    const std::string name = "/arrival " + std::to_string(m_arrivals++);
    for (const Pair& pair : pairs)
        m_scratch->arrive(pair.inbox + name, "");
    return QTest::qWaitFor(
        [&] { return std::ranges::all_of(pairs, [&](const Pair& pair) { return exists(pair.out + name); }); },
        patience);
}

void TestWatchLimits::anOverflowScansEveryFolder()
{
    const int queueLength = numberIn("/proc/sys/fs/inotify/max_queued_events");
    if (queueLength <= 0 || queueLength > 1'000'000) QSKIP("the queue of events is too long to be filled");
    const std::string noisy = m_scratch->makeFolder("noisy");
    const std::vector<Pair> pairs = makePairs(20);
    std::vector<EngineProcess::Folder> folders = {{noisy, m_scratch->makeFolder("out of noisy")}};
    for (const Pair& pair : pairs)
        folders.push_back({pair.inbox, pair.out});
    const EngineProcess engine(folders);

    const int rounds = stressSize(2, 20);
    for (int round = 0; round < rounds; ++round) {
        engine.suspend();
        // Of its own in each round: the engine may not have seen yet that the one before is gone.
        const std::string name = "/photo " + std::to_string(round) + ".jpg";
        for (int i = 0; i <= queueLength / 2; ++i) {
            writeFile(noisy + "/noise", "");
            removeEntry(noisy + "/noise");
        }
        // No event of these has room in the queue.
        for (const Pair& pair : pairs)
            m_scratch->arrive(pair.inbox + name, std::to_string(round));
        engine.resume();
        for (const Pair& pair : pairs)
            QTRY_COMPARE_WITH_TIMEOUT(contents(pair.out + name), QByteArray::number(round), patience);
    }
    reportRuns(size_t(rounds) * pairs.size());
}

void TestWatchLimits::watchesRefusedAtRandom()
{
    std::mt19937 random = seededRandom();
    constexpr size_t folderCount = 30;
    const std::vector<Pair> pairs = makePairs(folderCount);
    // They are watched first, and once for all folders: the root folder and so on.
    const auto foldersAbove = size_t(std::ranges::count(pairs[0].inbox, '/'));
    DownloadImageRedirector engine;
    const size_t rounds = stressSize(size_t(5), size_t(200));
    for (size_t round = 0; round < rounds; ++round) {
        const size_t allowed = round == 0 ? 0 : randomBelow(random, foldersAbove + folderCount + 1);
        const size_t limit = allowed - std::min(allowed, foldersAbove);
        // What is watched already needs nothing more.
        engine.stop();
        QTRY_COMPARE_WITH_TIMEOUT(kernelWatchCount(), 0U, patience);
        limitWatches(int(allowed));
        QVERIFY(restartAndWait(engine, watchedIn(pairs)));
        QCOMPARE(engine.activeFDs().size(), limit);
        // The folders are asked for in their order, so the last ones are refused, each with its line.
        for (size_t i = limit; i < folderCount; ++i) {
            const QStringList newest =
                messages(engine).sliced(engine.logs().size() - qsizetype(folderCount - limit) - 1);
            QCOMPARE(newest.count(QStringLiteral("Failed to open folder: ") + pairs[i].name()), 1);
        }
        QVERIFY(allAreWatched({pairs.begin(), pairs.begin() + ptrdiff_t(limit)}));
        QVERIFY(shareOfOtherThreads() < 0.25);
    }
    limitWatches(noLimit);
    QVERIFY(restartAndWait(engine, watchedIn(pairs)));
    QVERIFY(allAreWatched(pairs));
    reportRuns(rounds);
}

void TestWatchLimits::noInstanceAtAll()
{
    const std::vector<Pair> pairs = makePairs(3);
    limitInstances(0);
    DownloadImageRedirector engine;
    QVERIFY(startAndWait(engine, watchedIn(pairs)));
    QStringList expected;
    for (const Pair& pair : pairs)
        expected << QStringLiteral("Failed to open folder: ") + pair.name();
    expected << QStringLiteral("Started watchers.");
    QTRY_COMPARE(messages(engine), expected);
    QCOMPARE(engine.activeFDs().size(), 0U);
    QVERIFY(shareOfOtherThreads() < 0.25);

    limitInstances(noLimit);
    QVERIFY(restartAndWait(engine, watchedIn(pairs)));
    QVERIFY(allAreWatched(pairs));
}

/// Started with every number of free descriptors from none to enough, and while it runs left without any.
void TestWatchLimits::fewDescriptors()
{
    const std::vector<Pair> pairs = makePairs(3);
    // So many more than it takes to watch, for the scans and moves.
    constexpr int enoughForMoves = 4;
    size_t more = 0;
    for (int enough = 0; enough <= enoughForMoves; ++more) {
        const size_t descriptorsBefore = descriptorCount();
        auto engine = std::make_unique<DownloadImageRedirector>();
        {
            const DescriptorLimit limit(more);
            QVERIFY(startAndWait(*engine, watchedIn(pairs)));
            // A folder that cannot even be listed is passed over without a line.
            const QStringList reported = messages(*engine).filter(QStringLiteral("Failed to open folder: "));
            QVERIFY(size_t(reported.size()) + engine->activeFDs().size() <= pairs.size());
            if (engine->activeFDs().size() == pairs.size()) ++enough;
            for (const Pair& pair : pairs)
                makeFolder(pair.inbox + "/tight " + std::to_string(more));
            QVERIFY(shareOfOtherThreads() < 0.25);
        }
        QVERIFY(restartAndWait(*engine, watchedIn(pairs)));
        QVERIFY(allAreWatched(pairs));
        {
            // What arrives now cannot be listed, and is found when it can.
            const std::string late = pairs[0].inbox + "/late " + std::to_string(more);
            const std::string moved = pairs[0].out + "/late " + std::to_string(more);
            writeFile(m_scratch->path() + "/late", "late");
            {
                const DescriptorLimit limit(0);
                renameEntry(m_scratch->path() + "/late", late);
                QVERIFY(shareOfOtherThreads() < 0.25);
            }
            QTRY_VERIFY_WITH_TIMEOUT(exists(moved), patience);
            QVERIFY(allAreWatched(pairs));
        }
        engine.reset();
        QCOMPARE(descriptorCount(), descriptorsBefore);
        QVERIFY(more < 100);
    }
    reportRuns(more);
}

int main(int argc, char** argv)
{
    if (EngineProcess::isWanted(argc, argv)) return EngineProcess::runEngine(argc, argv);
    enterPrivateNamespace();
    reportApartFromStandardOutput();
    return runTest<QCoreApplication, TestWatchLimits>(argc, argv);
}

#include "tst_WatchLimits.moc"
