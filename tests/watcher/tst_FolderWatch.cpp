#include "support/EngineTest.h"
#include "support/Eventually.h"
#include "support/FuseMount.h"
#include "support/PrivateMounts.h"

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
    return eventually([&path] { return exists(path); }, std::chrono::minutes(1));
}

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

/// Gives a poll this modification time.
Answer giveTime(const InterceptedCall& call, int64_t seconds)
{
    struct statx status = {};
    status.stx_mtime.tv_sec = seconds;
    call.writeMemory(call.arguments[4], std::string(reinterpret_cast<const char*>(&status), sizeof status));
    return Answer::give(0);
}

} // namespace

/// When a folder is listed. This cannot be seen from outside the engine.
class TestFolderWatch : public EngineTest
{
    Q_OBJECT

private Q_SLOTS:
    /// In proportion to the listing that comes before it, but at most a quarter of a second.
    void aCooldownFollowsEachListing()
    {
        struct Listing {
            Clock::time_point begin;
            Clock::time_point end;
        };
        // Each folder that leaves leads to a listing, and the next one that arrives to another.
        const auto work = [this] {
            if (!start({takeAll(m_out)})) return false;
            for (int i = 0; i < 10; ++i) {
                arriveFolder(std::to_string(i));
                if (!appears(m_out + '/' + std::to_string(i))) return false;
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
        const auto work = [&] {
            const std::vector<WatchedFolder> folders = {inboxWith({takeAll(m_out)})};
            if (!start(folders)) return false;
            arrive("first", "content");
            if (!appears(at("listing"))) return false;
            // Another scan now waits behind the current one.
            arrive("second", "content");
            engine().restart(folders);
            writeFile(at("cancelled"), {});
            // For the new watch both files are known.
            if (!waitFor([this] { return log("Started").size() == 2; })) return false;
            arrive("third", "content");
            return appears(m_out + "/third");
        };
        int calls = 0;
        QVERIFY(succeedsWithoutMounts({"getdents64"}, work, [&](const InterceptedCall& call) {
            if (folderOf(call) != m_inbox || ++calls != 4) return Answer::proceed();
            writeFile(at("listing"), {});
            return appears(at("cancelled")) ? Answer::proceed() : Answer::fail(EIO);
        }));
        QCOMPARE(namesIn(m_inbox), (QByteArrayList{"first", "second"}));
        QCOMPARE(namesIn(m_out), QByteArrayList{"third"});
    }

    void aMountThatIsNoticedLateMakesTheFolderRemote()
    {
        const std::string real = newFolder("real");
        const std::string served = newFolder("served");
        makeFolder(real + "/inbox");
        const auto work = [&] {
            const WatchedFolder local = inboxWith({takeAll(m_out)});
            if (!start({local})) return false;
            writeFile(at("ready"), {});
            if (!appears(at("mounted")) ||
                !restartAndWait(engine(), {local, watched(served + "/inbox", {takeAll(m_out)})}))
                return false;
            writeFile(at("watched"), {});
            // Lets the reader of events call poll() again.
            arrive("local", "content");
            if (!appears(m_out + "/local")) return false;
            m_scratch->arrive(real + "/inbox/remote", "content");
            return appears(m_out + "/remote");
        };
        const auto mount = std::async(std::launch::async, [&] {
            (void)appears(at("ready"));
            auto server = std::make_unique<FuseMount>(real, served);
            writeFile(at("mounted"), {});
            return server;
        });
        HiddenMounts mounts;
        const InterceptedRun run = runInChild({"poll", "ppoll"}, work, [&](const InterceptedCall& call) {
            return exists(at("watched")) ? mounts.show(call) : mounts.hide(call);
        });
        mount.wait();
        QVERIFY(run.succeeded());
    }

    /// The modification times of two folders tell too little. The tick of the clock on the volume of `coarse`
    /// is long. The server of `timeless` keeps no times.
    void onlyRemoteFoldersArePolled()
    {
        const std::string real = newFolder("real");
        const std::string served = newFolder("served");
        for (const char* name : {"/coarse", "/timeless", "/unchanged"})
            makeFolder(real + name);
        const std::string coarse = served + "/coarse";
        const std::string timeless = served + "/timeless";
        const std::string unchanged = served + "/unchanged";
        const std::string missing = at("not/yet/there");
        const FuseMount server(real, served);
        const auto work = [&] {
            std::vector<WatchedFolder> folders;
            for (const std::string& path : {missing, unchanged, coarse, timeless, m_inbox})
                folders.push_back(watched(path, {takeAll(m_out)}));
            return start(folders) && areWatched(4) && appears(m_out + "/coarse") &&
                   appears(m_out + "/timeless");
        };
        std::set<std::string> polled;
        int pollsOfCoarse = 0;
        int pollsOfTimeless = 0;
        int pollsBeforeListing = 0;
        // The calls that list `unchanged`, before the first poll and after each one.
        std::vector<int> listings = {0};
        int attempts = 0;
        const std::vector<std::string> calls = {"getdents64", "statx", "openat"};
        QVERIFY(succeedsWithoutMounts(calls, work, [&](const InterceptedCall& call) {
            if (call.name == "openat") {
                attempts += pollsOfTimeless > 0 && call.text(1) == missing;
                return Answer::proceed();
            }
            const std::string folder = folderOf(call);
            if (call.name == "getdents64") {
                listings.back() += folder == unchanged;
                if (folder == coarse && pollsOfCoarse >= 3 && pollsBeforeListing == 0)
                    pollsBeforeListing = pollsOfCoarse;
                return Answer::proceed();
            }
            if (call.arguments[3] != STATX_MTIME) return Answer::proceed();
            polled.insert(folder);
            if (folder == unchanged) {
                listings.push_back(0);
                return Answer::proceed();
            }
            if (folder == timeless) {
                // At the fourth poll no earlier change leads to a listing.
                if (++pollsOfTimeless == 4) m_scratch->arrive(real + "/timeless/timeless", "content");
                return giveTime(call, 1000);
            }
            // The second poll finds a change. The file arrives after it, but within the same tick.
            if (++pollsOfCoarse == 3) m_scratch->arrive(real + "/coarse/coarse", "content");
            return giveTime(call, pollsOfCoarse == 1 ? 1000 : 2000);
        }));
        QCOMPARE(polled, (std::set<std::string>{coarse, timeless, unchanged}));
        QCOMPARE(attempts, 0);
        // The file in `coarse` is found at once, long before the listing at the maximum age.
        QCOMPARE(pollsBeforeListing, 3);
        QVERIFY(pollsOfTimeless > 4);
        // The first poll knows no earlier time, and times may be coarse: two polls lead to a listing.
        QVERIFY(listings.size() > 4);
        for (size_t i = 0; i <= 4; ++i)
            QCOMPARE(listings[i] > 0, i <= 2);
    }

private:
    /// Runs `work` in a child process that sees no changes of the mount table. Otherwise a mount that another
    /// program makes meanwhile would cause listings. Returns whether it succeeded.
    [[nodiscard]] bool succeedsWithoutMounts(std::vector<std::string> calls,
                                             const std::function<bool()>& work,
                                             const Interceptor& interceptor)
    {
        HiddenMounts mounts;
        calls.insert(calls.end(), {"poll", "ppoll"});
        const InterceptedRun run = runInChild(calls, work, [&](const InterceptedCall& call) {
            return call.name == "poll" || call.name == "ppoll" ? mounts.hide(call) : interceptor(call);
        });
        return run.succeeded();
    }
};

HARBEX_MAIN(TestFolderWatch)
{
    if (!FuseMount::isPossible(argc, argv)) return notPossibleHere;
    return runTest<QCoreApplication, TestFolderWatch>(argc, argv);
}

#include "tst_FolderWatch.moc"
