#include "support/EngineFiles.h"
#include "support/EngineResources.h"
#include "support/Eventually.h"
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
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace harbex;
using namespace harbex::test;

namespace
{

using SourcePointer = std::unique_ptr<DirectoryEvents::Source>;

/// One watched folder and how often its handler was called.
class Watched
{
public:
    Watched(DirectoryEvents& events, const std::string& path)
    {
        Outcome<SourcePointer> watch = events.watch(path, [this] { ++m_calls; });
        if (!watch) qFatal("cannot watch %s: %s", path.c_str(), watch.error().description().c_str());
        m_source = *std::move(watch);
    }
    Watched(const Watched&) = delete;
    Watched& operator=(const Watched&) = delete;

    void resume() { m_source->resume(); }
    void cancel() { m_source->cancel(); }
    [[nodiscard]] int descriptor() const { return m_source->descriptor(); }

    [[nodiscard]] int calls() const { return m_calls; }
    [[nodiscard]] bool isCalled() const
    {
        return eventually([this] { return m_calls > 0; });
    }

private:
    std::atomic<int> m_calls = 0;
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
        m_watched.resume();
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
    const Outcome<SourcePointer> watch = events.watch(path, [] {});
    return watch ? 0 : watch.error().code;
}

int maximumQueuedEvents()
{
    int count = 0;
    std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> count;
    if (count <= 0) qFatal("cannot read how many events inotify queues");
    return count;
}

/// Something that is done in a watched folder.
using Action = void (*)(const std::string& folder, const std::string& outside);

} // namespace

Q_DECLARE_METATYPE(Action)

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
    void everyChangeCalls();
    void onlyTheFolderThatChangedIsCalled();
    void folderOfAnyNameIsWatched();
    void manyFoldersAreWatched();
    void overflowCallsEveryFolder();

    // Resuming.
    void nothingIsCalledBeforeResume();
    void resumeDeliversWhatCameBefore();
    void resumeWithoutEventsCallsNothing();
    void resumeTwiceDeliversOnce();

    // Cancelling.
    void cancelledSourceIsNotCalled();
    void cancelTwiceIsHarmless();
    void cancelBeforeResumeIsHarmless();
    void endOfTheSourceCancels();
    void lastCancelEndsTheWatchOfTheKernel();
    void cancelWaitsForTheHandler();
    void cancelDuringAStormOfEvents();

    // One folder, several sources.
    void sameFolderGivesTheSameDescriptor();
    void everySourceOfAFolderIsCalled();
    void cancelledSourceKeepsTheOthers();
    void folderWatchedAgainAfterCancelIsCalled();

    // The folder goes away.
    void deletedFolderCallsAndCancelsCleanly();
    void deletedFolderCallsEverySource();
    void deletedFolderMadeAgainCanBeWatched();
    void movedFolderCallsAndCancelsCleanly();
    void replacedFolderHasAnotherDescriptor();

    // Failures.
    void missingFolderIsENOENT();
    void fileInsteadOfFolderIsENOTDIR();
    void forbiddenFolderIsEACCES();
    void refusedInstanceIsAskedForAgain();

    // Life.
    void opensNothingBeforeTheFirstWatch();
    void endReleasesEverything();
    void threadsMayWatchAndCancelAtOnce();

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
    watched.resume();
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
    watched.resume();
    action(folder, scratch.path());
    QVERIFY(delivery.isComplete());
    QCOMPARE(watched.calls(), 0);
}

void TestDirectoryEvents::everyChangeCalls()
{
    const ScratchFolder scratch;
    DirectoryEvents events;
    Watched watched(events, scratch.path());
    watched.resume();
    for (int i = 0; i < 200; ++i) {
        const int before = watched.calls();
        writeFile(scratch.path() + '/' + std::to_string(i), {});
        QVERIFY(eventually([&] { return watched.calls() > before; }));
    }
}

