#include "watcher/FolderWatch.h"

#include "files/FileMove.h"
#include "support/EngineFiles.h"
#include "support/EngineProbe.h"
#include "support/Eventually.h"
#include "support/SyscallGate.h"
#include "support/TestMain.h"

#include <cerrno>
#include <chrono>
#include <linux/magic.h>
#include <memory>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <thread>

using namespace harbex;
using namespace harbex::test;

namespace
{

/// Folders that are watched without a main loop around them: everything that arrives is moved to `out`.
class Watches
{
public:
    Watches(const ScratchFolder& scratch, std::string out) : m_scratch(scratch), m_out(std::move(out)) {}
    ~Watches()
    {
        for (const auto& watch : m_watches)
            watch->cancel();
        m_pool.stop();
    }
    Watches(const Watches&) = delete;
    Watches& operator=(const Watches&) = delete;

    /// Watches a folder; an entry of the name "first" arrives before its scan of the beginning, and is moved.
    [[nodiscard]] Outcome<void> add(const std::string& inbox)
    {
        const auto watch = std::make_shared<FolderWatch>(watched(inbox, {takeAll(m_out)}), m_pool, m_fileMove,
                                                         [](const QString&) {});
        if (Outcome<void> opened = watch->open(m_events); !opened) return opened;
        // With a snapshot from before, when it was empty.
        const Outcome<FileIdentity> identity = identityOf(inbox);
        if (!identity) return identity.error();
        const auto listed = watch->list(std::make_shared<KnownItems>(*identity));
        if (!listed) return listed.error();
        arrive(inbox, "first");
        watch->begin();
        m_watches.push_back(watch);
        return waitForMoved("first");
    }

    void arrive(const std::string& inbox, const std::string& name) const
    {
        m_scratch.arrive(inbox + '/' + name, name);
    }

    /// Takes the entry away again; fails with ETIME when it is not moved.
    [[nodiscard]] Outcome<void> waitForMoved(const std::string& name) const
    {
        const std::string target = m_out + '/' + name;
        if (!eventually([&target] { return exists(target); })) return SystemError{ETIME};
        removeEntry(target);
        return {};
    }

private:
    const ScratchFolder& m_scratch;
    const std::string m_out;
    FileMove m_fileMove;
    WorkerPool m_pool;
    DirectoryEvents m_events;
    std::vector<std::shared_ptr<FolderWatch>> m_watches;
};

/// A kernel that takes watches and tells nothing of what happens in the folders. They lie on volumes of these
/// types, in the order in which they are watched.
Gatekeeper blindKernel(const std::vector<uint32_t>& volumeTypes)
{
    return [volumeTypes](const GatedCall& call) {
        if (call.name == "inotify_add_watch") return Answer::give(int64_t(call.ordinal));
        struct statfs volume = {};
        volume.f_type = volumeTypes.at(call.ordinal - 1);
        call.writeMemory(call.arguments[1],
                         std::string(reinterpret_cast<const char*>(&volume), sizeof volume));
        return Answer::give(0);
    };
}

const std::vector<std::string> gatedCalls{"fstatfs", "inotify_add_watch"};

} // namespace

/// What a watch does that cannot be seen from outside the engine; the rest is tested with the whole engine.
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

    void eachRecordHasAQueueOfItsOwnName();
    void aScanThatWaitsWhenItsWatchIsCancelledFindsNothing();
    void changesThatTheKernelDoesNotTellAreFoundOnARemoteVolume_data();
    void changesThatTheKernelDoesNotTellAreFoundOnARemoteVolume();
    void timesThatAreTooCoarseToTellHideNothing();
    void aLocalVolumeIsNotLookedAt_data();
    void aLocalVolumeIsNotLookedAt();
    void aSnapshotOfAnotherFolderIsNotUsed();
    void aFolderRestsAlthoughSomethingArrivesDuringEachScan();

private:
    std::unique_ptr<ScratchFolder> m_scratch;
    std::string m_inbox;
    std::string m_out;
};

