#include "ProcessRig.h"

#include "EngineRig.h"
#include "store/FolderStore.h"

#include <QProcess>

#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <functional>
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

/// A program that runs until the end of this object.
class Running
{
public:
    explicit Running(const char* program)
    {
        m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        m_process.setStandardOutputFile(QProcess::nullDevice());
        m_process.start(QString::fromUtf8(program), QStringList());
        if (!m_process.waitForStarted()) std::abort();
    }
    ~Running()
    {
        m_process.terminate();
        m_process.waitForFinished();
    }
    Running(const Running&) = delete;
    Running& operator=(const Running&) = delete;

    [[nodiscard]] path proc() const { return "/proc/" + std::to_string(m_process.processId()); }

    void waitForWindow() const
    {
        waitUntil([this] { return isWindowVisible(); });
    }

    /// Asks the window manager to close its window, as the button in the title does. A key could come late
    /// and close the window of the next program.
    void closeWindow() const
    {
        (void)std::system((search() + "| xargs wmctrl -i -c").c_str());
        waitUntil([this] { return !isWindowVisible(); });
    }

private:
    /// The command that finds its window if it can be seen. It complains of windows that vanish meanwhile.
    [[nodiscard]] std::string search() const
    {
        return "xdotool search --onlyvisible --all --pid " + std::to_string(m_process.processId()) +
               " --name . 2> /dev/null ";
    }

    [[nodiscard]] bool isWindowVisible() const
    {
        return std::system((search() + "> /dev/null").c_str()) == 0;
    }

    /// Ends the benchmark when nothing happens for half a minute.
    static void waitUntil(const std::function<bool()>& isTrue)
    {
        for (int tries = 300; !isTrue(); --tries) {
            if (tries == 0) std::abort();
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
    }

    QProcess m_process;
};

/// The sum of the numbers behind `key` in a file of /proc.
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

/// How often each thread of a process was put on a processor since it began, by its number.
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

/// Of the process since then. A thread that ended was woken to do so.
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

/// Megabytes of the process, by a key of smaps_rollup.
double memory(const Running& running, const std::string& key)
{
    return static_cast<double>(sumOf(running.proc() / "smaps_rollup", key)) / 1024;
}

void pause(std::chrono::milliseconds time)
{
    std::this_thread::sleep_for(time);
}

} // namespace

void measureProcess(Table& table)
{
    if (!std::getenv("DISPLAY")) {
        table.addImpossible("the program as a process", "no display");
        return;
    }
    const ScratchFolder scratch;
    ::setenv("XDG_CONFIG_HOME", scratch.folder("config").c_str(), 1);
    FolderState state;
    for (int i = 0; i < 10; ++i)
        state.folders.push_back(
            picturesRule(scratch.folder("in" + std::to_string(i)), scratch.folder("out")));
    FolderStore().saveState(state);

    std::vector<double> starts;
    for (int i = 0; i < 7; ++i) {
        const auto begin = Clock::now();
        const Running running(HARBEX_PROGRAM);
        while (!hasInotifyWatch(running.proc()))
            pause(std::chrono::milliseconds(1));
        starts.push_back(secondsSince(begin) * 1000);
    }
    table.addLimit("process start to first watched folder, 10 folders", "ms", median(starts), 150);

    // In turn, each as a new process: what a start leaves to be done in the background has ended, and idle
    // threads are gone.
    const auto runIdle = [](const char* program) {
        auto running = std::make_unique<Running>(program);
        running->waitForWindow();
        running->closeWindow();
        pause(std::chrono::seconds(15));
        return running;
    };
    struct Memory {
        std::vector<double> resident;
        std::vector<double> dirty;

        void add(const Running& running)
        {
            resident.push_back(memory(running, "Rss:"));
            dirty.push_back(memory(running, "Private_Dirty:"));
        }
    };
    Memory own;
    Memory baseline;
    for (int i = 0; i < 3; ++i) {
        baseline.add(*runIdle(HARBEX_EMPTY_WINDOW));
        own.add(*runIdle(HARBEX_PROGRAM));
    }
    table.addRatio("idle, window closed: resident memory / empty Qt window, icon", "MB",
                   {median(own.resident), median(baseline.resident)}, 1.15);
    table.addRatio("    of it what no file backs", "MB", {median(own.dirty), median(baseline.dirty)}, 1.15);

    const auto harbex = runIdle(HARBEX_PROGRAM);
    const WakeUps before = wakeUps(harbex->proc());
    pause(std::chrono::seconds(30));
    table.addLimit("idle for 30 s, window closed: wake-ups", "",
                   static_cast<double>(wakeUpsSince(before, harbex->proc())), 0);

    const path download = scratch.folder("in0") / "film.mp4.crdownload";
    const FileDescriptor file(::open(download.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
    pause(std::chrono::seconds(8));
    const WakeUps beforeGrowth = wakeUps(harbex->proc());
    for (int i = 0; i < 1000; ++i)
        if (::write(file.get(), "x", 1) != 1) std::abort();
    pause(std::chrono::seconds(1));
    table.addLimit("a download grows 1,000 times: wake-ups", "",
                   static_cast<double>(wakeUpsSince(beforeGrowth, harbex->proc())), 0);
}

} // namespace harbex::bench
