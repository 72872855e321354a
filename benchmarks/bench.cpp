// Prints how fast Harbex is, each measure beside a baseline that was timed in the same run. Run it from a
// folder on the disk: the files it needs are made there. Without arguments it measures all; with some, only
// what they name ("scan", "copy", ...).

#include "EngineRig.h"
#include "Growth.h"
#include "Measure.h"
#include "ProcessRig.h"
#include "WindowRig.h"
#include "files/FileMove.h"
#include "files/FreeName.h"
#include "watcher/NameSnapshot.h"

#include <QApplication>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <optional>
#include <string_view>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

using namespace harbex;
using namespace harbex::bench;
using std::filesystem::path;

namespace
{

// The two samplings that every file waits for.
constexpr double waits = 0.30;

double bareListing(const path& folder)
{
    const auto begin = Clock::now();
    const FileDescriptor directory(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    alignas(8) static char buffer[64 * 1024];
    while (::getdents64(directory.get(), buffer, sizeof buffer) > 0) {
    }
    return secondsSince(begin);
}

void measureScan(Table& table)
{
    const ScratchFolder scratch;
    const path folder = scratch.folder("in");
    makeFiles(folder, "IMG_20260", 100'000);
    NameSnapshot known;
    scan(folder, known);

    size_t bytes = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        bytes += entry.path().filename().native().size();
    table.addRatio("memory of a snapshot of 100,000 names / bytes of the names", "bytes",
                   {static_cast<double>(known.capacity()), static_cast<double>(bytes)}, 1.6);

    int number = 0;
    const Pair oneNew = inTurn(
        21, [&] { return bareListing(folder) * 1000; },
        [&] {
            makeFiles(folder, "new" + std::to_string(number++) + "-", 1);
            const auto begin = Clock::now();
            if (scan(folder, known) != 1) std::abort();
            return secondsSince(begin) * 1000;
        });
    table.addRatio("scan of 100,000 entries, one new / getdents64 pass", "ms", oneNew, 1.3);

    const Pair unchanged = inTurn(
        21, [&] { return bareListing(folder) * 1000; },
        [&] {
            const auto begin = Clock::now();
            if (scan(folder, known) != 0) std::abort();
            return secondsSince(begin) * 1000;
        });
    table.addRatio("scan of 100,000 entries, nothing new / getdents64 pass", "ms", unchanged, 1.3);
}

void measureBurst(Table& table)
{
    BurstRig burst(10'000);
    const Pair pair = inTurn(
        5, [&] { return waits + burst.secondsOfBareRenames(); }, [&] { return burst.secondsToMove(); });
    table.addRatio("10,000 files in a burst, last arrival to last move / 0.30 s + renames", "s", pair, 1.5);
}

void measureManyFolders(Table& table)
{
    constexpr int folders = 50;
    constexpr int count = 1000;
    std::vector<double> seconds;
    size_t mostThreads = 0;
    size_t threadsLater = 0;
    for (int round = 0; round < 3; ++round) {
        const ScratchFolder scratch;
        std::vector<std::pair<path, path>> arrivals;
        std::vector<WatchedFolder> watched;
        for (int i = 0; i < folders; ++i) {
            const std::string name = std::to_string(i);
            const auto& [stage, in] =
                arrivals.emplace_back(scratch.folder("stage" + name), scratch.folder("in" + name));
            watched.push_back(picturesRule(in, scratch.folder("out" + name)));
            makeFiles(stage, "photo", count);
        }
        EngineRig rig(watched);
        EngineRig::settle(std::chrono::milliseconds(500));
        for (int i = 0; i < count; ++i)
            for (const auto& [stage, in] : arrivals)
                renameFiles(stage, in, "photo", i + 1, i);
        const auto begin = Clock::now();
        rig.waitForMoved(folders * count);
        seconds.push_back(secondsSince(begin));
        mostThreads = std::max(mostThreads, rig.mostThreads());
        EngineRig::settle(std::chrono::seconds(10));
        threadsLater = std::max(threadsLater, rig.engine().threadCount());
    }
    table.addLimit("1,000 entries in each of 50 folders, last arrival to last move", "s", median(seconds), 2);
    table.addLimit("    threads at most meanwhile", "", static_cast<double>(mostThreads), 64);
    table.addLimit("    threads ten seconds later", "", static_cast<double>(threadsLater), 1);
}

void measureOneFile(Table& table)
{
    const ScratchFolder scratch;
    const path in = scratch.folder("in");
    const path out = scratch.folder("out");
    makeFiles(in, "old", 100'000);
    EngineRig rig({picturesRule(in, out)});
    std::vector<double> seconds;
    for (int i = 1; i <= 5; ++i) {
        EngineRig::settle(std::chrono::milliseconds(500));
        makeFiles(in, "new" + std::to_string(i) + "-", 1);
        const auto begin = Clock::now();
        rig.waitForMoved(i);
        seconds.push_back(secondsSince(begin));
    }
    table.addRatio("one file, arrival to moved, in a folder of 100,000 / 0.30 s", "s",
                   {median(seconds), waits}, 1.15);
}

void measureStart(Table& table)
{
    constexpr int folders = 2000;
    const ScratchFolder scratch;
    const path out = scratch.folder("out");
    std::vector<WatchedFolder> watched;
    for (int i = 0; i < folders; ++i) {
        const path folder = scratch.folder("in/" + std::to_string(i));
        makeFiles(folder, "old", 100);
        watched.push_back(picturesRule(folder, out));
    }
    const Pair pair = inTurn(
        9,
        [&] {
            double seconds = 0;
            for (int i = 0; i < folders; ++i)
                seconds += bareListing(scratch.folder("in/" + std::to_string(i)));
            return seconds * 1000;
        },
        [&] {
            const auto begin = Clock::now();
            const EngineRig rig(watched);
            return secondsSince(begin) * 1000;
        });
    table.addRatio("start with 2,000 folders of 100 entries / listing them", "ms", pair, 2);
}

void measureFreeName(Table& table)
{
    const ScratchFolder scratch;
    const path out = scratch.folder("out");
    makeFiles(out, "photo-", 10'000);
    std::filesystem::rename(out / "photo-0.jpg", out / "photo.jpg");
    std::vector<double> times;
    for (int i = 0; i < 21; ++i) {
        const auto begin = Clock::now();
        if (uniqueDestination("/in/photo.jpg", out.native()) != (out / "photo-10000.jpg").native())
            std::abort();
        times.push_back(secondsSince(begin) * 1000);
    }
    table.addLimit("a free name behind 10,000 taken ones", "ms", median(times), 20);
}

/// From the moment at which the attempts fall due to the end of the last. Nothing on a machine too slow to
/// write to all files within 0.15 second: some pass their first test early then.
std::optional<double> busyRound()
{
    constexpr int count = 1000;
    const ScratchFolder scratch;
    const path stage = scratch.folder("stage");
    const path in = scratch.folder("in");
    makeFiles(stage, "busy", count);
    EngineRig rig({picturesRule(in, scratch.folder("out"))});
    EngineRig::settle(std::chrono::milliseconds(300));

    // Every file grows until its first test has failed, and is done when its attempt comes.
    renameFiles(stage, in, "busy", count);
    const auto arrival = Clock::now();
    for (off_t size = 2; secondsSince(arrival) < 0.5; ++size)
        for (int i = 0; i < count; ++i)
            if (::truncate((in / ("busy" + std::to_string(i) + ".jpg")).c_str(), size) != 0) std::abort();
    if (rig.moved() != 0) return std::nullopt;
    rig.waitForEnded(count);
    if (rig.moved() != count) return std::nullopt;
    // Due at the earliest a second after the first test, which ended 0.15 second after the arrival.
    return secondsSince(arrival) - 1.15;
}

void measureBusy(Table& table)
{
    const std::string what = "1,000 busy entries, attempt due to the end of the last";
    std::vector<double> seconds;
    for (int i = 0; i < 10 && seconds.size() < 3; ++i)
        if (const auto taken = busyRound()) seconds.push_back(*taken);
    if (seconds.size() == 3)
        table.addLimit(what, "s", median(seconds), 0.5);
    else
        table.addImpossible(what, "too slow");
}

void measureCopy(Table& table)
{
    const path memory = "/dev/shm";
    struct stat here;
    struct stat there;
    struct statvfs room;
    // The source lies in memory, the copy on the disk.
    if (::stat(".", &here) != 0 || ::stat(memory.c_str(), &there) != 0 || here.st_dev == there.st_dev ||
        ::statvfs(memory.c_str(), &room) != 0 || room.f_bavail * room.f_frsize < uint64_t(2) << 30U) {
        table.addImpossible("a file of 2 GB to another volume / cp + sync", "no second volume");
        return;
    }
    const ScratchFolder scratch;
    const path out = scratch.folder("out");
    const path source = memory / ("harbex-bench-" + std::to_string(::getpid()));
    const auto run = [](const std::string& command) {
        if (std::system(command.c_str()) != 0) std::abort();
    };
    // Each finds the same: a new file, nothing to be written back, and as much memory as the copy takes that
    // was in use a moment ago. A virtual machine's host may take seconds to give back what was not.
    const auto prepare = [&] {
        const std::string warm = (out / "warm").string();
        run("head -c 2G /dev/urandom > " + source.string());
        run("cp " + source.string() + ' ' + warm + " && sync " + warm + " && rm " + warm + " && sync");
    };
    const Pair pair = inTurn(
        3,
        [&] {
            prepare();
            const std::string target = (out / "copy").string();
            const auto begin = Clock::now();
            run("cp --sparse=auto " + source.string() + ' ' + target + " && sync " + target);
            const double seconds = secondsSince(begin);
            std::filesystem::remove(target);
            return seconds;
        },
        [&] {
            prepare();
            FileMove fileMove;
            const std::string target = (out / "moved").string();
            const auto begin = Clock::now();
            if (!fileMove.moveItem(source.string(), target)) std::abort();
            const double seconds = secondsSince(begin);
            std::filesystem::remove(target);
            return seconds;
        });
    std::filesystem::remove(source);
    table.addRatio("a file of 2 GB to another volume / cp + sync", "s", pair, 1.1);
}

} // namespace

int main(int argc, char** argv)
{
    // The diagnostics of the engine would drown the table, which goes where they came from.
    const int terminal = ::dup(STDOUT_FILENO);
    if (terminal < 0 || !std::freopen("/dev/null", "w", stdout)) return 2;
    stdout = ::fdopen(terminal, "w");

    const QApplication application(argc, argv);
    const std::vector<std::pair<std::string_view, void (*)(Table&)>> all{
        {"scan", measureScan},           {"burst", measureBurst},     {"file", measureOneFile},
        {"folders", measureManyFolders}, {"busy", measureBusy},       {"start", measureStart},
        {"name", measureFreeName},       {"process", measureProcess}, {"window", measureWindow},
        {"copy", measureCopy},           {"growth", measureGrowth}};
    const std::vector<std::string_view> wanted(argv + 1, argv + argc);
    Table table;
    for (const auto& [name, measure] : all)
        if (wanted.empty() || std::ranges::find(wanted, name) != wanted.end()) measure(table);
    return table.allMet() ? 0 : 1;
}