void TestFolderWatch::eachRecordHasAQueueOfItsOwnName()
{
    WorkerPool pool;
    FileMove fileMove;
    for (const char* id : {"0F8E6C1A-1111-4222-8333-ABCDEFABCDEF", "00000000-0000-0000-0000-000000000000"}) {
        WatchedFolder folder = watched(m_inbox, {});
        folder.id = QUuid::fromString(QLatin1String(id));
        const FolderWatch watch(folder, pool, fileMove, [](const QString&) {});
        QCOMPARE(watch.queueLabel(), std::string("harbex.watcher.") + id);
    }
}

void TestFolderWatch::aScanThatWaitsWhenItsWatchIsCancelledFindsNothing()
{
    FileMove fileMove;
    WorkerPool pool;
    DirectoryEvents events;
    const auto makeWatch = [&](std::shared_ptr<KnownItems>& known) {
        auto watch = std::make_shared<FolderWatch>(watched(m_inbox, {takeAll(m_out)}), pool, fileMove,
                                                   [](const QString&) {});
        if (!watch->open(events)) qFatal("cannot watch");
        const auto listed = watch->list(nullptr);
        if (!listed) qFatal("cannot list");
        known = *listed;
        watch->begin();
        return watch;
    };
    std::shared_ptr<KnownItems> known;
    const auto cancelled = makeWatch(known);
    {
        const MutexLock lock(known->mutex);
        m_scratch->arrive(m_inbox + "/hidden", "");
        QVERIFY(eventually([&] { return pool.threadCount() > 0; }));
        cancelled->cancel();
    }
    // To the second watch it is known.
    std::shared_ptr<KnownItems> knownLater;
    const auto watch = makeWatch(knownLater);
    for (const char* name : {"/first", "/second"}) {
        m_scratch->arrive(m_inbox + name, "");
        QVERIFY(eventually([&] { return exists(m_out + name); }));
    }
    QVERIFY(exists(m_inbox + "/hidden"));
    watch->cancel();
    pool.stop();
}

void TestFolderWatch::changesThatTheKernelDoesNotTellAreFoundOnARemoteVolume_data()
{
    QTest::addColumn<uint>("type");
    QTest::newRow("NFS") << uint(NFS_SUPER_MAGIC);
    QTest::newRow("FUSE") << uint(FUSE_SUPER_MAGIC);
}

void TestFolderWatch::changesThatTheKernelDoesNotTellAreFoundOnARemoteVolume()
{
    QFETCH(const uint, type);
    const auto work = [this]() -> Outcome<void> {
        Watches watches(*m_scratch, m_out);
        if (Outcome<void> added = watches.add(m_inbox); !added) return added;
        // The first may be found by the scan of the beginning, the second follows upon what the first
        // changed.
        for (const char* name : {"second", "third"}) {
            watches.arrive(m_inbox, name);
            if (Outcome<void> moved = watches.waitForMoved(name); !moved) return moved;
        }
        return {};
    };
    const GatedRun run = runGated(gatedCalls, work, blindKernel({type}));
    QCOMPARE(run.calls, (std::vector<std::string>{"inotify_add_watch #1", "fstatfs #1"}));
    QVERIFY(run.succeeded());
}

void TestFolderWatch::timesThatAreTooCoarseToTellHideNothing()
{
    const auto work = [this]() -> Outcome<void> {
        Watches watches(*m_scratch, m_out);
        if (Outcome<void> added = watches.add(m_inbox); !added) return added;
        return watches.waitForMoved("second");
    };
    const Gatekeeper blind = blindKernel({NFS_SUPER_MAGIC});
    int looks = 0;
    const auto keeper = [&](const GatedCall& call) {
        if (call.name != "statx") return blind(call);
        if (call.arguments[3] != STATX_MTIME) return Answer::proceed();
        // The second look finds a change. What arrives after it, within the same tick of the clock of the
        // volume, changes the time no more.
        if (++looks == 3) m_scratch->arrive(m_inbox + "/second", "");
        struct statx status = {};
        status.stx_mtime.tv_sec = looks == 1 ? 1000 : 2000;
        call.writeMemory(call.arguments[4],
                         std::string(reinterpret_cast<const char*>(&status), sizeof status));
        return Answer::give(0);
    };
    const GatedRun run = runGated({"fstatfs", "inotify_add_watch", "statx"}, work, keeper);
    QVERIFY(run.succeeded());
}

