#include "base/FileDescriptor.h"
#include "support/EngineResources.h"
#include "support/EngineTest.h"
#include "support/PrivateMounts.h"
#include "support/RandomSeed.h"
#include "support/Stress.h"

#include <array>
#include <atomic>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <set>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace harbex;
using namespace harbex::test;
namespace fs = std::filesystem;

namespace
{

/// Creates files under a path, one per millisecond, also while the folder is replaced or missing.
class Arrivals
{
public:
    explicit Arrivals(std::string folder)
        : m_folder(std::move(folder)), m_thread([this](const std::stop_token& stop) { run(stop); })
    {
    }

    void stop() { m_thread = {}; }

    [[nodiscard]] size_t count() const { return m_count; }

    /// Returns the contents of the files that have arrived. Call after stop().
    [[nodiscard]] const std::set<std::string>& contents() const { return m_contents; }

private:
    void run(const std::stop_token& stop)
    {
        for (int i = 0; !stop.stop_requested(); ++i) {
            const std::string content = "<" + std::to_string(i) + ">";
            // Repeated names, so the moved files need numbers.
            const std::string path = m_folder + "/file " + std::to_string(i % 50) + ".jpg";
            const FileDescriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
            if (file && ::write(file.get(), content.data(), content.size()) == ssize_t(content.size())) {
                m_contents.insert(content);
                ++m_count;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }

    const std::string m_folder;
    std::set<std::string> m_contents;
    std::atomic<size_t> m_count = 0;
    std::jthread m_thread;
};

std::unique_ptr<Mount> memoryOver(const std::string& folder)
{
    // Not make_unique: a Mount cannot be moved.
    return std::unique_ptr<Mount>(new Mount(Mount::memory(folder)));
}

/// A watched folder, and what happens to it.
struct Place {
    Place(const ScratchFolder& scratch, const std::string& what)
        : incident(what), inbox(scratch.makeFolder(what)), out(scratch.makeFolder(what + " out")),
          elsewhere(scratch.path() + '/' + what + " elsewhere")
    {
        if (is("unmounted") || is("pulled out")) stick = memoryOver(inbox);
        if (is("destination pulled out")) stick = memoryOver(out);
    }

    [[nodiscard]] bool is(const std::string& what) const { return incident == what; }

    /// Starts the incident. Returns false if an unmount takes too long.
    [[nodiscard]] bool happen()
    {
        std::error_code mayHaveNewFiles;
        while (is("deleted") && exists(inbox))
            fs::remove_all(inbox, mayHaveNewFiles);
        if (is("renamed") || is("replaced")) renameEntry(inbox, elsewhere);
        if (is("replaced")) makeFolder(inbox);
        if (is("mounted over")) over = memoryOver(inbox);
        if (is("pulled out") || is("destination pulled out")) stick.reset();
        if (!is("unmounted")) return true;
        // A scan or a file that is being written keeps the volume busy.
        arrivals->stop();
        return QTest::qWaitFor([this] { return stick->unmount(); }, patience);
    }

    /// Returns the contents of all files.
    [[nodiscard]] std::multiset<std::string> files() const
    {
        std::multiset<std::string> found;
        for (const std::string& folder : {inbox, out, elsewhere}) {
            if (!exists(folder)) continue;
            for (const auto& entry : fs::directory_iterator(folder))
                found.insert(contents(entry.path().string()).toStdString());
        }
        return found;
    }

    const std::string incident;
    const std::string inbox;
    const std::string out;
    const std::string elsewhere;
    std::unique_ptr<Mount> stick;
    std::unique_ptr<Mount> over;
    std::unique_ptr<Arrivals> arrivals;
};

} // namespace

/// Watched folders that go away in one way or another while entries arrive in them.
class TestFolderGoesAway : public EngineTest
{
    Q_OBJECT

private Q_SLOTS:
    void whileEntriesArrive()
    {
        std::mt19937 random = seededRandom();
        const size_t rounds = stressSize(size_t(1), size_t(40));
        size_t round = 0;
        for (; round < rounds && !QTest::currentTestFailed(); ++round)
            oneRound(random);
        reportRuns(round * incidents.size());
    }

private:
    void oneRound(std::mt19937& random)
    {
        const ScratchFolder scratch;
        std::vector<std::unique_ptr<Place>> places;
        std::vector<WatchedFolder> folders;
        for (const char* incident : incidents) {
            places.push_back(std::make_unique<Place>(scratch, incident));
            folders.push_back(watched(places.back()->inbox, {takeAll(places.back()->out)}));
        }
        folders.push_back(inboxWith({}));
        QVERIFY(start(folders));
        const std::vector<int> watchedBefore = engine().activeFDs();

        for (const auto& place : places)
            place->arrivals = std::make_unique<Arrivals>(place->inbox);
        for (const auto& place : places) {
            const size_t before = 20 + randomBelow(random, 400);
            QTRY_VERIFY_WITH_TIMEOUT(place->arrivals->count() >= before, patience);
            QVERIFY2(place->happen(), place->incident.c_str());
        }
        // Entries continue to arrive where a folder is left.
        for (const auto& place : places) {
            const size_t then = place->arrivals->count();
            if (place->is("replaced") || place->is("mounted over") || place->is("destination pulled out"))
                QTRY_VERIFY_WITH_TIMEOUT(place->arrivals->count() >= then + 20, patience);
            place->arrivals->stop();
        }
        // The engine still works, and has ended the moves that it had begun.
        QVERIFY(sentinelPasses());

        // The folder that is now at the path is watched without a restart.
        for (const auto& place : places)
            if (!exists(place->inbox)) makeFolder(place->inbox);
        for (size_t i = 0; i < places.size(); ++i) {
            const auto isWatched = [&] {
                const std::vector<int> now = engine().activeFDs();
                return now.size() == watchedBefore.size() &&
                       (now[i] != watchedBefore[i] || places[i]->is("destination pulled out"));
            };
            QVERIFY2(waitFor(isWatched), incidents[i]);
            writeFile(places[i]->inbox + "/new.png", "new");
        }
        for (const auto& place : places)
            QTRY_COMPARE_WITH_TIMEOUT(contents(place->out + "/new.png"), QByteArray("new"), patience);
        m_engine.reset();
        QCOMPARE(kernelWatchCount(), 0U);

        // Every file that did not disappear with its volume or folder exists once.
        for (const auto& place : places) {
            place->over.reset();
            std::multiset<std::string> found = place->files();
            found.erase("new");
            const std::set<std::string>& arrived = place->arrivals->contents();
            for (const std::string& content : found)
                QVERIFY2(found.count(content) == 1 && arrived.contains(content),
                         (place->incident + ' ' + content).c_str());
            if (place->is("renamed") || place->is("replaced")) QCOMPARE(found.size(), arrived.size());
        }
    }

    static constexpr std::array incidents = {"deleted",
                                             "renamed",
                                             "replaced",
                                             "mounted over",
                                             "unmounted",
                                             "pulled out",
                                             "destination pulled out"};
};

HARBEX_MAIN(TestFolderGoesAway)
{
    enterPrivateNamespace();
    return runTest<QCoreApplication, TestFolderGoesAway>(argc, argv);
}

#include "tst_FolderGoesAway.moc"
