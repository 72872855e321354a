// Prints a table of measurements of Harbex, most of them beside a baseline that is measured in the same run.
// Run it in a folder on the disk, because it creates its files there. Arguments select measurements ("scan",
// "copy", ...). Without arguments it runs all.

#include "EngineRig.h"
#include "Growth.h"
#include "Measure.h"
#include "MoverRig.h"
#include "ProcessRig.h"
#include "WindowRig.h"
#include "fs/FileMove.h"
#include "fs/FreeName.h"
#include "store/Bookmark.h"
#include "watcher/EntryPipeline.h"
#include "watcher/NameSnapshot.h"

#include <QApplication>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <map>
#include <optional>
#include <string>
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

// Seconds that every file waits between its samples.
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
                   {static_cast<double>(known.capacity()), static_cast<double>(bytes)}, 1.2);

    int number = 0;
    const Pair oneNew = inTurn(
        21, [&] { return bareListing(folder) * 1000; },
        [&] {
            makeFiles(folder, "new" + std::to_string(number++) + "-", 1);
            const auto begin = Clock::now();
            if (scan(folder, known) != 1) std::abort();
            return secondsSince(begin) * 1000;
        });
    table.addRatio("scan of 100,000 entries, one new / getdents64 pass", "ms", oneNew, 1.2);

    const Pair unchanged = inTurn(
        21, [&] { return bareListing(folder) * 1000; },
        [&] {
            const auto begin = Clock::now();
            if (scan(folder, known) != 0) std::abort();
            return secondsSince(begin) * 1000;
        });
    table.addRatio("scan of 100,000 entries, nothing new / getdents64 pass", "ms", unchanged, 1.2);
}

void measureBurst(Table& table)
{
    BurstRig burst(10'000);
    const Pair pair = inTurn(
        5, [&] { return waits + burst.secondsOfBareRenames(); }, [&] { return burst.secondsToMove(); });
    table.addRatio("10,000 files in a burst, last arrival to last move / 0.30 s + renames", "s", pair, 1.3);
}

void measureOverflow(Table& table)
{
    // Each file causes one event. The count exceeds the limit of the inotify queue.
    int limit = 0;
    std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> limit;
    const int count = limit < 20'000 ? 20'000 : limit + limit / 4;
    BurstRig burst(count);
    const Pair pair = inTurn(
        5, [&] { return waits + burst.secondsOfBareRenames(); },
        [&] { return burst.secondsToMoveAfterStop(); });
    table.addRatio(std::to_string(count) + " files while it is stopped, continued to last move / the same",
                   "s", pair, 2);
}

struct Written {
    /// Seconds from the last arrival to the last move.
    double seconds = 0;
    /// Number of files that were moved so late that they must have had a retry.
    int late = 0;
    /// Like `late`, but only files whose writer was delayed between creation and write for longer than the
    /// engine tolerates. They need a retry.
    int lateHeldUp = 0;
};

/// Creates, writes and closes files one after another in the watched folder.
Written writeFiles(MoverRig& rig, int count)
{
    static const std::string content(4096, 'x');
    MoverRig::rest();
    struct Creation {
        Clock::time_point begin;
        bool isHeldUp = false;
    };
    std::map<std::string, Creation> created;
    for (int i = 0; i < count; ++i) {
        const std::string name = "photo" + std::to_string(i) + ".jpg";
        const path file = rig.in() / name;
        Creation& creation = created[name];
        creation.begin = Clock::now();
        const FileDescriptor opened(::open(file.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0644));
        if (::write(opened.get(), content.data(), content.size()) != static_cast<ssize_t>(content.size()))
            fail(file.string(), "cannot be written");
        creation.isHeldUp = Clock::now() - creation.begin > EntryPipeline::confirmationDelay;
    }
    const auto arrival = Clock::now();
    const std::vector<MoverRig::Move> moves = rig.waitForMoves(static_cast<size_t>(count));
    Written written{.seconds = secondsBetween(arrival, moves.back().at)};
    for (const auto& [name, at] : moves) {
        // A retry starts this long after the failed test. On a busy machine an entry without a retry may also
        // be this late, so `late` may be too high but never too low.
        const Creation& creation = created.at(name);
        if (at - creation.begin > EntryPipeline::retryDelay)
            ++(creation.isHeldUp ? written.lateHeldUp : written.late);
        std::filesystem::remove(rig.out() / name);
    }
    return written;
}

void measureWrites(Table& table)
{
    constexpr int count = 1000;
    MoverRig bare(HARBEX_BARE_MOVER);
    MoverRig own(HARBEX_BENCH_ENGINE);
    int late = 0;
    int lateHeldUp = 0;
    const Pair pair = inTurn(
        7, [&] { return writeFiles(bare, count).seconds; },
        [&] {
            const Written written = writeFiles(own, count);
            late += written.late;
            lateHeldUp += written.lateHeldUp;
            return written.seconds;
        });
    table.addRatio("1,000 files written in place, last to last move / bare mover", "s", pair, 1.1);
    table.addLimit("    of all of them, moved more than a second after creation", "", late, 0);
    table.addFigure("    and of those written more than 10 ms after creation", "", lateHeldUp);
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
        if (round > 0) continue;
        EngineRig::settle(std::chrono::seconds(10));
        threadsLater = rig.engine().threadCount();
    }
    table.addLimit("1,000 entries in each of 50 folders, last arrival to last move", "s", median(seconds), 2);
    table.addLimit("    threads at most meanwhile", "", static_cast<double>(mostThreads), 64);
    table.addLimit("    threads ten seconds later", "", static_cast<double>(threadsLater), 1);
}

