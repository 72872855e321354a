#include "support/EngineResources.h"
#include "support/EngineTest.h"
#include "support/PrivateMounts.h"
#include "support/RandomSeed.h"
#include "support/Stress.h"

#include <algorithm>
#include <chrono>
#include <ctime>

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

const QString failure = QStringLiteral("Failed to open folder: ");

} // namespace

/// The engine at the limits of watches and descriptors.
class TestWatchLimits : public EngineTest
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        EngineTest::init();
        m_inboxes.clear();
        m_folders.clear();
    }

    void watchesRefusedAtRandom()
    {
        std::mt19937 random = seededRandom();
        constexpr size_t folderCount = 30;
        addInboxes(folderCount);
        // The folders above are watched first, once for all folders.
        const auto foldersAbove = size_t(std::ranges::count(m_inbox, '/'));
        const size_t rounds = stressSize(size_t(3), size_t(200));
        for (size_t round = 0; round < rounds; ++round) {
            const size_t allowed =
                round < 2 ? round * (foldersAbove + 1) : randomBelow(random, foldersAbove + folderCount + 1);
            const size_t limit = allowed - std::min(allowed, foldersAbove);
            // Existing watches would not count.
            engine().stop();
            QTRY_COMPARE_WITH_TIMEOUT(kernelWatchCount(), 0U, patience);
            limitWatches(int(allowed));
            QVERIFY(restartAndWait(engine(), m_folders));
            QCOMPARE(engine().activeFDs().size(), limit);
            // The folders are watched in their order. The last ones are refused, each with its line.
            QStringList lines;
            for (size_t i = limit; i < folderCount; ++i)
                lines << failure + QStringLiteral("two\\nlines %1").arg(i);
            lines << started;
            QCOMPARE(log().last(lines.size()), lines);
            // A change of the mount table leads to another attempt, but to no other line.
            const Mount mount = Mount::memory(m_out);
            QVERIFY(sentinelsPass({m_inboxes.begin(), m_inboxes.begin() + ptrdiff_t(limit)}));
            QCOMPARE(log().mid(log().lastIndexOf(started)).filter(failure), QStringList());
            QVERIFY(shareOfOtherThreads() < 0.25);
        }
        limitWatches(noLimit);
        QVERIFY(restartAndWait(engine(), m_folders));
        QVERIFY(sentinelsPass(m_inboxes));
        reportRuns(rounds);
    }

    void everyNumberOfFreeDescriptorsAtTheStart()
    {
        addInboxes(3);
        const size_t descriptors = descriptorCount();
        // The events need three, and a listing one more. Scans and moves need more than watching.
        constexpr size_t enoughToWatch = 4;
        constexpr size_t enoughToMove = 8;
        for (size_t number = 0; number <= enoughToMove; ++number) {
            {
                const DescriptorLimit limit(number);
                QVERIFY(start(m_folders));
                QCOMPARE(engine().activeFDs().size(), number < enoughToWatch ? 0U : m_folders.size());
                // A folder that cannot be listed has no line.
                QCOMPARE(log().filter(failure).size(), number == 1 || number == 2 ? 3 : 0);
                for (const Inbox& inbox : m_inboxes)
                    makeFolder(inbox.path + "/tight " + std::to_string(number));
                QVERIFY(shareOfOtherThreads() < 0.25);
            }
            // No event in the folders leads to this.
            QVERIFY(areWatched(m_folders.size()));
            QVERIFY(sentinelsPass(m_inboxes));
            for (const Inbox& inbox : m_inboxes)
                QVERIFY(number >= enoughToWatch || exists(inbox.path + "/tight " + std::to_string(number)));
            m_engine.reset();
            QCOMPARE(descriptorCount(), descriptors);
        }
        reportRuns(enoughToMove + 1);
    }

    void noFreeDescriptorLater()
    {
        addInboxes(3);
        QVERIFY(start(m_folders));
        writeFile(at("late"), "late");
        {
            const DescriptorLimit limit(0);
            renameEntry(at("late"), m_inboxes[0].path + "/late");
            QVERIFY(shareOfOtherThreads() < 0.25);
        }
        // The entry that could not be listed is found later.
        QVERIFY(hasNames(m_inboxes[0].out, {"late"}));
        QVERIFY(sentinelsPass(m_inboxes));
    }

private:
    void addInboxes(size_t count)
    {
        for (size_t i = 0; i < count; ++i) {
            const Inbox& inbox = m_inboxes.emplace_back(*m_scratch, "two\nlines " + std::to_string(i));
            m_folders.push_back(inbox.with({takeAll(inbox.out)}));
        }
    }

    std::vector<Inbox> m_inboxes;
    std::vector<WatchedFolder> m_folders;
};

HARBEX_MAIN(TestWatchLimits)
{
    enterPrivateNamespace();
    return runTest<QCoreApplication, TestWatchLimits>(argc, argv);
}

#include "tst_WatchLimits.moc"
