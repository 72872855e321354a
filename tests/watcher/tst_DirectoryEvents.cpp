#include "support/EngineFiles.h"
#include "support/EngineResources.h"
#include "support/Eventually.h"
#include "support/PrivateMounts.h"
#include "support/SyscallInterceptor.h"
#include "support/TestMain.h"
#include "support/ThreadGroup.h"
#include "watcher/DirectoryEvents.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <fstream>
#include <functional>
#include <future>
#include <memory>
#include <sstream>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace harbex;
using namespace harbex::test;

namespace
{

using SourcePointer = std::shared_ptr<DirectoryEvents::Source>;

DirectoryEvents::Handler handler(std::function<void()> call)
{
    return std::make_shared<const std::function<void()>>(std::move(call));
}

/// One subscription and how often its handler was called.
class Watched
{
public:
    Watched(DirectoryEvents& events, const std::string& path, const std::string& name = {})
    {
        // The last call may come when the source has ended.
        Outcome<SourcePointer> watch = events.watch(path, handler([calls = m_calls] { ++*calls; }), name);
        if (!watch) qFatal("cannot watch %s: %s", path.c_str(), watch.error().description().c_str());
        m_source = *std::move(watch);
    }

    void end() { m_source.reset(); }
    [[nodiscard]] const DirectoryEvents::Source* operator->() const { return m_source.get(); }

    [[nodiscard]] int calls() const { return *m_calls; }
    [[nodiscard]] bool isCalled() const
    {
        return eventually([this] { return calls() > 0; });
    }

private:
    std::shared_ptr<std::atomic<int>> m_calls = std::make_shared<std::atomic<int>>(0);
    SourcePointer m_source;
};

/// Tells when everything that happened so far has been delivered: the events of one inotify instance come in
/// the order in which they happened.
class Delivery
{
public:
    Delivery(DirectoryEvents& events, const ScratchFolder& scratch)
        : m_path(scratch.makeFolder("of the delivery")), m_watched(events, m_path)
    {
    }

    [[nodiscard]] bool isComplete()
    {
        const int before = m_watched.calls();
        writeFile(m_path + '/' + std::to_string(++m_files), {});
        return eventually([&] { return m_watched.calls() > before; });
    }

private:
    std::string m_path;
    Watched m_watched;
    int m_files = 0;
};

/// The errno with which watching fails; 0 when it does not.
int errorOfWatching(DirectoryEvents& events, const std::string& path)
{
    const Outcome<SourcePointer> watch = events.watch(path, handler([] {}));
    return watch ? 0 : watch.error().code;
}

int maximumQueuedEvents()
{
    int count = 0;
    std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> count;
    if (count <= 0) qFatal("cannot read how many events inotify queues");
    return count;
}

uint64_t inodeOf(const std::string& path)
{
    struct stat data = {};
    if (::stat(path.c_str(), &data) != 0) qFatal("no %s", path.c_str());
    return data.st_ino;
}

/// Whether a folder of a test has something mounted in it.
bool hasMountsOfTests()
{
    std::ifstream file(MountTable::kernelTable);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str().find("/harbex-") != std::string::npos;
}

/// Something that is done in a watched folder.
using Action = void (*)(const std::string& folder, const std::string& outside);

} // namespace

Q_DECLARE_METATYPE(Action)

/// One inotify instance and its subscriptions. What needs a volume of a server is in tst_RemoteVolumes.cpp.
class TestDirectoryEvents : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { m_threads = threadCount(); }
    // A thread that was joined can be seen for a moment longer.
    void init()
    {
        QVERIFY(eventually([this] { return threadCount() == m_threads; }));
    }

    // What calls.
    void changeOfNamesCalls_data();
    void changeOfNamesCalls();
    void otherChangesDoNotCall_data();
    void otherChangesDoNotCall();
    void subscriptionToANameIsToldOfThatNameAlone_data();
    void subscriptionToANameIsToldOfThatNameAlone();
    void everyChangeCalls();
    void manyFoldersAreWatched();
    void overflowCallsEveryone();

    // One folder, several sources.
    void sameFolderGivesTheSameDescriptor();
    void endedSourceKeepsTheOthers();
    void lastSourceEndsTheWatchOfTheKernel();
    void sourceMayEndInItsHandler();
    void lastSourceThatEndsMeanwhileTakesNoWatchAway_data();
    void lastSourceThatEndsMeanwhileTakesNoWatchAway();

    // The folder goes away.
    void deletedFolderCallsAndEndsCleanly();
    void deletedFolderMadeAgainCanBeWatched();
    void isForFollowsTheFolderAndNotThePath();
    void isForNoFolderOfTheSameNumber();
    void knownFolderThatIsReplacedIsNoLongerKnown_data();
    void knownFolderThatIsReplacedIsNoLongerKnown();
    void folderReplacedWhileItIsWatchedIsNotKnown();

    // Failures.
    void missingFolderIsENOENT();
    void fileInsteadOfFolderIsENOTDIR();
    void forbiddenFolderIsEACCES();
    void refusedInstanceIsAskedForAgain();

    // Life.
    void opensNothingBeforeTheFirstWatch();
    void endReleasesEverything();
    void threadsMayWatchAndEndAtOnce();

