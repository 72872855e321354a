#include "watcher/FolderWatch.h"

#include "support/EngineFiles.h"
#include "support/EngineOutput.h"
#include "support/EngineProbe.h"
#include "support/Eventually.h"
#include "support/FuseMount.h"
#include "support/PrivateMounts.h"
#include "support/SyscallInterceptor.h"
#include "support/TestMain.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <future>
#include <memory>
#include <poll.h>
#include <set>
#include <sys/stat.h>
#include <thread>
#include <utility>
#include <vector>

using namespace harbex;
using namespace harbex::test;

namespace
{

using Clock = std::chrono::steady_clock;

/// Waits for at most a minute, because a remote folder can stay unlisted for half a minute.
bool appears(const std::string& path)
{
    const auto isThere = [&path] { return exists(path); };
    return eventually(isThere) || eventually(isThere);
}

/// Watched folders without a main loop. Everything that arrives is moved to `out`.
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

    void start(const std::string& inbox)
    {
        const EntryPipeline::Services services{m_pool, m_events, m_fileMove, m_history,
                                               [](const QString&) {}};
        m_watches.push_back(
            FolderWatch::start(services, FileUrl::fromPath(inbox), QUuid::createUuid(), {takeAll(m_out)}));
    }

    /// Waits until each of the folders is watched.
    [[nodiscard]] bool add(const std::vector<std::string>& inboxes)
    {
        return std::ranges::all_of(inboxes, [this](const std::string& inbox) {
            start(inbox);
            return eventually([this] { return m_watches.back()->descriptor() >= 0; });
        });
    }

    void cancelFirst() const { m_watches.front()->cancel(); }

    /// Waits until an entry of this name is moved.
    [[nodiscard]] bool isMoved(const std::string& name) const { return appears(m_out + '/' + name); }

private:
    const std::string m_out;
    FileMove m_fileMove;
    MoveHistory m_history;
    WorkerPool m_pool;
    DirectoryEvents m_events;
    std::vector<std::shared_ptr<FolderWatch>> m_watches;
};

/// Returns the path of the folder that a call lists, polls or reads.
std::string folderOf(const InterceptedCall& call)
{
    return call.pathOfOpen(static_cast<int>(call.arguments[0]));
}

/// Hides changes of the mount table from calls of poll().
class HiddenMounts
{
public:
    Answer hide(const InterceptedCall& call)
    {
        for (uint64_t i = 0; i < call.arguments[1]; ++i) {
            const uint64_t address = call.arguments[0] + i * sizeof(pollfd) + offsetof(pollfd, fd);
            const std::string bytes = call.readMemory(address, sizeof(int));
            int fd = -1;
            std::memcpy(&fd, bytes.data(), sizeof fd);
            if (!call.pathOfOpen(fd).ends_with("/mountinfo")) continue;
            m_address = address;
            m_bytes = bytes;
            // poll() ignores the descriptor -1.
            call.writeMemory(address, std::string(sizeof fd, '\xff'));
        }
        return Answer::proceed();
    }

    Answer show(const InterceptedCall& call)
    {
        if (!m_bytes.empty()) call.writeMemory(m_address, std::exchange(m_bytes, {}));
        return Answer::proceed();
    }

private:
    uint64_t m_address = 0;
    std::string m_bytes;
};

/// Runs the work in a child process. Returns whether it succeeded.
bool succeeds(const std::vector<std::string>& calls, const std::function<bool()>& work,
              const Interceptor& interceptor)
{
    const auto outcome = [&]() -> Outcome<void> { return work() ? Outcome<void>() : SystemError{ETIME}; };
    return runIntercepted(calls, outcome, interceptor).succeeded();
}

/// Does the same without changes of the mount table. Otherwise a mount that another program makes meanwhile
/// would cause listings.
bool succeedsWithoutMounts(std::vector<std::string> calls, const std::function<bool()>& work,
                           const Interceptor& interceptor)
{
    HiddenMounts mounts;
    calls.insert(calls.end(), {"poll", "ppoll"});
    return succeeds(calls, work, [&](const InterceptedCall& call) {
        return call.name == "poll" || call.name == "ppoll" ? mounts.hide(call) : interceptor(call);
    });
}

/// Gives a poll this modification time.
Answer giveTime(const InterceptedCall& call, int64_t seconds)
{
    struct statx status = {};
    status.stx_mtime.tv_sec = seconds;
    call.writeMemory(call.arguments[4], std::string(reinterpret_cast<const char*>(&status), sizeof status));
    return Answer::give(0);
}

