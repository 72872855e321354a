#pragma once

#include "model/FileUrl.h"
#include "watcher/DirectoryEvents.h"
#include "watcher/EntryPipeline.h"
#include "watcher/WatchedDirectory.h"

#include <QUuid>

#include <atomic>
#include <chrono>
#include <ctime>
#include <memory>
#include <optional>
#include <vector>

namespace harbex
{

/// One watched folder, from start to stop. The folder is identified by its URL: this class watches whatever
/// directory is at that path, and waits while there is none. Its tasks run on its own queue, the folder's
/// queue.
class FolderWatch : public std::enable_shared_from_this<FolderWatch>
{
public:
    using Token = SerialQueue::Token;

    /// The main thread sets `cancelled`, which is final. The folder's queue sets the other states.
    enum class State {
        /// The URL has no directory that can be watched.
        waiting,
        watched,
        cancelled,
    };

    /// Starts to watch the folder at `url`. The label of its queue contains `id`. On a local volume the first
    /// snapshot is complete on return; on a remote volume the folder's queue takes it later. Main thread
    /// only.
    [[nodiscard]] static std::shared_ptr<FolderWatch> start(const EntryPipeline::Services& services,
                                                            const FileUrl& url, const QUuid& id,
                                                            const std::vector<FilterRule>& rules);

    /// Sets the rules for entries that later scans find. Main thread only.
    void setRules(const std::vector<FilterRule>& rules);

    /// Stops the watch: later updates do nothing. Entries found before are still processed. Main thread only.
    void cancel();

    /// Returns the inotify watch descriptor; negative while nothing is watched. Thread-safe.
    [[nodiscard]] int descriptor() const { return m_descriptor; }

private:
    FolderWatch(const EntryPipeline::Services& services, const FileUrl& url, const QUuid& id,
                const std::vector<FilterRule>& rules);

    /// Schedules an update unless one is pending. Thread-safe.
    void requestUpdate();
    /// Schedules an update. Clock::time_point::min() means at once.
    void updateAt(SerialQueue::Clock::time_point when);
    /// Scans the directory if it is watched; tries to open it if the state is `waiting`.
    void update(Token token);
    /// Opens the directory and takes its first snapshot. Call watchPath() before.
    void openDirectory(Token token);
    /// Watches each name on the path, and finds out whether the path is remote. Starts polling if it is. Does
    /// not access remote volumes.
    void watchPath();
    /// Lists the directory and passes its new names to the pipeline.
    void scanForNewFiles(Token token);
    /// Changes the state and m_descriptor. Does nothing to the state `cancelled`.
    void setState(State state);
    void retryLater();
    void pollLater();
    void poll(Token token);
    /// Returns whether a poll must update: no directory is watched, it has changed at this poll or the one
    /// before, its last scan is old, or it cannot be read.
    [[nodiscard]] bool isPollDue();

    const EntryPipeline::Services m_services;
    const std::string m_path;
    const std::string m_name;
    const std::shared_ptr<SerialQueue> m_queue;
    const std::shared_ptr<EntryPipeline> m_pipeline;

    std::atomic<State> m_state = State::waiting;
    std::atomic<int> m_descriptor = -1;
    /// An update is queued and will cover further events.
    std::atomic<bool> m_isUpdatePending = false;
    /// A name on the path has changed since watchPath().
    std::atomic<bool> m_isPathChanged = false;

    // Use on the folder's queue only.
    EntryPipeline::Rules m_rules;
    /// Calls requestUpdate().
    DirectoryEvents::Handler m_handler;
    /// Sets m_isPathChanged, and calls requestUpdate().
    DirectoryEvents::Handler m_pathHandler;
    /// The directory at the URL. Not null in the state `watched`.
    std::shared_ptr<WatchedDirectory> m_directory;
    /// The mount table in which watchPath() looked.
    std::shared_ptr<const MountTable> m_mounts;
    /// One source for each name on the path. They call m_pathHandler.
    std::vector<std::unique_ptr<DirectoryEvents::Source>> m_pathSources;
    /// End of the cooldown: the earliest time of the next update.
    SerialQueue::Clock::time_point m_nextUpdate;
    bool m_isRefusalLogged = false;
    /// The path leads to a remote volume, where other computers change the folder without an event.
    bool m_isRemote = false;
    bool m_isPolling = false;
    SerialQueue::Clock::time_point m_lastScan;
    /// The folder's modification time at the last poll.
    std::optional<timespec> m_lastModified;
    /// The modification time at the last poll differed from the one before.
    bool m_wasChanged = false;
};

} // namespace harbex