private:
    /// How many threads there are without those of a test.
    std::size_t m_threads = 0;
};

void TestDirectoryEvents::changeOfNamesCalls_data()
{
    QTest::addColumn<Action>("action");

    const auto row = [](const char* what, Action action) { QTest::newRow(what) << action; };
    row("file created", [](auto& folder, auto&) { writeFile(folder + "/new", {}); });
    row("hidden file created", [](auto& folder, auto&) { writeFile(folder + "/.new", {}); });
    row("folder created", [](auto& folder, auto&) { makeFolder(folder + "/new"); });
    row("link created", [](auto& folder, auto&) { makeLink(folder + "/new", "nowhere"); });
    row("hard link created", [](auto& folder, auto& outside) {
        if (::link((outside + "/file").c_str(), (folder + "/new").c_str()) != 0) qFatal("no hard link");
    });
    row("file deleted", [](auto& folder, auto&) { removeEntry(folder + "/file"); });
    row("folder deleted", [](auto& folder, auto&) { removeEntry(folder + "/folder"); });
    row("file moved in",
        [](auto& folder, auto& outside) { renameEntry(outside + "/file", folder + "/new"); });
    row("folder moved in",
        [](auto& folder, auto& outside) { renameEntry(outside + "/folder", folder + "/new"); });
    row("file moved in over another",
        [](auto& folder, auto& outside) { renameEntry(outside + "/file", folder + "/file"); });
    row("file moved out",
        [](auto& folder, auto& outside) { renameEntry(folder + "/file", outside + "/new"); });
    row("folder moved out",
        [](auto& folder, auto& outside) { renameEntry(folder + "/folder", outside + "/new"); });
    row("file renamed", [](auto& folder, auto&) { renameEntry(folder + "/file", folder + "/new"); });
    row("download finished",
        [](auto& folder, auto&) { renameEntry(folder + "/movie.mp4.crdownload", folder + "/movie.mp4"); });
    row("name of invalid UTF-8", [](auto& folder, auto&) { writeFile(folder + "/\xff\n", {}); });
    row("longest name", [](auto& folder, auto&) { writeFile(folder + '/' + std::string(255, 'x'), {}); });
}

void TestDirectoryEvents::changeOfNamesCalls()
{
    QFETCH(const Action, action);
    const ScratchFolder scratch;
    const std::string folder = scratch.makeFolder("watched");
    const std::string outside = scratch.makeFolder("outside");
    for (const std::string& place : {folder, outside}) {
        writeFile(place + "/file", "content");
        makeFolder(place + "/folder");
    }
    writeFile(folder + "/movie.mp4.crdownload", "content");

    DirectoryEvents events;
    Watched watched(events, folder);
    QCOMPARE(watched.calls(), 0);
    action(folder, outside);
    QVERIFY(watched.isCalled());
}

void TestDirectoryEvents::otherChangesDoNotCall_data()
{
    QTest::addColumn<Action>("action");

    const auto row = [](const char* what, Action action) { QTest::newRow(what) << action; };
    row("file written", [](auto& folder, auto&) { appendToFile(folder + "/file", "more"); });
    row("file emptied", [](auto& folder, auto&) {
        if (::truncate((folder + "/file").c_str(), 0) != 0) qFatal("cannot empty the file");
    });
    row("file read", [](auto& folder, auto&) { Q_UNUSED(contents(folder + "/file")); });
    row("mode of a file changed", [](auto& folder, auto&) {
        if (::chmod((folder + "/file").c_str(), 0600) != 0) qFatal("cannot change the mode");
    });
    row("mode of the folder changed", [](auto& folder, auto&) {
        if (::chmod(folder.c_str(), 0700) != 0) qFatal("cannot change the mode");
    });
    row("folder listed", [](auto& folder, auto&) { Q_UNUSED(namesIn(folder)); });
    row("file created in a folder inside",
        [](auto& folder, auto&) { writeFile(folder + "/folder/new", {}); });
    row("file created beside the folder", [](auto&, auto& outside) { writeFile(outside + "/new", {}); });
}

