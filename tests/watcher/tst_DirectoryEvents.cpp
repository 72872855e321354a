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
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <sys/stat.h>
#include <utility>
#include <vector>

using namespace harbex;
using namespace harbex::test;

namespace
{

using SourcePointer = std::unique_ptr<DirectoryEvents::Source>;

/// A subscription that counts the calls of its handler.
class Watched
{
public:
    /// Each call also runs `action`. The last call may come after the end of the source.
    Watched(DirectoryEvents& events, const std::string& path, const std::string& name = {},
            const std::function<void()>& action = {})
    {
        const auto handler = std::make_shared<const std::function<void()>>([calls = m_calls, action] {
            ++*calls;
            if (action) action();
        });
        Outcome<SourcePointer> watch = events.watch(path, handler, name);
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

uint64_t inodeOf(const std::string& path)
{
    struct stat data = {};
    if (::stat(path.c_str(), &data) != 0) qFatal("no %s", path.c_str());
    return data.st_ino;
}

/// A change in the watched folder `in` or in the folder `out` beside it.
using Action = void (*)(const std::string& in, const std::string& out);

} // namespace

/// One inotify instance and its subscriptions.
class TestDirectoryEvents : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        QCOMPARE(kernelWatchCount(), 0U);
        m_scratch = std::make_unique<ScratchFolder>();
        m_folder = m_scratch->makeFolder("watched");
        m_events = std::make_unique<DirectoryEvents>();
    }

    void cleanup()
    {
        m_events.reset();
        m_scratch.reset();
    }

    void changesOfNamesCall_data()
    {
        QTest::addColumn<std::string>("name");
        QTest::addColumn<bool>("isCalled");
        QTest::addColumn<Action>("action");
        const auto row = [](const char* what, const char* name, bool isCalled, Action action) {
            QTest::newRow(what) << std::string(name) << isCalled << action;
        };
        const auto calls = [&](const char* what, Action action) { row(what, "", true, action); };
        calls("file created", [](auto& in, auto&) { writeFile(in + "/new", {}); });
        calls("file deleted", [](auto& in, auto&) { removeEntry(in + "/file"); });
        calls("file moved in", [](auto& in, auto& out) { renameEntry(out + "/file", in + "/new"); });
        calls("file moved out", [](auto& in, auto& out) { renameEntry(in + "/file", out + "/new"); });

        const auto ignored = [&](const char* what, Action action) { row(what, "", false, action); };
        ignored("file written", [](auto& in, auto&) { appendToFile(in + "/file", "more"); });
        ignored("file read", [](auto& in, auto&) { Q_UNUSED(contents(in + "/file")); });
        ignored("mode of a file changed", [](auto& in, auto&) {
            std::filesystem::permissions(in + "/file", std::filesystem::perms::owner_all);
        });

        row("renamed to watched name", "folder", true,
            [](auto& in, auto&) { renameEntry(in + "/other", in + "/folder"); });
        row("watched name renamed", "folder", true,
            [](auto& in, auto&) { renameEntry(in + "/folder", in + "/away"); });
        row("watched name deleted", "folder", true, [](auto& in, auto&) { removeEntry(in + "/folder"); });
        row("folder of the name renamed", "missing", true,
            [](auto& in, auto& out) { renameEntry(in, out + "/elsewhere"); });
        row("folder of the name deleted", "missing", true,
            [](auto& in, auto&) { std::filesystem::remove_all(in); });
        row("longer name created", "folder", false, [](auto& in, auto&) { writeFile(in + "/folder2", {}); });
        row("shorter name created", "folder", false, [](auto& in, auto&) { writeFile(in + "/folde", {}); });
        row("another deleted", "folder", false, [](auto& in, auto&) { removeEntry(in + "/file"); });
    }

    void changesOfNamesCall()
    {
        QFETCH(const std::string, name);
        QFETCH(const bool, isCalled);
        QFETCH(const Action, action);
        const std::string outside = m_scratch->makeFolder("outside");
        for (const std::string& place : {m_folder, outside}) {
            writeFile(place + "/file", "content");
            makeFolder(place + "/folder");
            makeFolder(place + "/other");
        }
        const Watched watched = watch(m_folder, name);
        QCOMPARE(watched.calls(), 0);
        action(m_folder, outside);
        QVERIFY(areChangesDelivered());
        QCOMPARE(watched.calls() > 0, isCalled);
    }

    void overflowCallsEveryone()
    {
        const std::string busy = m_scratch->makeFolder("busy");
        const Watched watched = watch(m_folder);
        const Watched name = watch(m_folder, "name");
        QVERIFY(m_events->isKnownFolder(m_folder));

        // The first call blocks the reading thread while more events happen than the kernel keeps.
        std::promise<void> gate;
        const Watched blocking(*m_events, busy, {}, [opened = gate.get_future().share()] { opened.wait(); });
        writeFile(busy + "/a", {});
        QVERIFY(blocking.isCalled());
        const int queueLength = contents("/proc/sys/fs/inotify/max_queued_events").toInt();
        QVERIFY(queueLength > 0);
        for (int i = 0; i <= queueLength; i += 4) {
            renameEntry(busy + "/a", busy + "/b");
            renameEntry(busy + "/b", busy + "/a");
        }
        QCOMPARE(watched.calls() + name.calls(), 0);
        gate.set_value();
        QVERIFY(watched.isCalled());
        QVERIFY(name.isCalled());
        QVERIFY(!m_events->isKnownFolder(m_folder));
    }

