#include "ProcessRig.h"

#include "ChildProcess.h"
#include "EngineRig.h"
#include "base/FileDescriptor.h"
#include "store/FolderStore.h"

#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace harbex::bench
{

namespace
{

using std::filesystem::path;

/// Returns the command that finds the visible windows of a process. Hides its errors about windows that close
/// meanwhile.
std::string searchForWindow(const ChildProcess& process)
{
    return "xdotool search --onlyvisible --all --pid " + process.id() + " --name . 2> /dev/null ";
}

void waitForWindow(const ChildProcess& process, bool isVisible)
{
    const std::string search = searchForWindow(process) + "> /dev/null";
    for (int tries = 300; (std::system(search.c_str()) == 0) != isVisible; --tries) {
        if (tries == 0) fail("a window", isVisible ? "does not appear" : "does not go away");
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
}

/// Asks the window manager to close the window, like the close button. A key press could arrive late and
/// close the window of the next program.
void closeWindow(const ChildProcess& process)
{
    (void)std::system((searchForWindow(process) + "| xargs wmctrl -i -c").c_str());
    waitForWindow(process, false);
}

/// Returns the sum of the numbers after `key` in a file of /proc.
long sumOf(const path& file, const std::string& key)
{
    std::ifstream in(file);
    long sum = 0;
    for (std::string line; std::getline(in, line);)
        if (line.starts_with(key)) sum += std::strtol(line.c_str() + key.size(), nullptr, 10);
    return sum;
}

bool hasInotifyWatch(const path& proc)
{
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator(proc / "fdinfo", ignored)) {
        std::ifstream in(entry.path());
        for (std::string line; std::getline(in, line);)
            if (line.starts_with("inotify wd:")) return true;
    }
    return false;
}

/// Number of context switches of each thread, by thread ID.
using WakeUps = std::map<std::string, long>;

WakeUps wakeUps(const path& proc)
{
    WakeUps counts;
    for (const auto& task : std::filesystem::directory_iterator(proc / "task"))
        counts[task.path().filename().string()] =
            sumOf(task.path() / "status", "voluntary_ctxt_switches:") +
            sumOf(task.path() / "status", "nonvoluntary_ctxt_switches:");
    return counts;
}

/// Returns the number of context switches since `before`. An ended thread counts as one.
long wakeUpsSince(const WakeUps& before, const path& proc)
{
    const WakeUps now = wakeUps(proc);
    long sum = 0;
    for (const auto& [thread, count] : now)
        sum += count - (before.contains(thread) ? before.at(thread) : 0);
    for (const auto& [thread, count] : before)
        if (!now.contains(thread)) ++sum;
    return sum;
}

/// Kilobytes of memory that only this process has mapped.
struct UniqueMemory {
    double clean = 0;
    /// Modified memory, which cannot be read again from a file.
    double dirty = 0;
};

UniqueMemory uniqueMemory(const ChildProcess& process)
{
    const path file = process.proc() / "smaps_rollup";
    return {static_cast<double>(sumOf(file, "Private_Clean:")),
            static_cast<double>(sumOf(file, "Private_Dirty:"))};
}

void pause(std::chrono::milliseconds time)
{
    std::this_thread::sleep_for(time);
}

/// A configuration with ten watched folders.
class Configuration
{
public:
    Configuration()
    {
        ::setenv("XDG_CONFIG_HOME", m_scratch.folder("config").c_str(), 1);
        FolderState state;
        for (int i = 0; i < 10; ++i)
            state.folders.push_back(
                picturesRule(m_scratch.folder("in" + std::to_string(i)), m_scratch.folder("out")));
        FolderStore().saveState(state);
    }

    [[nodiscard]] path firstFolder() const { return m_scratch.folder("in0"); }

private:
    const ScratchFolder m_scratch;
};

/// Starts a program, closes its window, and waits until background work has ended and the idle threads of the
/// engine have exited, which takes five seconds.
std::unique_ptr<ChildProcess> idleProcess(const char* program)
{
    auto process = std::make_unique<ChildProcess>(program);
    waitForWindow(*process, true);
    closeWindow(*process);
    pause(std::chrono::milliseconds(5500));
    return process;
}

bool canShowWindows(Table& table, const char* what)
{
    if (std::getenv("DISPLAY")) return true;
    table.addImpossible(what, "no display");
    return false;
}

} // namespace

void measureProcessStart(Table& table)
{
    const char* what = "process start to first watched folder, 10 folders";
    if (!canShowWindows(table, what)) return;
    const Configuration configuration;
    std::vector<double> starts;
    for (int i = 0; i < 7; ++i) {
        const auto begin = Clock::now();
        const ChildProcess process(HARBEX_PROGRAM);
        while (!hasInotifyWatch(process.proc()))
            pause(std::chrono::milliseconds(1));
        starts.push_back(secondsSince(begin) * 1000);
    }
    table.addLimit(what, "ms", median(starts), 150);
}

void measureMemory(Table& table)
{
    const char* what = "idle, window closed: unique memory / empty Qt window, icon";
    if (!canShowWindows(table, what)) return;
    const Configuration configuration;
    // One process at a time, because pages that both map would count for neither.
    std::vector<double> dirty;
    std::vector<double> dirtyBaseline;
    const auto total = [](const char* program, std::vector<double>& written) {
        const UniqueMemory memory = uniqueMemory(*idleProcess(program));
        written.push_back(memory.dirty / 1024);
        return (memory.clean + memory.dirty) / 1024;
    };
    const Pair pair = inTurn(
        3, [&] { return total(HARBEX_EMPTY_WINDOW, dirtyBaseline); },
        [&] { return total(HARBEX_PROGRAM, dirty); });
    table.addRatio(what, "MB", pair, 1.15);
    table.addRatio("    of it what was written to", "MB", {median(dirty), median(dirtyBaseline)}, 1.15);
}

void measureIdle(Table& table)
{
    const char* what = "idle for 30 s, window closed: wake-ups";
    if (!canShowWindows(table, what)) return;
    const Configuration configuration;
    const auto harbex = idleProcess(HARBEX_PROGRAM);
    const WakeUps before = wakeUps(harbex->proc());
    pause(std::chrono::seconds(30));
    table.addLimit(what, "", static_cast<double>(wakeUpsSince(before, harbex->proc())), 0);
}

void measureDownload(Table& table)
{
    const char* what = "a download grows 1,000 times: wake-ups";
    if (!canShowWindows(table, what)) return;
    const Configuration configuration;
    const auto harbex = idleProcess(HARBEX_PROGRAM);
    const path download = configuration.firstFolder() / "film.mp4.crdownload";
    const FileDescriptor file(::open(download.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
    pause(std::chrono::seconds(8));
    const WakeUps before = wakeUps(harbex->proc());
    for (int i = 0; i < 1000; ++i)
        if (::write(file.get(), "x", 1) != 1) fail(download.string(), "cannot be written");
    pause(std::chrono::seconds(1));
    table.addLimit(what, "", static_cast<double>(wakeUpsSince(before, harbex->proc())), 0);
}

} // namespace harbex::bench