void TestDirectoryEvents::otherChangesDoNotCall()
{
    QFETCH(const Action, action);
    const ScratchFolder scratch;
    const std::string folder = scratch.makeFolder("watched");
    writeFile(folder + "/file", "content");
    makeFolder(folder + "/folder");

    DirectoryEvents events;
    Delivery delivery(events, scratch);
    Watched watched(events, folder);
    action(folder, scratch.path());
    QVERIFY(delivery.isComplete());
    QCOMPARE(watched.calls(), 0);
}

void TestDirectoryEvents::subscriptionToANameIsToldOfThatNameAlone_data()
{
    QTest::addColumn<Action>("action");
    QTest::addColumn<bool>("isCalled");

    const auto row = [](const char* what, bool isCalled, Action action) {
        QTest::newRow(what) << action << isCalled;
    };
    row("replaced", true, [](auto& folder, auto&) {
        removeEntry(folder + "/name");
        makeFolder(folder + "/name");
    });
    row("renamed to it", true, [](auto& folder, auto&) { renameEntry(folder + "/other", folder + "/name"); });
    row("renamed away", true, [](auto& folder, auto&) { renameEntry(folder + "/name", folder + "/away"); });
    row("deleted", true, [](auto& folder, auto&) { removeEntry(folder + "/name"); });
    row("folder renamed", true,
        [](auto& folder, auto& outside) { renameEntry(folder, outside + "/elsewhere"); });
    row("folder deleted", true, [](auto& folder, auto&) {
        removeEntry(folder + "/name");
        removeEntry(folder + "/other");
        removeEntry(folder);
    });
    row("another made", false, [](auto& folder, auto&) { writeFile(folder + "/name2", {}); });
    row("beginning of it made", false, [](auto& folder, auto&) { writeFile(folder + "/nam", {}); });
    row("another deleted", false, [](auto& folder, auto&) { removeEntry(folder + "/other"); });
    row("something in it made", false, [](auto& folder, auto&) { writeFile(folder + "/name/new", {}); });
}

void TestDirectoryEvents::subscriptionToANameIsToldOfThatNameAlone()
{
    QFETCH(const Action, action);
    QFETCH(const bool, isCalled);
    const ScratchFolder scratch;
    const std::string folder = scratch.makeFolder("watched");
    makeFolder(folder + "/name");
    makeFolder(folder + "/other");

    DirectoryEvents events;
    Delivery delivery(events, scratch);
    Watched watched(events, folder, "name");
    action(folder, scratch.path());
    QVERIFY(delivery.isComplete());
    QCOMPARE(watched.calls() > 0, isCalled);
}

void TestDirectoryEvents::everyChangeCalls()
{
    const ScratchFolder scratch;
    DirectoryEvents events;
    Watched watched(events, scratch.path());
    for (int i = 0; i < 200; ++i) {
        const int before = watched.calls();
        writeFile(scratch.path() + '/' + std::to_string(i), {});
        QVERIFY(eventually([&] { return watched.calls() > before; }));
    }
}

void TestDirectoryEvents::manyFoldersAreWatched()
{
    constexpr int count = 500;
    const ScratchFolder scratch;
    DirectoryEvents events;
    Delivery delivery(events, scratch);
    std::vector<std::string> folders;
    std::vector<std::unique_ptr<Watched>> watches;
    for (int i = 0; i < count; ++i) {
        folders.push_back(scratch.makeFolder(std::to_string(i)));
        watches.push_back(std::make_unique<Watched>(events, folders.back()));
    }
    for (size_t i = 0; i < count; i += 2)
        writeFile(folders[i] + "/new", {});
    QVERIFY(delivery.isComplete());
    for (size_t i = 0; i < count; ++i)
        QCOMPARE(watches[i]->calls(), i % 2 == 0 ? 1 : 0);

    // Every other one goes, the rest stays.
    for (size_t i = 0; i < count; i += 4)
        watches[i].reset();
    for (const std::string& folder : folders)
        writeFile(folder + "/newer", {});
    QVERIFY(delivery.isComplete());
    for (size_t i = 0; i < count; ++i)
        if (watches[i]) QCOMPARE(watches[i]->calls(), i % 2 == 0 ? 2 : 1);
}