    void endedSourceKeepsTheOthers()
    {
        Watched first = watch(m_folder);
        Watched second = watch(m_folder);
        Watched third = watch(m_folder, "b");
        QCOMPARE(kernelWatchCount(), 1U);

        second.end();
        writeFile(m_folder + "/a", {});
        QVERIFY(areChangesDelivered());
        QCOMPARE(first.calls(), 1);
        QCOMPARE(second.calls(), 0);
        QCOMPARE(third.calls(), 0);

        first.end();
        QCOMPARE(kernelWatchCount(), 1U);
        writeFile(m_folder + "/b", {});
        QVERIFY(areChangesDelivered());
        QCOMPARE(first.calls(), 1);
        QCOMPARE(third.calls(), 1);

        // The last source ends the watch of the kernel. A new watch gets no event of the earlier one.
        third.end();
        QCOMPARE(kernelWatchCount(), 0U);
        const Watched again = watch(m_folder);
        writeFile(m_folder + "/c", {});
        QVERIFY(areChangesDelivered());
        QCOMPARE(third.calls(), 1);
        QCOMPARE(again.calls(), 1);
    }

    void sourceMayEndInItsHandler()
    {
        std::unique_ptr<Watched> watched;
        std::atomic<bool> isReady = false;
        std::atomic<bool> isEnded = false;
        watched = std::make_unique<Watched>(*m_events, m_folder, std::string(), [&] {
            if (!isReady.exchange(false)) return;
            watched.reset();
            isEnded = true;
        });
        isReady = true;
        writeFile(m_folder + "/new", {});
        QVERIFY(eventually([&] { return isEnded.load(); }));
        QVERIFY(areChangesDelivered());
        QCOMPARE(kernelWatchCount(), 0U);
    }

    void sourceThatEndsMeanwhileKeepsANewWatch()
    {
        for (const std::string name : {"", "name"}) {
            const auto work = [&](DirectoryEvents& events, const Notify& notify) {
                Watched first(events, m_folder, {}, [&] {
                    first.end();
                    notify();
                });
                const Watched second(events, m_folder, name);
                return second->isFor(m_folder);
            };
            // After the kernel has found the watch for the second source, the first one ends and removes it.
            QVERIFY2(succeedsAlthough([&] { writeFile(m_folder + "/new " + name, {}); }, 1, work),
                     name.c_str());
        }
    }

    void folderReplacedDuringWatchIsWatchedAgain()
    {
        const auto work = [&](DirectoryEvents& events, const Notify& notify) {
            const Watched first(events, m_folder, {}, notify);
            const Watched second(events, m_folder);
            // The reader may have read the end of the old watch only after the second source was added.
            return eventually([&] { return second->isFor(m_folder) || second.calls() > 0; });
        };
        // The kernel removes the watch, which still has a source, after it has found it for the second one.
        const auto replaceFolder = [this] {
            removeEntry(m_folder);
            makeFolder(m_folder);
        };
        QVERIFY(succeedsAlthough(replaceFolder, 1, work));
    }

    void isForNoFolderWithTheSameInode()
    {
        // Most file systems give the inode of a deleted folder to the next one. Some never do.
        int same = 0;
        for (int i = 0; i < 200; ++i) {
            const Watched watched = watch(m_folder);
            const uint64_t inode = inodeOf(m_folder);
            removeEntry(m_folder);
            makeFolder(m_folder);
            same += inodeOf(m_folder) == inode;
            QVERIFY(!watched->isFor(m_folder));
        }
        // Each source has ended before the events of its deletion were read.
        removeEntry(m_folder);
        QVERIFY(areChangesDelivered());
        QCOMPARE(kernelWatchCount(), 0U);
        qInfo("%d of 200 folders got the inode of the one before", same);
    }

    void replacedFolderIsNoLongerKnown_data()
    {
        QTest::addColumn<bool>("isAncestorReplaced");
        QTest::addColumn<bool>("isNoticed");
        QTest::newRow("itself") << false << true;
        QTest::newRow("a folder above") << true << true;
        QTest::newRow("a folder above, after its subscription") << true << false;
    }