void TestDirectoryEvents::onlyTheFolderThatChangedIsCalled()
{
    const ScratchFolder scratch;
    DirectoryEvents events;
    Delivery delivery(events, scratch);
    const std::string first = scratch.makeFolder("first");
    const std::string second = scratch.makeFolder("second");
    Watched a(events, first);
    Watched b(events, second);
    a.resume();
    b.resume();
    writeFile(second + "/new", {});
    QVERIFY(delivery.isComplete());
    QCOMPARE(a.calls(), 0);
    QCOMPARE(b.calls(), 1);
}

void TestDirectoryEvents::folderOfAnyNameIsWatched()
{
    const ScratchFolder scratch;
    const std::string folder = scratch.makeFolder("\xff\n folder");
    DirectoryEvents events;
    Watched watched(events, folder);
    watched.resume();
    writeFile(folder + "/new", {});
    QVERIFY(watched.isCalled());
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
        watches.back()->resume();
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

void TestDirectoryEvents::overflowCallsEveryFolder()
{
    const ScratchFolder scratch;
    const std::string busy = scratch.makeFolder("busy");
    const std::string quiet = scratch.makeFolder("quiet");
    DirectoryEvents events;
    Watched watched(events, quiet);
    watched.resume();
    Watched waiting(events, quiet);

    // The reader is held in the first call, and meanwhile more happens than the kernel keeps.
    std::promise<void> called;
    std::promise<void> goOn;
    std::atomic<bool> isFirst = true;
    Outcome<SourcePointer> source = events.watch(busy, [&] {
        if (!isFirst.exchange(false)) return;
        called.set_value();
        goOn.get_future().wait();
    });
    QVERIFY(source);
    (*source)->resume();
    writeFile(busy + "/first", {});
    const bool isHeld = called.get_future().wait_for(std::chrono::seconds(30)) == std::future_status::ready;
    for (int i = 0; i <= maximumQueuedEvents(); i += 2) {
        writeFile(busy + "/new", {});
        removeEntry(busy + "/new");
    }
    const int callsBefore = watched.calls();
    goOn.set_value();

    QVERIFY(isHeld);
    QCOMPARE(callsBefore, 0);
    QVERIFY(watched.isCalled());
    (*source)->cancel();
    QCOMPARE(waiting.calls(), 0);
    waiting.resume();
    QCOMPARE(waiting.calls(), 1);
}

void TestDirectoryEvents::nothingIsCalledBeforeResume()
{
    const ScratchFolder scratch;
    DirectoryEvents events;
    Delivery delivery(events, scratch);
    const std::string folder = scratch.makeFolder("watched");
    Watched watched(events, folder);
    writeFile(folder + "/new", {});
    QVERIFY(delivery.isComplete());
    QCOMPARE(watched.calls(), 0);
}

void TestDirectoryEvents::resumeDeliversWhatCameBefore()
{
    const ScratchFolder scratch;
    DirectoryEvents events;
    Delivery delivery(events, scratch);
    const std::string folder = scratch.makeFolder("watched");
    Watched watched(events, folder);
    for (const char* name : {"/a", "/b", "/c"})
        writeFile(folder + name, {});
    QVERIFY(delivery.isComplete());
    watched.resume();
    // All of them in one call, and before resume() returns.
    QCOMPARE(watched.calls(), 1);

    writeFile(folder + "/d", {});
    QVERIFY(eventually([&] { return watched.calls() == 2; }));
}

void TestDirectoryEvents::resumeWithoutEventsCallsNothing()
{
    const ScratchFolder scratch;
    writeFile(scratch.path() + "/old", {});
    DirectoryEvents events;
    Watched watched(events, scratch.path());
    watched.resume();
    QCOMPARE(watched.calls(), 0);
}

void TestDirectoryEvents::resumeTwiceDeliversOnce()
{
    const ScratchFolder scratch;
    DirectoryEvents events;
    Delivery delivery(events, scratch);
    const std::string folder = scratch.makeFolder("watched");
    Watched watched(events, folder);
    writeFile(folder + "/new", {});
    QVERIFY(delivery.isComplete());
    watched.resume();
    watched.resume();
    QCOMPARE(watched.calls(), 1);
}

void TestDirectoryEvents::cancelledSourceIsNotCalled()
{
    const ScratchFolder scratch;
    DirectoryEvents events;
    Delivery delivery(events, scratch);
    const std::string folder = scratch.makeFolder("watched");
    Watched watched(events, folder);
    watched.resume();
    watched.cancel();
    writeFile(folder + "/new", {});
    QVERIFY(delivery.isComplete());
    QCOMPARE(watched.calls(), 0);
}

void TestDirectoryEvents::cancelTwiceIsHarmless()
{
    const ScratchFolder scratch;
    DirectoryEvents events;
    Watched first(events, scratch.path());
    Watched second(events, scratch.path());
    second.resume();
    first.cancel();
    first.cancel();
    writeFile(scratch.path() + "/new", {});
    QVERIFY(second.isCalled());
    second.cancel();
    second.cancel();
    QCOMPARE(first.calls(), 0);
}

void TestDirectoryEvents::cancelBeforeResumeIsHarmless()
{
    const ScratchFolder scratch;
    DirectoryEvents events;
    Delivery delivery(events, scratch);
    const std::string folder = scratch.makeFolder("watched");
    Watched watched(events, folder);
    writeFile(folder + "/new", {});
    QVERIFY(delivery.isComplete());
    watched.cancel();
    QCOMPARE(watched.calls(), 0);
}

void TestDirectoryEvents::endOfTheSourceCancels()
{
    const ScratchFolder scratch;
    DirectoryEvents events;
    Delivery delivery(events, scratch);
    const std::string folder = scratch.makeFolder("watched");
    std::atomic<int> calls = 0;
    {
        Outcome<SourcePointer> source = events.watch(folder, [&] { ++calls; });
        QVERIFY(source);
        (*source)->resume();
    }
    writeFile(folder + "/new", {});
    QVERIFY(delivery.isComplete());
    QCOMPARE(calls, 0);
}

void TestDirectoryEvents::lastCancelEndsTheWatchOfTheKernel()
{
    const ScratchFolder scratch;
    const std::size_t before = kernelWatchCount();
    DirectoryEvents events;
    Watched first(events, scratch.path());
    Watched second(events, scratch.path());
    QCOMPARE(kernelWatchCount(), before + 1);
    first.cancel();
    QCOMPARE(kernelWatchCount(), before + 1);
    second.cancel();
    QCOMPARE(kernelWatchCount(), before);
}

void TestDirectoryEvents::cancelWaitsForTheHandler()
{
    const ScratchFolder scratch;
    DirectoryEvents events;
    std::atomic<bool> began = false;
    std::atomic<bool> ended = false;
    Outcome<SourcePointer> source = events.watch(scratch.path(), [&] {
        began = true;
        // Long enough for a cancel that does not wait to come back first.
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        ended = true;
    });
    QVERIFY(source);
    (*source)->resume();
    writeFile(scratch.path() + "/new", {});
    QVERIFY(eventually([&] { return began.load(); }));
    (*source)->cancel();
    QVERIFY(ended);
}

void TestDirectoryEvents::cancelDuringAStormOfEvents()
{
    const ScratchFolder scratch;
    const std::string folder = scratch.makeFolder("watched");
    std::atomic<bool> enough = false;
    std::jthread storm([&] {
        while (!enough) {
            writeFile(folder + "/new", {});
            removeEntry(folder + "/new");
        }
    });
    int called = 0;
    std::atomic<int> late = 0;
    {
        DirectoryEvents events;
        for (int i = 0; i < 300; ++i) {
            std::atomic<int> calls = 0;
            std::atomic<bool> isCancelled = false;
            Outcome<SourcePointer> source = events.watch(folder, [&] {
                ++calls;
                if (isCancelled) ++late;
            });
            if (!source) break;
            (*source)->resume();
            // Now and then the cancelling comes before the first call.
            if (i % 4 > 0) called += eventually([&] { return calls > 0; });
            (*source)->cancel();
            isCancelled = true;
            std::this_thread::yield();
        }
        // The end comes while events do.
    }
    enough = true;
    storm.join();
    QCOMPARE(late, 0);
    QCOMPARE(called, 225);
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
    QVERIFY(first.descriptor() > 0);
    QCOMPARE(second.descriptor(), first.descriptor());
    QCOMPARE(third.descriptor(), first.descriptor());
    QVERIFY(other.descriptor() != first.descriptor());
}

void TestDirectoryEvents::everySourceOfAFolderIsCalled()
{
    const ScratchFolder scratch;
    DirectoryEvents events;
    Watched first(events, scratch.path());
    Watched second(events, scratch.path());
    first.resume();
    second.resume();
    writeFile(scratch.path() + "/new", {});
    QVERIFY(first.isCalled());
    QVERIFY(second.isCalled());
}

void TestDirectoryEvents::cancelledSourceKeepsTheOthers()
{
    const ScratchFolder scratch;
    DirectoryEvents events;
    Delivery delivery(events, scratch);
    const std::string folder = scratch.makeFolder("watched");
    Watched first(events, folder);
    Watched second(events, folder);
    Watched third(events, folder);
    for (Watched* watched : {&first, &second, &third})
        watched->resume();

    second.cancel();
    writeFile(folder + "/a", {});
    QVERIFY(delivery.isComplete());
    QCOMPARE(first.calls(), 1);
    QCOMPARE(second.calls(), 0);
    QCOMPARE(third.calls(), 1);

    first.cancel();
    writeFile(folder + "/b", {});
    QVERIFY(delivery.isComplete());
    QCOMPARE(first.calls(), 1);
    QCOMPARE(third.calls(), 2);
}

void TestDirectoryEvents::folderWatchedAgainAfterCancelIsCalled()
{
    const ScratchFolder scratch;
    DirectoryEvents events;
    Delivery delivery(events, scratch);
    const std::string folder = scratch.makeFolder("watched");
    for (int i = 0; i < 20; ++i) {
        Watched watched(events, folder);
        watched.resume();
        writeFile(folder + '/' + std::to_string(i), {});
        QVERIFY(delivery.isComplete());
        // Nothing of what was left of the earlier watches.
        QCOMPARE(watched.calls(), 1);
    }
}

void TestDirectoryEvents::deletedFolderCallsAndCancelsCleanly()
{
    const ScratchFolder scratch;
    DirectoryEvents events;
    Delivery delivery(events, scratch);
    const std::size_t before = kernelWatchCount();
    const std::string folder = scratch.makeFolder("watched");
    {
        Watched watched(events, folder);
        watched.resume();
        removeEntry(folder);
        QVERIFY(watched.isCalled());
        QVERIFY(delivery.isComplete());
        QCOMPARE(kernelWatchCount(), before);
    }
    // Also when the events of the deletion have not been read yet.
    for (int i = 0; i < 50; ++i) {
        makeFolder(folder);
        Watched watched(events, folder);
        watched.resume();
        removeEntry(folder);
        watched.cancel();
    }
    QVERIFY(delivery.isComplete());
    QCOMPARE(kernelWatchCount(), before);
}

void TestDirectoryEvents::deletedFolderCallsEverySource()
{
    const ScratchFolder scratch;
    const std::string folder = scratch.makeFolder("watched");
    DirectoryEvents events;
    Watched first(events, folder);
    Watched second(events, folder);
    first.resume();
    second.resume();
    removeEntry(folder);
    QVERIFY(first.isCalled());
    QVERIFY(second.isCalled());
    first.cancel();
    second.cancel();
}

void TestDirectoryEvents::deletedFolderMadeAgainCanBeWatched()
{
    const ScratchFolder scratch;
    const std::string folder = scratch.makeFolder("watched");
    DirectoryEvents events;
    Delivery delivery(events, scratch);
    Watched old(events, folder);
    old.resume();
    removeEntry(folder);
    makeFolder(folder);
    Watched fresh(events, folder);
    fresh.resume();
    QVERIFY(delivery.isComplete());
    const int calls = old.calls();
    QVERIFY(calls > 0);
    QCOMPARE(fresh.calls(), 0);

    writeFile(folder + "/new", {});
    QVERIFY(delivery.isComplete());
    QCOMPARE(fresh.calls(), 1);
    QCOMPARE(old.calls(), calls);

    // The end of the dead watch does not touch the living one.
    old.cancel();
    writeFile(folder + "/newer", {});
    QVERIFY(delivery.isComplete());
    QCOMPARE(fresh.calls(), 2);
}

void TestDirectoryEvents::movedFolderCallsAndCancelsCleanly()
{
    const ScratchFolder scratch;
    const std::string folder = scratch.makeFolder("watched");
    DirectoryEvents events;
    Delivery delivery(events, scratch);
    const std::size_t before = kernelWatchCount();
    Watched watched(events, folder);
    watched.resume();
    renameEntry(folder, scratch.path() + "/moved");
    QVERIFY(watched.isCalled());
    QCOMPARE(kernelWatchCount(), before + 1);

    QVERIFY(delivery.isComplete());
    const int calls = watched.calls();
    watched.cancel();
    QCOMPARE(kernelWatchCount(), before);
    writeFile(scratch.path() + "/moved/new", {});
    QVERIFY(delivery.isComplete());
    QCOMPARE(watched.calls(), calls);
}

void TestDirectoryEvents::replacedFolderHasAnotherDescriptor()
{
    const ScratchFolder scratch;
    const std::string folder = scratch.makeFolder("watched");
    DirectoryEvents events;
    Watched old(events, folder);
    renameEntry(folder, scratch.path() + "/moved");
    makeFolder(folder);
    Watched fresh(events, folder);
    QVERIFY(fresh.descriptor() != old.descriptor());
    Watched moved(events, scratch.path() + "/moved");
    QCOMPARE(moved.descriptor(), old.descriptor());
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
    watched.resume();
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
    watched.resume();
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
        watched.resume();
        writeFile(scratch.path() + '/' + std::to_string(i), {});
    }
    QCOMPARE(descriptorCount(), descriptors);
    QVERIFY(eventually([this] { return threadCount() == m_threads; }));
}

void TestDirectoryEvents::threadsMayWatchAndCancelAtOnce()
{
    const ScratchFolder scratch;
    DirectoryEvents events;
    std::atomic<int> wrong = 0;
    {
        const ThreadGroup threads(4, [&](size_t thread) {
            const std::string own = scratch.makeFolder(std::to_string(thread));
            for (int i = 0; i < 100; ++i) {
                std::atomic<int> calls = 0;
                Outcome<SourcePointer> mine = events.watch(own, [&] { ++calls; });
                Outcome<SourcePointer> shared = events.watch(scratch.path(), [&] { ++calls; });
                if (!mine || !shared) {
                    ++wrong;
                    return;
                }
                (*shared)->resume();
                writeFile(own + '/' + std::to_string(i), {});
                (*mine)->resume();
                if (i % 2 == 0) (*mine)->cancel();
            }
        });
    }
    QCOMPARE(wrong, 0);
    QVERIFY(eventually([] { return kernelWatchCount() == 0; }));
}

HARBEX_TEST_MAIN(TestDirectoryEvents)

#include "tst_DirectoryEvents.moc"
