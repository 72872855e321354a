#include "watcher/FolderWatch.h"

#include "support/EngineFiles.h"
#include "support/EngineOutput.h"
#include "support/EngineProbe.h"
#include "support/Eventually.h"
#include "support/FuseMount.h"
#include "support/PrivateMounts.h"
#include "support/SyscallInterceptor.h"
#include "support/TestMain.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <memory>
#include <set>
#include <sys/stat.h>
#include <thread>

using namespace harbex;
using namespace harbex::test;

namespace
{

using Clock = std::chrono::steady_clock;

/// Folders that are watched without a main loop around them: everything that arrives is moved to `out`.
class Watches
{
public:
    explicit Watches(std::string out) : m_out(std::move(out)) {}
    ~Watches()
    {
        for (const auto& watch : m_watches)
            watch->cancel();
        m_pool.stop();
    }
    Watches(const Watches&) = delete;
    Watches& operator=(const Watches&) = delete;

    /// Fails with ETIME when the folder is not watched.
    [[nodiscard]] Outcome<void> add(const std::string& inbox)
    {
        const EntryPipeline::Services services{m_pool, m_events, m_fileMove, m_history,
                                               [](const QString&) {}};
        const auto watch =
            FolderWatch::start(services, FileUrl::fromPath(inbox), QUuid::createUuid(), {takeAll(m_out)});
        m_watches.push_back(watch);
        if (!eventually([&] { return watch->descriptor() >= 0; })) return SystemError{ETIME};
        return {};
    }

    void cancelFirst() const { m_watches.front()->cancel(); }

    /// Fails with ETIME when nothing of this name is moved.
    [[nodiscard]] Outcome<void> waitForMoved(const std::string& name) const
    {
        return waitFor(m_out + '/' + name);
    }

    /// Fails with ETIME when nothing comes to stand at this path. Waits longer than a folder is left
    /// unlisted.
    [[nodiscard]] static Outcome<void> waitFor(const std::string& path)
    {
        const auto isThere = [&path] { return exists(path); };
        return eventually(isThere) || eventually(isThere) ? Outcome<void>() : SystemError{ETIME};
    }

private:
    const std::string m_out;
    FileMove m_fileMove;
    MoveHistory m_history;
    WorkerPool m_pool;
    DirectoryEvents m_events;
    std::vector<std::shared_ptr<FolderWatch>> m_watches;
};

bool isPoll(const InterceptedCall& call)
{
    return call.name == "statx" && call.arguments[3] == STATX_MTIME;
}

/// Which folder a gated listing or poll is about.
std::string folderOf(const InterceptedCall& call)
{
    return call.pathOfOpen(static_cast<int>(call.arguments[0]));
}

/// Gives a poll this modification time.
Answer giveTime(const InterceptedCall& call, int64_t seconds)
{
    struct statx status = {};
    status.stx_mtime.tv_sec = seconds;
    call.writeMemory(call.arguments[4], std::string(reinterpret_cast<const char*>(&status), sizeof status));
    return Answer::give(0);
}

} // namespace

/// When a folder is looked at, which cannot be seen from outside the engine.
class TestFolderWatch : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        m_scratch = std::make_unique<ScratchFolder>();
        m_inbox = m_scratch->makeFolder("inbox");
        m_out = m_scratch->makeFolder("out");
    }

    void aFolderRestsInProportionToItsListing();
    void aSlowListingDoesNotMakeAFolderDeaf();
    void aScanDuringWhichItsWatchIsCancelledFindsNothing();
    void timesThatAreTooCoarseToTellHideNothing();
    void aServerWithoutTimesIsListedNowAndThen();

private:
    // Not empty: whether that is a placeholder takes a listing.
    void arrive(const std::string& path) const { m_scratch->arrive(path, "content"); }

    std::unique_ptr<ScratchFolder> m_scratch;
    std::string m_inbox;
    std::string m_out;
};