    void replacedFolderIsNoLongerKnown()
    {
        QFETCH(const bool, isAncestorReplaced);
        QFETCH(const bool, isNoticed);
        const std::string folder = m_folder + "/folder";
        makeFolder(folder);
        // A FolderWatch also watches every name on its path.
        Watched above = watch(m_scratch->path(), "watched");
        const Watched middle = watch(m_folder, "folder");
        const Watched old = watch(folder, "name");
        QVERIFY(m_events->isKnownFolder(m_folder));
        QVERIFY(m_events->isKnownFolder(folder));
        QVERIFY(!m_events->isKnownFolder(folder + "/name"));
        const Watched same = watch(folder, "name");
        QCOMPARE(same->descriptor(), old->descriptor());

        if (!isNoticed) {
            above.end();
            QVERIFY(!m_events->isKnownFolder(folder));
        }
        renameEntry(isAncestorReplaced ? m_folder : folder, m_scratch->path() + "/away");
        if (isAncestorReplaced) makeFolder(m_folder);
        makeFolder(folder);
        QVERIFY(areChangesDelivered());
        QVERIFY(!m_events->isKnownFolder(folder));
        const Watched fresh = watch(folder, "name");
        QVERIFY(fresh->descriptor() != old->descriptor());
        writeFile(folder + "/name", {});
        QVERIFY(fresh.isCalled());
    }

    void folderReplacedDuringWatchIsNotKnown()
    {
        constexpr int staleDescriptor = 99;
        const auto work = [&](DirectoryEvents& events, const Notify& notify) {
            const Watched above(events, m_scratch->path(), "watched", notify);
            const Watched watched(events, m_folder, "name");
            return watched->descriptor() != staleDescriptor && !events.isKnownFolder(m_folder);
        };
        // The folder is replaced right after the kernel has found it. The reader notices at once.
        const auto replaceFolder = [this] {
            renameEntry(m_folder, m_scratch->path() + "/away");
            makeFolder(m_folder);
        };
        QVERIFY(succeedsAlthough(replaceFolder, staleDescriptor, work));
    }

    void onlyAFolderCanBeWatched()
    {
        writeFile(m_folder + "/file", {});
        for (const auto& [name, error] : {std::pair("/missing", ENOENT), std::pair("/file", ENOTDIR)}) {
            const Outcome<SourcePointer> watch = m_events->watch(m_folder + name, {});
            QVERIFY(!watch);
            QCOMPARE(watch.error().code, error);
        }
        QCOMPARE(kernelWatchCount(), 0U);
    }

    void threadsMayWatchAtTheSameTime()
    {
        std::atomic<int> wrong = 0;
        {
            const ThreadGroup threads(4, [&](size_t thread) {
                const std::string own = m_scratch->makeFolder(std::to_string(thread));
                for (int i = 0; i < 100 && wrong == 0; ++i) {
                    const Watched mine = watch(own);
                    const Watched shared = watch(m_folder);
                    const Watched name = watch(m_folder, std::to_string(thread));
                    writeFile(own + '/' + std::to_string(i), {});
                    if (!mine.isCalled() || !shared->isFor(m_folder) || !name->isFor(m_folder)) ++wrong;
                }
            });
        }
        QCOMPARE(wrong, 0);
        QVERIFY(eventually([] { return kernelWatchCount() == 0; }));
    }

private:
    using Notify = std::function<void()>;

    /// Runs `work` in a child process. Its second watch gets the answer `descriptor`, after a change of which
    /// the reader of the child has called `notify`. Returns whether `work` returned true.
    [[nodiscard]] bool succeedsAlthough(const std::function<void()>& change, int descriptor,
                                        const std::function<bool(DirectoryEvents&, const Notify&)>& work)
    {
        const ScratchFolder scratch;
        const std::string notified = scratch.path() + "/notified";
        const auto workInChild = [&]() -> Outcome<void> {
            DirectoryEvents events;
            const auto notify = [&] {
                if (!exists(notified)) writeFile(notified, {});
            };
            return work(events, notify) ? Outcome<void>() : SystemError{ESTALE};
        };
        const auto interceptor = [&](const InterceptedCall& call) {
            if (call.ordinal != 2) return Answer::proceed();
            change();
            return eventually([&] { return exists(notified); }) ? Answer::give(descriptor)
                                                                : Answer::fail(EIO);
        };
        return runIntercepted({"inotify_add_watch"}, workInChild, interceptor).succeeded();
    }

    [[nodiscard]] Watched watch(const std::string& path, const std::string& name = {}) const
    {
        return {*m_events, path, name};
    }

    /// Waits until all earlier changes have been delivered. The events of one inotify instance keep their
    /// order. Returns false on timeout.
    [[nodiscard]] bool areChangesDelivered()
    {
        const std::string folder = m_scratch->makeFolder("last " + std::to_string(++m_deliveries));
        const Watched last = watch(folder);
        writeFile(folder + "/file", {});
        return last.isCalled();
    }

    std::unique_ptr<ScratchFolder> m_scratch;
    std::string m_folder;
    std::unique_ptr<DirectoryEvents> m_events;
    int m_deliveries = 0;
};

HARBEX_MAIN(TestDirectoryEvents)
{
    // Every change of the mount table calls every handler. Other tests mount folders at the same time.
    tryPrivateNamespace();
    // Mounts of other tests that were copied into the namespace disappear with their folders.
    const auto hasMountsOfTests = [] { return contents(MountTable::kernelTable).contains("/harbex-"); };
    if (!eventually([&] { return !hasMountsOfTests(); })) qWarning("mounts of other tests stay");
    return runTest<QCoreApplication, TestDirectoryEvents>(argc, argv);
}

#include "tst_DirectoryEvents.moc"