void TestDirectoryEvents::overflowCallsEveryone()
{
    const ScratchFolder scratch;
    const std::string busy = scratch.makeFolder("busy");
    const std::string quiet = scratch.makeFolder("quiet");
    DirectoryEvents events;
    const Watched watched(events, quiet);
    const Watched name(events, quiet, "name");
    QVERIFY(events.isKnownFolder(quiet));

    // The reader is held in the first call, and meanwhile more happens than the kernel keeps.
    std::promise<void> called;
    std::promise<void> goOn;
    std::atomic<bool> isFirst = true;
    const Outcome<SourcePointer> source = events.watch(busy, handler([&] {
                                                           if (!isFirst.exchange(false)) return;
                                                           called.set_value();
                                                           goOn.get_future().wait();
                                                       }));
    QVERIFY(source);
    writeFile(busy + "/first", {});
    const bool isHeld = called.get_future().wait_for(std::chrono::seconds(30)) == std::future_status::ready;
    for (int i = 0; i <= maximumQueuedEvents(); i += 2) {
        writeFile(busy + "/new", {});
        removeEntry(busy + "/new");
    }
    const int callsBefore = watched.calls() + name.calls();
    goOn.set_value();

    QVERIFY(isHeld);
    QCOMPARE(callsBefore, 0);
    QVERIFY(watched.isCalled());
    QVERIFY(name.isCalled());
    QVERIFY(!events.isKnownFolder(quiet));
}

void TestDirectoryEvents::sameFolderGivesTheSameDescriptor()
{
    const ScratchFolder scratch;
    const std::string folder = scratch.makeFolder("watched");
    makeLink(scratch.path() + "/link", "watched");
    DirectoryEvents events;
    Watched first(events, folder);
    Watched second(events, folder + '/');
    Watched third(events, scratch.path() + "/link");
    Watched other(events, scratch.path());
    QVERIFY(first->descriptor() > 0);
    QCOMPARE(second->descriptor(), first->descriptor());
    QCOMPARE(third->descriptor(), first->descriptor());
    QVERIFY(other->descriptor() != first->descriptor());
}

void TestDirectoryEvents::endedSourceKeepsTheOthers()
{
    const ScratchFolder scratch;
    DirectoryEvents events;
    Delivery delivery(events, scratch);
    const std::string folder = scratch.makeFolder("watched");
    Watched first(events, folder);
    Watched second(events, folder);
    Watched third(events, folder, "b");

    second.end();
    writeFile(folder + "/a", {});
    QVERIFY(delivery.isComplete());
    QCOMPARE(first.calls(), 1);
    QCOMPARE(second.calls(), 0);
    QCOMPARE(third.calls(), 0);

    first.end();
    writeFile(folder + "/b", {});
    QVERIFY(delivery.isComplete());
    QCOMPARE(first.calls(), 1);
    QCOMPARE(third.calls(), 1);

    // Nothing of what was left of the earlier watches.
    third.end();
    Watched again(events, folder);
    writeFile(folder + "/c", {});
    QVERIFY(delivery.isComplete());
    QCOMPARE(third.calls(), 1);
    QCOMPARE(again.calls(), 1);
}

void TestDirectoryEvents::lastSourceEndsTheWatchOfTheKernel()
{
    const ScratchFolder scratch;
    const std::size_t before = kernelWatchCount();
    DirectoryEvents events;
    Watched first(events, scratch.path());
    Watched second(events, scratch.path(), "name");
    QCOMPARE(kernelWatchCount(), before + 1);
    first.end();
    QCOMPARE(kernelWatchCount(), before + 1);
    second.end();
    QCOMPARE(kernelWatchCount(), before);
}