void TestFolderWatch::aFolderRestsInProportionToItsListing()
{
    constexpr std::chrono::milliseconds listing{20};
    constexpr int arrivals = 300;
    const auto work = [this]() -> Outcome<void> {
        Watches watches(m_out);
        if (Outcome<void> added = watches.add(m_inbox); !added) return added;
        for (int i = 0; i < arrivals; ++i) {
            arrive(m_inbox + '/' + std::to_string(i));
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        return {};
    };
    size_t calls = 0;
    // A slow listing, of which there are two calls for each.
    const auto begin = Clock::now();
    const InterceptedRun run = runIntercepted({"getdents64"}, work, [&](const InterceptedCall& call) {
        if (folderOf(call) != m_inbox) return Answer::proceed();
        ++calls;
        std::this_thread::sleep_for(listing / 2);
        return Answer::proceed();
    });
    QVERIFY(run.succeeded());
    const auto scans = qint64(calls / 2);
    QVERIFY(scans > 1);
    // Each with its rest takes four times as long as the listing.
    const qint64 most = (Clock::now() - begin) / (4 * listing) + 2;
    QVERIFY2(scans <= most, qPrintable(QStringLiteral("%1 scans, %2 at most").arg(scans).arg(most)));
}

void TestFolderWatch::aSlowListingDoesNotMakeAFolderDeaf()
{
    constexpr std::chrono::seconds listing{2};
    writeFile(m_inbox + "/known", {});
    const auto work = [this]() -> Outcome<void> {
        Watches watches(m_out);
        if (Outcome<void> added = watches.add(m_inbox); !added) return added;
        // Nothing of this calls for another look later, as the move of an entry would.
        removeEntry(m_inbox + "/known");
        return watches.waitForMoved("during the listing");
    };
    Clock::time_point end;
    Clock::duration rest{};
    size_t calls = 0;
    // Two calls are the listing of the start, the next two the slow one.
    const InterceptedRun run = runIntercepted({"getdents64"}, work, [&](const InterceptedCall& call) {
        if (folderOf(call) != m_inbox) return Answer::proceed();
        if (++calls == 4) {
            // The names are read, and this one is not among them.
            arrive(m_inbox + "/during the listing");
            std::this_thread::sleep_for(listing);
            end = Clock::now();
        }
        if (calls == 5) rest = Clock::now() - end;
        return Answer::proceed();
    });
    QVERIFY(run.succeeded());
    QVERIFY(rest > Clock::duration());
    // In proportion it would be three times the listing.
    QVERIFY2(rest < listing, qPrintable(QString::number(rest / std::chrono::milliseconds(1))));
}

void TestFolderWatch::aScanDuringWhichItsWatchIsCancelledFindsNothing()
{
    const std::string listing = m_scratch->path() + "/listing";
    const std::string cancelled = m_scratch->path() + "/cancelled";
    const auto work = [&]() -> Outcome<void> {
        Watches watches(m_out);
        if (Outcome<void> added = watches.add(m_inbox); !added) return added;
        arrive(m_inbox + "/first");
        if (Outcome<void> begun = Watches::waitFor(listing); !begun) return begun;
        // It lets a scan wait behind the one that is under way.
        arrive(m_inbox + "/second");
        watches.cancelFirst();
        writeFile(cancelled, {});
        // To another watch both are known.
        if (Outcome<void> added = watches.add(m_inbox); !added) return added;
        arrive(m_inbox + "/third");
        return watches.waitForMoved("third");
    };
    size_t calls = 0;
    const InterceptedRun run = runIntercepted({"getdents64"}, work, [&](const InterceptedCall& call) {
        if (folderOf(call) != m_inbox || ++calls != 4) return Answer::proceed();
        writeFile(listing, {});
        return eventually([&] { return exists(cancelled); }) ? Answer::proceed() : Answer::fail(EIO);
    });
    QVERIFY(run.succeeded());
    QCOMPARE(namesIn(m_inbox), (QByteArrayList{"first", "second"}));
    QCOMPARE(namesIn(m_out), QByteArrayList{"third"});
}

void TestFolderWatch::timesThatAreTooCoarseToTellHideNothing()
{
    const std::string served = m_scratch->makeFolder("served");
    const FuseMount server(m_inbox, served);
    const auto work = [&]() -> Outcome<void> {
        Watches watches(m_out);
        if (Outcome<void> added = watches.add(served); !added) return added;
        return watches.waitForMoved("late");
    };
    int polls = 0;
    int pollsBeforeListing = 0;
    const InterceptedRun run =
        runIntercepted({"getdents64", "statx"}, work, [&](const InterceptedCall& call) {
            if (call.name == "getdents64" && folderOf(call) == served && polls >= 3 &&
                pollsBeforeListing == 0)
                pollsBeforeListing = polls;
            if (!isPoll(call)) return Answer::proceed();
            // The second poll finds a change. What arrives after it, within the same tick of the clock of the
            // volume, changes the time no more.
            if (++polls == 3) arrive(m_inbox + "/late");
            return giveTime(call, polls == 1 ? 1000 : 2000);
        });
    QVERIFY(run.succeeded());
    // At once, and not when it is listed again in any case.
    QCOMPARE(pollsBeforeListing, 3);
}

/// Takes about half a minute.
void TestFolderWatch::aServerWithoutTimesIsListedNowAndThen()
{
    const std::string served = m_scratch->makeFolder("served");
    const std::string local = m_scratch->makeFolder("local");
    const FuseMount server(m_inbox, served);
    const auto work = [&]() -> Outcome<void> {
        Watches watches(m_out);
        for (const std::string& folder : {served, local})
            if (Outcome<void> added = watches.add(folder); !added) return added;
        return watches.waitForMoved("late");
    };
    int polls = 0;
    std::set<std::string> polled;
    const InterceptedRun run = runIntercepted({"statx"}, work, [&](const InterceptedCall& call) {
        if (!isPoll(call)) return Answer::proceed();
        polled.insert(folderOf(call));
        // By then the first time and its repetition are known, and nothing calls for a listing.
        if (++polls == 4) arrive(m_inbox + "/late");
        return giveTime(call, 1000);
    });
    QVERIFY(run.succeeded());
    // The kernel tells of every change on a local volume.
    QCOMPARE(polled, std::set<std::string>{served});
}

int main(int argc, char** argv)
{
    if (!FuseMount::isPossible(argc, argv)) return notPossibleHere;
    reportApartFromStandardOutput();
    const EngineOutput output;
    return runTest<QCoreApplication, TestFolderWatch>(argc, argv);
}

#include "tst_FolderWatch.moc"
