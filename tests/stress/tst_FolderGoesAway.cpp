#include "base/FileDescriptor.h"
#include "support/EngineOutput.h"
#include "support/EngineProbe.h"
#include "support/EngineResources.h"
#include "support/PrivateMounts.h"
#include "support/RandomSeed.h"
#include "support/Stress.h"

#include <array>
#include <atomic>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <set>
#include <sys/mount.h>
#include <thread>
#include <unistd.h>

using namespace harbex;
using namespace harbex::test;
namespace fs = std::filesystem;

namespace
{

/// Files that go on appearing under a path, whatever the folder there is and whether there is one.
class Arrivals
{
public:
    explicit Arrivals(std::string folder) : m_folder(std::move(folder)), m_thread([this] { run(); }) {}
    ~Arrivals() { stop(); }
    Arrivals(const Arrivals&) = delete;
    Arrivals& operator=(const Arrivals&) = delete;

    void stop()
    {
        m_stopped = true;
        if (m_thread.joinable()) m_thread.join();
    }

    [[nodiscard]] size_t count() const { return m_count; }

    /// The contents of those that have arrived. Only after stop().
    [[nodiscard]] const std::set<std::string>& contents() const { return m_contents; }

private:
    void run()
    {
        for (int i = 0; !m_stopped; ++i) {
            const std::string content = "<" + std::to_string(i) + ">";
            // Their names meet, so that some get numbers.
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
    std::atomic<bool> m_stopped = false;
    std::thread m_thread;
};

std::unique_ptr<Mount> memoryOver(const std::string& folder)
{
    // Not make_unique: a mount cannot be passed on.
    return std::unique_ptr<Mount>(new Mount(Mount::memory(folder)));
}

enum class Incident { deleted, renamed, replaced, mountedOver, unmounted, pulledOut, destinationPulledOut };

constexpr std::array incidents = {
    std::pair{Incident::deleted, "deleted"},
    std::pair{Incident::renamed, "renamed"},
    std::pair{Incident::replaced, "replaced"},
    std::pair{Incident::mountedOver, "mounted over"},
    std::pair{Incident::unmounted, "unmounted"},
    std::pair{Incident::pulledOut, "pulled out"},
    std::pair{Incident::destinationPulledOut, "destination pulled out"},
};

} // namespace

/// Watched folders that go away in one way or another while entries arrive in them.
class TestFolderGoesAway : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void whileEntriesArrive_data();
    void whileEntriesArrive();

private:
    void oneRound(Incident incident, std::mt19937& random);
};

void TestFolderGoesAway::whileEntriesArrive_data()
{
    QTest::addColumn<int>("incident");
    for (const auto& [incident, name] : incidents)
        QTest::newRow(name) << int(incident);
}

void TestFolderGoesAway::oneRound(Incident incident, std::mt19937& random)
{
    const ScratchFolder scratch;
    const std::string inbox = scratch.makeFolder("inbox");
    const std::string out = scratch.makeFolder("out");
    const std::string other = scratch.makeFolder("other");
    const std::string elsewhere = scratch.path() + "/elsewhere";
    Sentinel sentinel(scratch, other);
    std::unique_ptr<Mount> stick;
    const bool isOnStick = incident == Incident::unmounted || incident == Incident::pulledOut;
    if (isOnStick) stick = memoryOver(inbox);
    if (incident == Incident::destinationPulledOut) stick = memoryOver(out);
    std::unique_ptr<Mount> over;

    const size_t threads = threadCount();
    const size_t descriptors = descriptorCount();
    const std::vector<WatchedFolder> folders = {watched(inbox, {takeAll(out)}),
                                                watched(other, {sentinel.rule()})};
    auto engine = std::make_unique<DownloadImageRedirector>();
    QVERIFY(startAndWait(*engine, folders));
    const std::vector<int> watchedBefore = engine->activeFDs();
    std::set<std::string> arrived;
    {
        Arrivals arrivals(inbox);
        const size_t before = 20 + randomBelow(random, 400);
        QTRY_VERIFY_WITH_TIMEOUT(arrivals.count() >= before, patience);
        switch (incident) {
        case Incident::deleted: {
            std::error_code mayHaveNewFiles;
            while (exists(inbox))
                fs::remove_all(inbox, mayHaveNewFiles);
            break;
        }
        case Incident::renamed:
            renameEntry(inbox, elsewhere);
            break;
        case Incident::replaced:
            renameEntry(inbox, elsewhere);
            makeFolder(inbox);
            break;
        case Incident::mountedOver:
            over = memoryOver(inbox);
            break;
        case Incident::unmounted:
            // As long as files are written there, nobody can.
            arrivals.stop();
            // At rest, when only its reader of events is left and one worker, it holds nothing.
            if (stressSize(false, true) && randomBelow(random, 2) == 0) {
                QTRY_COMPARE_WITH_TIMEOUT(threadCount(), threads + 2, patience);
                QVERIFY(stick->unmount());
            }
            QTRY_VERIFY_WITH_TIMEOUT(!stick->isMounted() || stick->unmount(), patience);
            break;
        case Incident::pulledOut:
        case Incident::destinationPulledOut:
            stick.reset();
            break;
        }
        // It goes on for a while.
        if (incident == Incident::replaced || incident == Incident::mountedOver ||
            incident == Incident::destinationPulledOut) {
            const size_t then = arrivals.count();
            QTRY_VERIFY_WITH_TIMEOUT(arrivals.count() >= then + 20, patience);
        }
        arrivals.stop();
        arrived = arrivals.contents();
    }
    // The engine lives, and has by now ended what it had begun.
    QVERIFY(sentinel.passes(*engine));

    // Whatever folder stands there is watched, and nobody has to ask for it.
    if (!exists(inbox)) makeFolder(inbox);
    if (incident != Incident::destinationPulledOut)
        QTRY_VERIFY_WITH_TIMEOUT(isWatchedAnew(*engine, watchedBefore), patience);
    writeFile(inbox + "/new.png", "new");
    QTRY_COMPARE_WITH_TIMEOUT(contents(out + "/new.png"), QByteArray("new"), patience);
    engine.reset();
    QCOMPARE(threadCount(), threads);
    QCOMPARE(descriptorCount(), descriptors);
    QCOMPARE(kernelWatchCount(), 0U);

    // What did not go away with its volume or folder is there, once.
    over.reset();
    std::multiset<std::string> found;
    for (const std::string& folder : {inbox, out, elsewhere}) {
        if (!exists(folder)) continue;
        for (const auto& entry : fs::directory_iterator(folder)) {
            const std::string content = contents(entry.path().string()).toStdString();
            if (content != "new") found.insert(content);
        }
    }
    for (const std::string& content : found)
        QVERIFY2(found.count(content) == 1 && arrived.contains(content), content.c_str());
    if (incident == Incident::renamed || incident == Incident::replaced)
        QCOMPARE(found.size(), arrived.size());
}

void TestFolderGoesAway::whileEntriesArrive()
{
    QFETCH(const int, incident);
    std::mt19937 random = seededRandom();
    const size_t rounds = stressSize(size_t(1), size_t(40));
    size_t round = 0;
    for (; round < rounds && !QTest::currentTestFailed(); ++round)
        oneRound(Incident(incident), random);
    reportRuns(round);
}

int main(int argc, char** argv)
{
    enterPrivateNamespace();
    reportApartFromStandardOutput();
    const EngineOutput output;
    return runTest<QCoreApplication, TestFolderGoesAway>(argc, argv);
}

#include "tst_FolderGoesAway.moc"