void TestDirectoryEvents::sourceMayEndInItsHandler()
{
    const ScratchFolder scratch;
    const std::size_t before = kernelWatchCount();
    DirectoryEvents events;
    Delivery delivery(events, scratch);
    const std::string folder = scratch.makeFolder("watched");
    std::promise<void> ended;
    SourcePointer source;
    Mutex mutex;
    {
        const MutexLock lock(mutex);
        Outcome<SourcePointer> watch = events.watch(folder, handler([&] {
                                                        const MutexLock handlerLock(mutex);
                                                        if (!source) return;
                                                        source.reset();
                                                        ended.set_value();
                                                    }));
        QVERIFY(watch);
        source = *std::move(watch);
    }
    writeFile(folder + "/new", {});
    QVERIFY(ended.get_future().wait_for(std::chrono::seconds(30)) == std::future_status::ready);
    QVERIFY(delivery.isComplete());
    QCOMPARE(kernelWatchCount(), before + 1);
}

void TestDirectoryEvents::lastSourceThatEndsMeanwhileTakesNoWatchAway_data()
{
    QTest::addColumn<std::string>("name");
    QTest::newRow("the folder") << std::string();
    QTest::newRow("a name in it") << std::string("name");
}

void TestDirectoryEvents::lastSourceThatEndsMeanwhileTakesNoWatchAway()
{
    QFETCH(const std::string, name);
    const ScratchFolder scratch;
    const std::string folder = scratch.makeFolder("watched");
    const std::string ended = scratch.path() + "/ended";
    const auto work = [&]() -> Outcome<void> {
        DirectoryEvents events;
        SourcePointer first;
        auto watch = events.watch(folder, handler([&] {
                                      first.reset();
                                      writeFile(ended, {});
                                  }));
        if (!watch) return watch.error();
        first = *std::move(watch);
        auto second = events.watch(folder, handler([] {}), name);
        if (!second) return second.error();
        if (!(*second)->isFor(folder)) return SystemError{ESTALE};
        return {};
    };
    // The kernel has found the watch for the second source when the first ends and takes it away.
    const InterceptedRun run = runIntercepted({"inotify_add_watch"}, work, [&](const InterceptedCall& call) {
        if (call.ordinal != 2) return Answer::proceed();
        writeFile(folder + "/new", {});
        if (!eventually([&] { return exists(ended); })) return Answer::fail(EIO);
        return Answer::give(1);
    });
    QCOMPARE(run.error, 0);
}

void TestDirectoryEvents::deletedFolderCallsAndEndsCleanly()
{
    const ScratchFolder scratch;
    DirectoryEvents events;
    Delivery delivery(events, scratch);
    const std::size_t before = kernelWatchCount();
    const std::string folder = scratch.makeFolder("watched");
    {
        Watched watched(events, folder);
        removeEntry(folder);
        QVERIFY(watched.isCalled());
        QVERIFY(delivery.isComplete());
        QCOMPARE(kernelWatchCount(), before);
    }
    // Also when the events of the deletion have not been read yet.
    for (int i = 0; i < 50; ++i) {
        makeFolder(folder);
        Watched watched(events, folder);
        removeEntry(folder);
        watched.end();
    }
    QVERIFY(delivery.isComplete());
    QCOMPARE(kernelWatchCount(), before);
}

void TestDirectoryEvents::deletedFolderMadeAgainCanBeWatched()
{
    const ScratchFolder scratch;
    const std::string folder = scratch.makeFolder("watched");
    DirectoryEvents events;
    Delivery delivery(events, scratch);
    Watched old(events, folder);
    removeEntry(folder);
    makeFolder(folder);
    Watched fresh(events, folder);
    QVERIFY(delivery.isComplete());
    const int calls = old.calls();
    QVERIFY(calls > 0);
    QCOMPARE(fresh.calls(), 0);

    writeFile(folder + "/new", {});
    QVERIFY(delivery.isComplete());
    QCOMPARE(fresh.calls(), 1);
    QCOMPARE(old.calls(), calls);

    // The end of the dead watch does not touch the living one.
    old.end();
    writeFile(folder + "/newer", {});
    QVERIFY(delivery.isComplete());
    QCOMPARE(fresh.calls(), 2);
}

void TestDirectoryEvents::isForFollowsTheFolderAndNotThePath()
{
    const ScratchFolder scratch;
    const std::string folder = scratch.makeFolder("watched");
    const std::string moved = scratch.path() + "/moved";
    const std::string link = scratch.path() + "/link";
    makeLink(link, "watched");
    DirectoryEvents events;
    const Watched watched(events, folder);
    QVERIFY(watched->isFor(folder));
    QVERIFY(watched->isFor(folder + '/'));
    QVERIFY(watched->isFor(link));
    QVERIFY(!watched->isFor(scratch.path()));

    renameEntry(folder, moved);
    QVERIFY(!watched->isFor(folder));
    QVERIFY(!watched->isFor(link));
    QVERIFY(watched->isFor(moved));

    makeFolder(folder);
    QVERIFY(!watched->isFor(folder));
    const Watched fresh(events, folder);
    QVERIFY(fresh->isFor(folder));
    QVERIFY(!fresh->isFor(moved));
}