// A file that is not empty: for an empty one the engine lists the folder again.
void arrive(const ScratchFolder& scratch, const std::string& path)
{
    scratch.arrive(path, "content");
}

/// What happens to remote folders that are polled, to a local one and to a missing one.
struct Polls {
    bool succeeded = false;
    int ofCoarse = 0;
    int ofTimeless = 0;
    /// Number of polls of `coarse` before the listing that finds its file.
    int beforeListing = 0;
    /// Number of calls that list `unchanged`, before the first poll and after each one.
    std::vector<int> listings = {0};
    /// Number of attempts to open the missing folder after the first poll.
    int attempts = 0;
    std::set<std::string> polled;
    std::set<std::string> served;
};

/// The modification times of two folders tell too little. The tick of the clock on the volume of `coarse` is
/// long. The server of `timeless` keeps no times.
Polls pollServedFolders()
{
    const ScratchFolder scratch;
    const std::string real = scratch.makeFolder("real");
    const std::string served = scratch.makeFolder("served");
    const std::string local = scratch.makeFolder("local");
    const std::string out = scratch.makeFolder("out");
    for (const char* name : {"/coarse", "/timeless", "/unchanged"})
        makeFolder(real + name);
    const std::string coarse = served + "/coarse";
    const std::string timeless = served + "/timeless";
    const std::string unchanged = served + "/unchanged";
    const std::string missing = scratch.path() + "/not/yet/there";
    const FuseMount server(real, served);
    Polls polls;
    polls.served = {coarse, timeless, unchanged};
    const auto work = [&] {
        Watches watches(out);
        watches.start(missing);
        return watches.add({unchanged, coarse, timeless, local}) && watches.isMoved("coarse") &&
               watches.isMoved("timeless");
    };
    const std::vector<std::string> calls = {"getdents64", "statx", "openat"};
    polls.succeeded = succeedsWithoutMounts(calls, work, [&](const InterceptedCall& call) {
        if (call.name == "openat") {
            polls.attempts += polls.ofTimeless > 0 && call.text(1) == missing;
            return Answer::proceed();
        }
        const std::string folder = folderOf(call);
        if (call.name == "getdents64") {
            polls.listings.back() += folder == unchanged;
            if (folder == coarse && polls.ofCoarse >= 3 && polls.beforeListing == 0)
                polls.beforeListing = polls.ofCoarse;
            return Answer::proceed();
        }
        if (call.arguments[3] != STATX_MTIME) return Answer::proceed();
        polls.polled.insert(folder);
        if (folder == unchanged) {
            polls.listings.push_back(0);
            return Answer::proceed();
        }
        if (folder == timeless) {
            // At the fourth poll no earlier change leads to a listing.
            if (++polls.ofTimeless == 4) arrive(scratch, real + "/timeless/timeless");
            return giveTime(call, 1000);
        }
        // The second poll finds a change. The file arrives after it, but within the same tick.
        if (++polls.ofCoarse == 3) arrive(scratch, real + "/coarse/coarse");
        return giveTime(call, polls.ofCoarse == 1 ? 1000 : 2000);
    });
    return polls;
}

} // namespace

