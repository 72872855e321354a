#include "support/EngineFiles.h"
#include "support/Eventually.h"
#include "support/FuseMount.h"
#include "support/PrivateMounts.h"
#include "support/TestMain.h"
#include "watcher/DirectoryEvents.h"

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <thread>
#include <unistd.h>

using namespace harbex;
using namespace harbex::test;

namespace
{

using Place = std::optional<std::string>;
using SourcePointer = std::shared_ptr<DirectoryEvents::Source>;

DirectoryEvents::Handler counting(std::atomic<int>& calls)
{
    return std::make_shared<const std::function<void()>>([&calls] { ++calls; });
}

/// Returns whether a thread of this process sleeps.
bool isWaiting(pid_t thread)
{
    // Number, name in parentheses, and one letter for the state.
    const QByteArray state = contents("/proc/self/task/" + std::to_string(thread) + "/stat");
    return state.contains(") S") || state.contains(") D");
}

} // namespace

/// A remote volume whose server does not answer blocks neither the mount table nor other watches.
class TestRemoteVolumes : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        m_scratch = std::make_unique<ScratchFolder>();
        m_real = m_scratch->makeFolder("real");
        m_place = m_scratch->makeFolder("place");
        makeFolder(m_real + "/folder");
    }

    void remoteMountIsFoundWithoutTheServer_data()
    {
        QTest::addColumn<std::string>("path");
        QTest::newRow("the volume") << std::string("/place");
        QTest::newRow("a folder in it") << std::string("/place/folder");
        QTest::newRow("nothing in it") << std::string("/place/missing/x");
        QTest::newRow("out of it") << std::string("/place/folder/../../real");
        QTest::newRow("through links") << std::string("/first/../first");
    }

    void remoteMountIsFoundWithoutTheServer()
    {
        QFETCH(const std::string, path);
        makeLink(m_scratch->path() + "/first", "second");
        makeLink(m_scratch->path() + "/second", m_place + "/folder");
        const FuseMount server(m_real, m_place);
        const MountTable table = MountTable::read();
        const FuseMount::Silence silence(server);
        QCOMPARE(table.remoteMount(m_scratch->path() + path), Place(m_place));
        // Reading the table does not wait either.
        QCOMPARE(MountTable::read().remoteMount(m_scratch->path() + path), Place(m_place));
        QCOMPARE(table.remoteMount(m_real), Place());
        QVERIFY(silence.holds());
    }

    void mountChangesCallAndUpdateTheTable()
    {
        DirectoryEvents events;
        std::atomic<int> calls = 0;
        std::atomic<int> callsForName = 0;
        const Outcome<SourcePointer> folder = events.watch(m_real, counting(calls));
        const Outcome<SourcePointer> name = events.watch(m_scratch->path(), counting(callsForName), "name");
        QVERIFY(folder && name);
        const std::shared_ptr<const MountTable> before = events.mounts();
        QCOMPARE(before->remoteMount(m_place), Place());
        for (int round = 0; round < 2; ++round) {
            QVERIFY(events.isKnownFolder(m_scratch->path()) == (round == 0));
            {
                calls = callsForName = 0;
                const FuseMount server(m_real, m_place);
                QVERIFY(eventually([&] { return calls > 0 && callsForName > 0; }));
                QVERIFY(eventually([&] { return events.mounts()->remoteMount(m_place) == Place(m_place); }));
                QVERIFY(!events.isKnownFolder(m_scratch->path()));
                calls = callsForName = 0;
            }
            QVERIFY(eventually([&] { return calls > 0 && callsForName > 0; }));
            QVERIFY(eventually([&] { return !events.mounts()->remoteMount(m_place); }));
        }
        // A table does not change.
        QCOMPARE(before->remoteMount(m_place), Place());
    }

    void blockedWatchBlocksNothingElse()
    {
        const std::string local = m_scratch->makeFolder("local");
        const FuseMount server(m_real, m_place);
        DirectoryEvents events;
        std::atomic<int> calls = 0;
        std::atomic<int> remoteCalls = 0;
        Outcome<SourcePointer> first = events.watch(local, counting(calls));
        QVERIFY(first);

        std::atomic<pid_t> thread = 0;
        std::atomic<bool> isDone = false;
        std::atomic<bool> isWatched = false;
        SourcePointer remote;
        std::jthread waiting;
        FuseMount::Silence silence(server);
        waiting = std::jthread([&] {
            thread = ::gettid();
            auto watch = events.watch(m_place + "/folder", counting(remoteCalls));
            if (watch) remote = *std::move(watch);
            isWatched = remote != nullptr;
            isDone = true;
        });
        QVERIFY(eventually([&] { return thread != 0 && isWaiting(thread); }));

        // Every other function works meanwhile.
        writeFile(local + "/new", {});
        QVERIFY(eventually([&] { return calls > 0; }));
        std::atomic<int> nameCalls = 0;
        Outcome<SourcePointer> second = events.watch(m_scratch->path(), counting(nameCalls), "name");
        QVERIFY(second);
        QVERIFY((*first)->isFor(local));
        QVERIFY(events.isKnownFolder(m_scratch->path()));
        QCOMPARE(events.mounts()->remoteMount(m_place), Place(m_place));
        *first = nullptr;
        writeFile(m_scratch->path() + "/name", {});
        QVERIFY(eventually([&] { return nameCalls > 0; }));
        QVERIFY(silence.holds());
        QVERIFY(!isDone);

        silence.end();
        QVERIFY(eventually([&] { return isDone.load(); }));
        QVERIFY(isWatched);
        writeFile(m_place + "/folder/new", {});
        QVERIFY(eventually([&] { return remoteCalls > 0; }));
    }

private:
    std::unique_ptr<ScratchFolder> m_scratch;
    std::string m_real;
    std::string m_place;
};

HARBEX_MAIN(TestRemoteVolumes)
{
    if (!FuseMount::isPossible(argc, argv)) return notPossibleHere;
    return runTest<QCoreApplication, TestRemoteVolumes>(argc, argv);
}

#include "tst_RemoteVolumes.moc"