void TestDirectoryEvents::isForNoFolderOfTheSameNumber()
{
    // Most file systems give the number of a deleted folder to the next that is made; those that count
    // upwards never do.
    const ScratchFolder scratch;
    const std::string folder = scratch.makeFolder("watched");
    DirectoryEvents events;
    int same = 0;
    for (int i = 0; i < 200; ++i) {
        const Watched watched(events, folder);
        const uint64_t inode = inodeOf(folder);
        removeEntry(folder);
        makeFolder(folder);
        same += inodeOf(folder) == inode;
        QVERIFY(!watched->isFor(folder));
    }
    qInfo("%d of 200 folders got the number of the one before", same);
}

void TestDirectoryEvents::knownFolderThatIsReplacedIsNoLongerKnown_data()
{
    QTest::addColumn<bool>("isAncestorReplaced");
    QTest::addColumn<bool>("isNoticed");
    QTest::newRow("itself") << false << true;
    QTest::newRow("a folder above") << true << true;
    QTest::newRow("a folder above, after its subscription") << true << false;
}

void TestDirectoryEvents::knownFolderThatIsReplacedIsNoLongerKnown()
{
    QFETCH(const bool, isAncestorReplaced);
    QFETCH(const bool, isNoticed);
    const ScratchFolder scratch;
    const std::string parent = scratch.makeFolder("parent");
    const std::string folder = parent + "/folder";
    makeFolder(folder);
    DirectoryEvents events;
    Delivery delivery(events, scratch);
    // As whoever watches a path does it: every name on it.
    Watched above(events, scratch.path(), "parent");
    const Watched middle(events, parent, "folder");
    const Watched old(events, folder, "name");
    QVERIFY(events.isKnownFolder(parent));
    QVERIFY(events.isKnownFolder(folder));
    QVERIFY(!events.isKnownFolder(folder + "/name"));
    const Watched same(events, folder, "name");
    QCOMPARE(same->descriptor(), old->descriptor());

    if (!isNoticed) above.end();
    renameEntry(isAncestorReplaced ? parent : folder, scratch.path() + "/away");
    if (isAncestorReplaced) makeFolder(parent);
    makeFolder(folder);
    QVERIFY(delivery.isComplete());
    QVERIFY(!events.isKnownFolder(folder));
    const Watched fresh(events, folder, "name");
    QVERIFY(fresh->descriptor() != old->descriptor());
    writeFile(folder + "/name", {});
    QVERIFY(fresh.isCalled());
}

void TestDirectoryEvents::folderReplacedWhileItIsWatchedIsNotKnown()
{
    const ScratchFolder scratch;
    const std::string folder = scratch.makeFolder("folder");
    const std::string told = scratch.path() + "/told";
    constexpr int knownDescriptor = 2;
    const auto work = [&]() -> Outcome<void> {
        DirectoryEvents events;
        auto above = events.watch(scratch.path(), handler([&] {
                                      if (!exists(told)) writeFile(told, {});
                                  }),
                                  "folder");
        if (!above) return above.error();
        auto watched = events.watch(folder, handler([] {}), "name");
        if (!watched) return watched.error();
        return events.isKnownFolder(folder) ? SystemError{ESTALE} : Outcome<void>();
    };
    // The last question of the kernel whether this is the folder is answered right before it is replaced, and
    // that is told at once.
    const InterceptedRun run = runIntercepted({"inotify_add_watch"}, work, [&](const InterceptedCall& call) {
        if (call.ordinal != 4) return Answer::proceed();
        renameEntry(folder, scratch.path() + "/away");
        makeFolder(folder);
        if (!eventually([&] { return exists(told); })) return Answer::fail(EIO);
        return Answer::give(knownDescriptor);
    });
    QCOMPARE(run.calls.size(), size_t(4));
    QCOMPARE(run.error, 0);
}