/// Measures one file from arrival to move. The baseline is the waiting time plus the result of `baseline`.
Pair oneFile(MoverRig& rig, const std::function<double()>& baseline)
{
    const path stage = rig.folder("stage");
    int number = 0;
    return inTurn(
        9,
        [&] {
            MoverRig::rest();
            return waits + baseline();
        },
        [&] {
            const std::string prefix = "new" + std::to_string(number++) + "-";
            makeFiles(stage, prefix, 1);
            MoverRig::rest();
            const auto begin = Clock::now();
            renameFiles(stage, rig.in(), prefix, 1);
            return secondsBetween(begin, rig.waitForMoves(1).back().at);
        });
}

void measureOneFile(Table& table)
{
    MoverRig small(HARBEX_BENCH_ENGINE, 10);
    table.addRatio("one file, arrival to moved, in a folder of 10 / 0.30 s", "s",
                   oneFile(small, [] { return 0; }), 1.01);
}

void measureOneFileAmongMany(Table& table)
{
    MoverRig large(HARBEX_BENCH_ENGINE, 100'000);
    table.addRatio("    in a folder of 100,000 / 0.30 s + bare listing", "s",
                   oneFile(large, [&] { return bareListing(large.in()); }), 1.05);
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
    table.addRatio("start with 2,000 folders of 100 entries / listing them", "ms", pair, 1.6);
}

/// Lists every folder below `root`, breadth first. Returns the milliseconds and the number of folders.
std::pair<double, size_t> bareWalk(const path& root)
{
    const auto begin = Clock::now();
    std::deque<std::string> waiting{root.native()};
    size_t count = 0;
    for (; !waiting.empty(); waiting.pop_front(), ++count) {
        const std::string& folder = waiting.front();
        const FileDescriptor directory(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        alignas(8) static char buffer[64 * 1024];
        for (ssize_t size; (size = ::getdents64(directory.get(), buffer, sizeof buffer)) > 0;) {
            for (ssize_t offset = 0; offset < size;) {
                const auto* record = reinterpret_cast<const dirent64*>(buffer + offset);
                offset += record->d_reclen;
                if (record->d_type == DT_DIR && record->d_name[0] != '.')
                    waiting.push_back(folder + '/' + record->d_name);
            }
        }
    }
    return {secondsSince(begin) * 1000, count};
}

void measureBookmark(Table& table)
{
    // As many folders as a search lists, in three levels, with some files.
    const SearchBounds usual;
    const ScratchFolder scratch;
    const path home = scratch.folder("home");
    for (size_t i = 0; i + 1 < usual.folders;) {
        const path outer = scratch.folder("home/" + std::to_string(i++));
        for (int inner = 0; inner < 99 && i + 1 < usual.folders; ++inner, ++i)
            std::filesystem::create_directory(outer / ("folder" + std::to_string(i)));
        makeFiles(outer, "photo", 20);
    }
    if (bareWalk(home).second != usual.folders) std::abort();
    const QByteArray usualHome = qgetenv("HOME");
    qputenv("HOME", home.c_str());
    const path lost = scratch.folder("home/lost");
    const auto bookmark = createBookmark(lost.native());
    if (!bookmark || !std::filesystem::remove(lost)) std::abort();

    const auto milliseconds = [&](const SearchBounds& bounds) {
        const auto begin = Clock::now();
        if (!resolveBookmarks({*bookmark}, MountTable(), bounds).empty()) std::abort();
        return secondsSince(begin) * 1000;
    };
    const Pair pair = inTurn(
        9, [&] { return bareWalk(home).first; },
        [&] { return milliseconds({.deadline = Clock::time_point::max(), .folders = usual.folders}); });
    table.addRatio("search of 20,000 folders for a lost one / a bare walk", "ms", pair, 1.5);
    std::vector<double> times;
    for (int i = 0; i < 9; ++i)
        times.push_back(milliseconds({}));
    table.addLimit("    with its deadline", "ms", median(times), 100);
    qputenv("HOME", usualHome);
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

/// Returns the seconds from the time at which the retries are due to the end of the last one. Empty if the
/// machine is too slow to write to all files within 0.15 s, because some files then pass their first test.
std::optional<double> busyRound()
{
    constexpr int count = 1000;
    const ScratchFolder scratch;
    const path stage = scratch.folder("stage");
    const path in = scratch.folder("in");
    makeFiles(stage, "busy", count);
    EngineRig rig({picturesRule(in, scratch.folder("out"))});
    EngineRig::settle(std::chrono::milliseconds(300));

    // Every file grows until its first test has failed, and is complete before its retry.
    renameFiles(stage, in, "busy", count);
    const auto arrival = Clock::now();
    for (off_t size = 2; secondsSince(arrival) < 0.5; ++size)
        for (int i = 0; i < count; ++i)
            if (::truncate((in / ("busy" + std::to_string(i) + ".jpg")).c_str(), size) != 0) std::abort();
    if (rig.moved() != 0) return std::nullopt;
    rig.waitForEnded(count);
    if (rig.moved() != count) return std::nullopt;
    // The first test ends 0.15 s after the arrival, and the retry is due one second later at the earliest.
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
    // The source is in memory, the copy is on the disk.
    if (::stat(".", &here) != 0 || ::stat(memory.c_str(), &there) != 0 || here.st_dev == there.st_dev ||
        ::statvfs(memory.c_str(), &room) != 0 || room.f_bavail * room.f_frsize < uint64_t(2) << 30U) {
        table.addImpossible("a file of 2 GB to another volume / cp + sync + rm", "no second volume");
        return;
    }
    const ScratchFolder scratch;
    const path out = scratch.folder("out");
    const path source = memory / ("harbex-bench-" + std::to_string(::getpid()));
    const auto run = [](const std::string& command) {
        if (std::system(command.c_str()) != 0) std::abort();
    };
    // Both start with a new file, no pending writes, and as much recently used free memory as the copy needs.
    // The host of a virtual machine may take seconds to provide other memory.
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
            run("cp --sparse=auto " + source.string() + ' ' + target + " && sync " + target + " && rm " +
                source.string());
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
    table.addRatio("a file of 2 GB to another volume / cp + sync + rm", "s", pair, 1.1);
}

} // namespace

int main(int argc, char** argv)
{
    // Discards the diagnostics of the engine. The table goes to the original standard output.
    const int terminal = ::dup(STDOUT_FILENO);
    if (terminal < 0 || !std::freopen("/dev/null", "w", stdout)) return 2;
    stdout = ::fdopen(terminal, "w");

    const QApplication application(argc, argv);
    const std::vector<std::pair<std::string_view, void (*)(Table&)>> all{{"scan", measureScan},
                                                                         {"burst", measureBurst},
                                                                         {"writes", measureWrites},
                                                                         {"file", measureOneFile},
                                                                         {"large", measureOneFileAmongMany},
                                                                         {"overflow", measureOverflow},
                                                                         {"folders", measureManyFolders},
                                                                         {"busy", measureBusy},
                                                                         {"start", measureStart},
                                                                         {"bookmark", measureBookmark},
                                                                         {"name", measureFreeName},
                                                                         {"process", measureProcessStart},
                                                                         {"memory", measureMemory},
                                                                         {"idle", measureIdle},
                                                                         {"download", measureDownload},
                                                                         {"window", measureWindow},
                                                                         {"copy", measureCopy},
                                                                         {"growth", measureGrowth}};
    const std::vector<std::string_view> wanted(argv + 1, argv + argc);
    Table table;
    for (const auto& [name, measure] : all)
        if (wanted.empty() || std::ranges::find(wanted, name) != wanted.end()) measure(table);
    return table.allMet() ? 0 : 1;
}
