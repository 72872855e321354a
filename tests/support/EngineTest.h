#pragma once

#include "support/CapturedOutput.h"
#include "support/EngineFiles.h"
#include "support/EngineProbe.h"
#include "support/SyscallInterceptor.h"
#include "support/TestMain.h"

#include <QElapsedTimer>
#include <QObject>

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace harbex::test
{

// Messages of the activity log.

inline const QString started = QStringLiteral("Started watchers.");
inline const QString stopped = QStringLiteral("Stopped watcher.");
/// `target` is the name at the destination; empty if it is the same.
[[nodiscard]] QString moved(const std::string& name, const std::string& target = {});
[[nodiscard]] QString skipped(const std::string& name);
[[nodiscard]] QString moveFailed(const std::string& name, const char* reason);

/// A watched folder with its own destination and its own sentinel. Cases that do not affect each other share
/// one engine, and each has its own inbox: most of their time is waiting.
struct Inbox {
    /// Creates the folders `name` and "`name` out".
    Inbox(const ScratchFolder& scratch, const std::string& name);

    /// Returns the record of the folder. The rule of the sentinel comes before `rules`.
    [[nodiscard]] WatchedFolder with(std::vector<FilterRule> rules) const;

    std::string path;
    std::string out;
    Sentinel sentinel;
};

/// An action of the test right before the engine samples the entry at `path`. `sample` is the number of that
/// statx() call for the path, from 1.
struct SampleAction {
    std::string path;
    int sample;
    std::function<void()> act;
};

/// Base of the engine's test classes. Each test function has a scratch folder with the folders "inbox" and
/// "out", captured standard output, and an engine. A function that waits returns false on timeout.
class EngineTest : public QObject
{
    Q_OBJECT

protected Q_SLOTS:
    void init();

    /// Destroys the engine, and fails if one of its threads or descriptors is left. After each
    /// timeout, it shortens `patience` for the rest of the process.
    void cleanup();

protected:
    /// Returns the path of the entry `name` of the scratch folder.
    [[nodiscard]] std::string at(const std::string& name) const { return m_scratch->path() + '/' + name; }

    /// Creates a folder in the scratch folder and returns its path.
    [[nodiscard]] std::string newFolder(const std::string& name) const { return m_scratch->makeFolder(name); }

    /// Returns the engine. The first call creates it.
    [[nodiscard]] DownloadImageRedirector& engine();

    /// Starts the engine with these folders, and waits until it runs.
    [[nodiscard]] bool start(const std::vector<WatchedFolder>& folders);

    /// Starts the engine with the inbox. The rule of its sentinel comes before `rules`.
    [[nodiscard]] bool start(const std::vector<FilterRule>& rules);

    /// Returns the record of the inbox. The rule of its sentinel comes before `rules`.
    [[nodiscard]] WatchedFolder inboxWith(std::vector<FilterRule> rules) const;

    /// Makes a complete file, or a folder, appear in the inbox. A folder is moved without a delay.
    void arrive(const std::string& name, std::string_view content = {}) const;
    void arriveFolder(const std::string& name) const { makeFolder(m_inbox + '/' + name); }

    /// Returns the messages of the log that contain `text`, without timestamps, oldest first.
    [[nodiscard]] QStringList log(const char* text = "") const;

    /// Waits until the condition is true, and processes events meanwhile.
    [[nodiscard]] static bool waitFor(const std::function<bool()>& condition);

    /// Waits until the log contains this message. Prints the log on timeout.
    [[nodiscard]] bool isLogged(const QString& message) const;

    /// Waits until this folder has exactly these entries. Prints them on timeout.
    [[nodiscard]] static bool hasNames(const std::string& folder, const QByteArrayList& names);

    /// Waits until the engine watches this number of folders.
    [[nodiscard]] bool areWatched(size_t count) const;

    /// Waits until other folders have replaced the watched ones, so that activeFDs() has as many entries as
    /// `before`, but other ones. A folder gets a new descriptor, even if it was watched before.
    [[nodiscard]] bool areReplaced(const std::vector<int>& before) const;

    /// Waits until everything that arrived in the inbox before is processed, see Sentinel.
    [[nodiscard]] bool sentinelPasses() const { return m_sentinel->passes(*m_engine); }
    [[nodiscard]] bool sentinelFoldersPass() const { return m_sentinel->foldersPass(*m_engine); }
    [[nodiscard]] bool sentinelsPass(const std::vector<Inbox>& inboxes) const;

    /// Waits until the engine has found this entry of a watched folder and a rule for it.
    [[nodiscard]] bool isProcessed(const std::string& name) const;

    /// Returns how often the engine has printed this line.
    [[nodiscard]] qsizetype countPrinted(const QByteArray& line) const
    {
        return m_output->lines().count(line);
    }

    /// Runs `work` in a child process and asks `interceptor` about its system calls with these names. `work`
    /// starts its own engine, and returns false on timeout. The run fails with ETIME then.
    [[nodiscard]] InterceptedRun runInChild(const std::vector<std::string>& calls,
                                            const std::function<bool()>& work,
                                            const Interceptor& interceptor);

    /// Runs `work` in a child process with these actions.
    [[nodiscard]] InterceptedRun runInChild(const std::vector<SampleAction>& actions,
                                            const std::function<bool()>& work);

    /// Returns the log of the engine at the end of runInChild().
    [[nodiscard]] QStringList childLog() const;

    std::unique_ptr<ScratchFolder> m_scratch;
    std::unique_ptr<CapturedOutput> m_output;
    std::unique_ptr<Sentinel> m_sentinel;
    std::unique_ptr<DownloadImageRedirector> m_engine;
    std::string m_inbox;
    std::string m_out;
    /// The numbers before the test.
    size_t m_threads = 0;
    size_t m_descriptors = 0;

private:
    QElapsedTimer m_time;
};

} // namespace harbex::test