void TestDirectoryEvents::missingFolderIsENOENT()
{
    const ScratchFolder scratch;
    DirectoryEvents events;
    QCOMPARE(errorOfWatching(events, scratch.path() + "/missing"), ENOENT);
    makeLink(scratch.path() + "/dangling", "missing");
    QCOMPARE(errorOfWatching(events, scratch.path() + "/dangling"), ENOENT);
    QCOMPARE(errorOfWatching(events, {}), ENOENT);
    // A failure spoils nothing.
    Watched watched(events, scratch.path());
    writeFile(scratch.path() + "/new", {});
    QVERIFY(watched.isCalled());
}

void TestDirectoryEvents::fileInsteadOfFolderIsENOTDIR()
{
    const ScratchFolder scratch;
    writeFile(scratch.path() + "/file", {});
    const std::size_t before = kernelWatchCount();
    DirectoryEvents events;
    QCOMPARE(errorOfWatching(events, scratch.path() + "/file"), ENOTDIR);
    QCOMPARE(errorOfWatching(events, scratch.path() + "/file/inside"), ENOTDIR);
    QCOMPARE(kernelWatchCount(), before);
}

void TestDirectoryEvents::forbiddenFolderIsEACCES()
{
    const ScratchFolder scratch;
    const std::string folder = scratch.makeFolder("watched");
    QCOMPARE(::chmod(folder.c_str(), 0300), 0);
    DirectoryEvents events;
    int error = 0;
    {
        const WithoutPrivileges ordinary;
        error = errorOfWatching(events, folder);
    }
    QCOMPARE(::chmod(folder.c_str(), 0700), 0);
    QCOMPARE(error, EACCES);
}

void TestDirectoryEvents::refusedInstanceIsAskedForAgain()
{
    const ScratchFolder scratch;
    DirectoryEvents events;
    const std::size_t before = descriptorCount();
    // The instance needs two descriptors.
    for (const std::size_t free : {0U, 1U}) {
        const DescriptorLimit limit(free);
        QCOMPARE(errorOfWatching(events, scratch.path()), EMFILE);
    }
    QCOMPARE(descriptorCount(), before);
    Watched watched(events, scratch.path());
    writeFile(scratch.path() + "/new", {});
    QVERIFY(watched.isCalled());
}

void TestDirectoryEvents::opensNothingBeforeTheFirstWatch()
{
    const ScratchFolder scratch;
    const std::size_t descriptors = descriptorCount();
    {
        const DirectoryEvents events;
        QCOMPARE(descriptorCount(), descriptors);
        QCOMPARE(threadCount(), m_threads);
    }
    DirectoryEvents events;
    Watched first(events, scratch.path());
    const std::size_t opened = descriptorCount();
    Watched second(events, scratch.makeFolder("second"));
    QCOMPARE(descriptorCount(), opened);
    QCOMPARE(threadCount(), m_threads + 1);
}

void TestDirectoryEvents::endReleasesEverything()
{
    const ScratchFolder scratch;
    const std::size_t descriptors = descriptorCount();
    for (int i = 0; i < 20; ++i) {
        DirectoryEvents events;
        Watched watched(events, scratch.path());
        writeFile(scratch.path() + '/' + std::to_string(i), {});
    }
    QCOMPARE(descriptorCount(), descriptors);
    QVERIFY(eventually([this] { return threadCount() == m_threads; }));
}

void TestDirectoryEvents::threadsMayWatchAndEndAtOnce()
{
    const ScratchFolder scratch;
    DirectoryEvents events;
    std::atomic<int> wrong = 0;
    {
        const ThreadGroup threads(4, [&](size_t thread) {
            const std::string own = scratch.makeFolder(std::to_string(thread));
            for (int i = 0; i < 200 && wrong == 0; ++i) {
                const Watched mine(events, own);
                const Watched shared(events, scratch.path());
                const Watched name(events, scratch.path(), std::to_string(thread));
                writeFile(own + '/' + std::to_string(i), {});
                if (!mine.isCalled() || !shared->isFor(scratch.path()) || !name->isFor(scratch.path()))
                    ++wrong;
            }
        });
    }
    QCOMPARE(wrong, 0);
    QVERIFY(eventually([] { return kernelWatchCount() == 0; }));
}

int main(int argc, char** argv)
{
    // Every change of the mounts calls every handler: those of others shall not count here.
    tryPrivateNamespace();
    // Those that were there before go away with their folders.
    if (!eventually([] { return !hasMountsOfTests(); })) qWarning("mounts of other tests stay");
    return runTest<QCoreApplication, TestDirectoryEvents>(argc, argv);
}

#include "tst_DirectoryEvents.moc"
