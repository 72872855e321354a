#include "support/EngineOutput.h"
#include "support/EngineProbe.h"
#include "support/EngineResources.h"
#include "support/PrivateMounts.h"
#include "support/RandomSeed.h"
#include "support/Stress.h"

#include <algorithm>
#include <chrono>
#include <ctime>
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

/// Returns the processor time that the other threads use while this one is busy, in proportion to its own. A
/// loop that never waits would use about 1.
double shareOfOtherThreads()
{
    const Seconds ownBefore = processorTime(CLOCK_THREAD_CPUTIME_ID);
    const Seconds allBefore = processorTime(CLOCK_PROCESS_CPUTIME_ID);
    Seconds own{};
    while (own < Seconds(0.1))
        own = processorTime(CLOCK_THREAD_CPUTIME_ID) - ownBefore;
    const Seconds all = processorTime(CLOCK_PROCESS_CPUTIME_ID) - allBefore;
    return (all - own) / own;
}

constexpr int noLimit = 100'000;

} // namespace

/// The engine at the limits of watches and descriptors.
class TestWatchLimits : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        m_scratch = std::make_unique<ScratchFolder>();
        m_output = std::make_unique<EngineOutput>();
    }

    void cleanup() { m_output.reset(); }

    void watchesRefusedAtRandom()
    {
        std::mt19937 random = seededRandom();
        constexpr size_t folderCount = 30;
        const std::vector<Pair> pairs = makePairs(folderCount);
        // The folders above are watched first, once for all folders.
        const auto foldersAbove = size_t(std::ranges::count(pairs[0].inbox, '/'));
        DownloadImageRedirector engine;
        const size_t rounds = stressSize(size_t(3), size_t(200));
        for (size_t round = 0; round < rounds; ++round) {
            const size_t allowed = round == 0 ? 0 : randomBelow(random, foldersAbove + folderCount + 1);
            const size_t limit = allowed - std::min(allowed, foldersAbove);
            // Existing watches would not count.
            engine.stop();
            QTRY_COMPARE_WITH_TIMEOUT(kernelWatchCount(), 0U, patience);
            limitWatches(int(allowed));
            QVERIFY(restartAndWait(engine, watchedIn(pairs)));
            QCOMPARE(engine.activeFDs().size(), limit);
            // The folders are watched in their order. The last ones are refused, each with its line.
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

    void everyNumberOfFreeDescriptorsAtTheStart()
    {
        const std::vector<Pair> pairs = makePairs(3);
        // Scans and moves need more descriptors than watching.
        constexpr int enoughForMoves = 4;
        size_t more = 0;
        for (int enough = 0; enough <= enoughForMoves; ++more) {
            const size_t descriptorsBefore = descriptorCount();
            auto engine = std::make_unique<DownloadImageRedirector>();
            {
                const DescriptorLimit limit(more);
                QVERIFY(startAndWait(*engine, watchedIn(pairs)));
                // A folder that cannot be listed has no line.
                const QStringList reported =
                    messages(*engine).filter(QStringLiteral("Failed to open folder: "));
                QVERIFY(size_t(reported.size()) + engine->activeFDs().size() <= pairs.size());
                if (engine->activeFDs().size() == pairs.size()) ++enough;
                for (const Pair& pair : pairs)
                    makeFolder(pair.inbox + "/tight " + std::to_string(more));
                QVERIFY(shareOfOtherThreads() < 0.25);
            }
            QVERIFY(restartAndWait(*engine, watchedIn(pairs)));
            QVERIFY(allAreWatched(pairs));
            engine.reset();
            QCOMPARE(descriptorCount(), descriptorsBefore);
            QVERIFY(more < 100);
        }
        reportRuns(more);
    }

    void noFreeDescriptorLater()
    {
        const std::vector<Pair> pairs = makePairs(3);
        DownloadImageRedirector engine;
        QVERIFY(startAndWait(engine, watchedIn(pairs)));
        writeFile(m_scratch->path() + "/late", "late");
        {
            const DescriptorLimit limit(0);
            renameEntry(m_scratch->path() + "/late", pairs[0].inbox + "/late");
            QVERIFY(shareOfOtherThreads() < 0.25);
        }
        // The entry that could not be listed is found later.
        QTRY_VERIFY_WITH_TIMEOUT(exists(pairs[0].out + "/late"), patience);
        QVERIFY(allAreWatched(pairs));
    }

private:
    struct Pair {
        std::string inbox;
        std::string out;
        [[nodiscard]] QString name() const
        {
            return QString::fromStdString(inbox.substr(inbox.rfind('/') + 1));
        }
    };

    [[nodiscard]] std::vector<Pair> makePairs(size_t count) const
    {
        std::vector<Pair> pairs;
        pairs.reserve(count);
        for (size_t i = 0; i < count; ++i) {
            const std::string number = std::to_string(i);
            pairs.push_back({m_scratch->makeFolder("in " + number), m_scratch->makeFolder("out " + number)});
        }
        return pairs;
    }

    [[nodiscard]] static std::vector<WatchedFolder> watchedIn(const std::vector<Pair>& pairs)
    {
        std::vector<WatchedFolder> folders;
        folders.reserve(pairs.size());
        for (const Pair& pair : pairs)
            folders.push_back(watched(pair.inbox, {takeAll(pair.out)}));
        return folders;
    }

    /// Returns whether a new entry in each of the folders is moved.
    [[nodiscard]] bool allAreWatched(const std::vector<Pair>& pairs)
    {
        const std::string name = "/arrival " + std::to_string(m_arrivals++);
        for (const Pair& pair : pairs)
            m_scratch->arrive(pair.inbox + name, "");
        return QTest::qWaitFor(
            [&] {
                return std::ranges::all_of(pairs, [&](const Pair& pair) { return exists(pair.out + name); });
            },
            patience);
    }

    std::unique_ptr<ScratchFolder> m_scratch;
    std::unique_ptr<EngineOutput> m_output;
    int m_arrivals = 0;
};

HARBEX_MAIN(TestWatchLimits)
{
    enterPrivateNamespace();
    reportApartFromStandardOutput();
    return runTest<QCoreApplication, TestWatchLimits>(argc, argv);
}

#include "tst_WatchLimits.moc"