/// When a folder is listed. This cannot be seen from outside the engine.
class TestFolderWatch : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        // The polls take half a minute. The other tests run meanwhile, unless the arguments choose tests.
        const bool isChosen = QCoreApplication::arguments().size() > 1;
        m_polls = std::async(isChosen ? std::launch::deferred : std::launch::async, pollServedFolders);
    }

    void init()
    {
        m_scratch = std::make_unique<ScratchFolder>();
        m_inbox = m_scratch->makeFolder("inbox");
        m_out = m_scratch->makeFolder("out");
    }

    /// In proportion to the listing that comes before it, but at most a quarter of a second.
    void aCooldownFollowsEachListing()
    {
        struct Listing {
            Clock::time_point begin;
            Clock::time_point end;
        };
        // Each folder that leaves leads to a listing, and the next one that arrives to another.
        const auto work = [this] {
            Watches watches(m_out);
            if (!watches.add({m_inbox})) return false;
            for (int i = 0; i < 10; ++i) {
                makeFolder(m_inbox + '/' + std::to_string(i));
                if (!watches.isMoved(std::to_string(i))) return false;
            }
            return true;
        };
        std::vector<Listing> listings;
        bool isFirstCall = false;
        // Each listing consists of two calls. The first listing is that of the start, the second one is slow.
        QVERIFY(succeedsWithoutMounts({"getdents64"}, work, [&](const InterceptedCall& call) {
            if (folderOf(call) != m_inbox) return Answer::proceed();
            isFirstCall = !isFirstCall;
            if (isFirstCall) {
                listings.push_back({Clock::now(), {}});
                return Answer::proceed();
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(listings.size() == 2 ? 1000 : 20));
            listings.back().end = Clock::now();
            return Answer::proceed();
        }));
        QVERIFY(listings.size() > 10);
        for (size_t i = 1; i + 1 < listings.size(); ++i) {
            const auto duration = listings[i].end - listings[i].begin;
            const auto cooldown = listings[i + 1].begin - listings[i].end;
            QVERIFY(cooldown >= std::min<Clock::duration>(3 * duration, std::chrono::milliseconds(250)));
            if (i == 1) QVERIFY(cooldown < 2 * duration);
        }
    }

    void aScanOfACancelledWatchFindsNothing()
    {
        const std::string listing = m_scratch->path() + "/listing";
        const std::string cancelled = m_scratch->path() + "/cancelled";
        const auto work = [&] {
            Watches watches(m_out);
            if (!watches.add({m_inbox})) return false;
            arrive(*m_scratch, m_inbox + "/first");
            if (!appears(listing)) return false;
            // Another scan now waits behind the current one.
            arrive(*m_scratch, m_inbox + "/second");
            watches.cancelFirst();
            writeFile(cancelled, {});
            // For another watch both files are known.
            if (!watches.add({m_inbox})) return false;
            arrive(*m_scratch, m_inbox + "/third");
            return watches.isMoved("third");
        };
        int calls = 0;
        QVERIFY(succeedsWithoutMounts({"getdents64"}, work, [&](const InterceptedCall& call) {
            if (folderOf(call) != m_inbox || ++calls != 4) return Answer::proceed();
            writeFile(listing, {});
            return appears(cancelled) ? Answer::proceed() : Answer::fail(EIO);
        }));
        QCOMPARE(namesIn(m_inbox), (QByteArrayList{"first", "second"}));
        QCOMPARE(namesIn(m_out), QByteArrayList{"third"});
    }

    void aMountThatIsNoticedLateMakesTheFolderRemote()
    {
        const std::string real = m_scratch->makeFolder("real");
        const std::string served = m_scratch->makeFolder("served");
        makeFolder(real + "/inbox");
        const std::string ready = m_scratch->path() + "/ready";
        const std::string mounted = m_scratch->path() + "/mounted";
        const std::string isWatched = m_scratch->path() + "/watched";
        const auto work = [&] {
            Watches watches(m_out);
            if (!watches.add({m_inbox})) return false;
            writeFile(ready, {});
            if (!appears(mounted) || !watches.add({served + "/inbox"})) return false;
            writeFile(isWatched, {});
            // Lets the reader of events call poll() again.
            arrive(*m_scratch, m_inbox + "/local");
            if (!watches.isMoved("local")) return false;
            arrive(*m_scratch, real + "/inbox/remote");
            return watches.isMoved("remote");
        };
        const auto mount = std::async(std::launch::async, [&] {
            (void)appears(ready);
            auto server = std::make_unique<FuseMount>(real, served);
            writeFile(mounted, {});
            return server;
        });
        HiddenMounts mounts;
        const bool isFound = succeeds({"poll", "ppoll"}, work, [&](const InterceptedCall& call) {
            return exists(isWatched) ? mounts.show(call) : mounts.hide(call);
        });
        mount.wait();
        QVERIFY(isFound);
    }

    void onlyRemoteFoldersArePolled()
    {
        const Polls polls = m_polls.get();
        QVERIFY(polls.succeeded);
        QCOMPARE(polls.polled, polls.served);
        QCOMPARE(polls.attempts, 0);
        // The file in `coarse` is found at once, long before the listing at the maximum age.
        QCOMPARE(polls.beforeListing, 3);
        QVERIFY(polls.ofTimeless > 4);
        // The first poll knows no earlier time, and times may be coarse: two polls lead to a listing.
        QVERIFY(polls.listings.size() > 4);
        for (size_t i = 0; i <= 4; ++i)
            QCOMPARE(polls.listings[i] > 0, i <= 2);
    }

private:
    std::unique_ptr<ScratchFolder> m_scratch;
    std::string m_inbox;
    std::string m_out;
    std::future<Polls> m_polls;
};

HARBEX_MAIN(TestFolderWatch)
{
    if (!FuseMount::isPossible(argc, argv)) return notPossibleHere;
    reportApartFromStandardOutput();
    const EngineOutput output;
    return runTest<QCoreApplication, TestFolderWatch>(argc, argv);
}

#include "tst_FolderWatch.moc"