void TestFolderWatch::aLocalVolumeIsNotLookedAt_data()
{
    QTest::addColumn<uint>("type");
    QTest::newRow("ext4") << uint(EXT4_SUPER_MAGIC);
    QTest::newRow("overlay") << uint(OVERLAYFS_SUPER_MAGIC);
}

void TestFolderWatch::aLocalVolumeIsNotLookedAt()
{
    QFETCH(const uint, type);
    const std::string local = m_scratch->makeFolder("local");
    const auto work = [&]() -> Outcome<void> {
        Watches watches(*m_scratch, m_out);
        if (Outcome<void> added = watches.add(local); !added) return added;
        if (Outcome<void> added = watches.add(m_inbox); !added) return added;
        watches.arrive(local, "unseen");
        for (const char* name : {"second", "third"}) {
            watches.arrive(m_inbox, name);
            if (Outcome<void> moved = watches.waitForMoved(name); !moved) return moved;
        }
        return {};
    };
    const GatedRun run = runGated(gatedCalls, work, blindKernel({type, NFS_SUPER_MAGIC}));
    QVERIFY(run.succeeded());
    QVERIFY(exists(local + "/unseen"));
}

// Two records of one URL, and between their starts another folder takes the place of the first.
void TestFolderWatch::aSnapshotOfAnotherFolderIsNotUsed()
{
    FileMove fileMove;
    WorkerPool pool;
    DirectoryEvents events;
    const auto makeWatch = [&] {
        return std::make_shared<FolderWatch>(watched(m_inbox, {takeAll(m_out)}), pool, fileMove,
                                             [](const QString&) {});
    };
    const auto first = makeWatch();
    QVERIFY(first->open(events));
    const auto known = first->list(nullptr);
    QVERIFY(known);
    renameEntry(m_inbox, m_scratch->path() + "/elsewhere");
    makeFolder(m_inbox);
    writeFile(m_inbox + "/old", "old");

    const auto second = makeWatch();
    QVERIFY(second->open(events));
    QVERIFY(second->list(*known));
    second->begin();
    m_scratch->arrive(m_inbox + "/new", "new");
    QVERIFY(eventually([&] { return exists(m_out + "/new"); }));
    QCOMPARE(contents(m_inbox + "/old"), QByteArray("old"));
    first->cancel();
    second->cancel();
    pool.stop();
}

void TestFolderWatch::aFolderRestsAlthoughSomethingArrivesDuringEachScan()
{
    using Clock = std::chrono::steady_clock;
    constexpr std::chrono::milliseconds listing{20};
    constexpr int arrivals = 300;
    const auto work = [this]() -> Outcome<void> {
        FileMove fileMove;
        WorkerPool pool;
        DirectoryEvents events;
        const auto watch =
            std::make_shared<FolderWatch>(watched(m_inbox, {}), pool, fileMove, [](const QString&) {});
        if (Outcome<void> opened = watch->open(events); !opened) return opened;
        if (const auto listed = watch->list(nullptr); !listed) return listed.error();
        watch->begin();
        for (int i = 0; i < arrivals; ++i) {
            m_scratch->arrive(m_inbox + '/' + std::to_string(i), "");
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        watch->cancel();
        pool.stop();
        return {};
    };
    // A slow listing, of which there are two calls for each.
    const auto begin = Clock::now();
    const GatedRun run = runGated({"getdents64"}, work, [listing](const GatedCall&) {
        std::this_thread::sleep_for(listing / 2);
        return Answer::proceed();
    });
    QVERIFY(run.succeeded());
    const auto scans = qint64(run.calls.size() / 2);
    QVERIFY(scans > 1);
    // Each with its rest takes four times as long as the listing.
    const qint64 most = (Clock::now() - begin) / (4 * listing) + 2;
    QVERIFY2(scans <= most, qPrintable(QStringLiteral("%1 scans, %2 at most").arg(scans).arg(most)));
}

HARBEX_TEST_MAIN(TestFolderWatch)
#include "tst_FolderWatch.moc"
