#pragma once

#include "base/Mutex.h"
#include "fs/FileMove.h"
#include "model/WatchedFolder.h"
#include "watcher/ActivityLog.h"
#include "watcher/DirectoryEvents.h"
#include "watcher/FolderWatch.h"
#include "watcher/MoveHistory.h"
#include "watcher/SerialQueue.h"

#include <QObject>
#include <QStringList>

#include <functional>
#include <map>
#include <memory>
#include <vector>

namespace harbex
{

/// The engine: watches folders and moves new entries of any kind according to the rules of each folder. The
/// process has one instance. Main thread only.
///
/// start() and restart() open and list folders on local volumes on the main thread. Worker threads open
/// folders on remote volumes, and do all scans and moves. The destructor cancels running copies, whose
/// sources stay.
class DownloadImageRedirector : public QObject
{
    Q_OBJECT
    Q_PROPERTY(bool isRunning READ isRunning NOTIFY isRunningChanged)
    Q_PROPERTY(QStringList logs READ logs NOTIFY logsChanged)

public:
    explicit DownloadImageRedirector(QObject* parent = nullptr);
    ~DownloadImageRedirector() override;

    /// Starts to watch these folders. Does nothing if isRunning(). Existing entries stay where they are. The
    /// engine waits for a folder that is missing or that it may not read. It logs a folder that inotify
    /// refuses to watch. Records with the same URL share one watch, which uses their rules in the order of
    /// the records. isRunning() becomes true in a later iteration of the main loop.
    void start(const std::vector<WatchedFolder>& folders);

    /// Stops all watches and discards their snapshots. Entries that were found before are still processed.
    /// isRunning() becomes false in a later iteration of the main loop; start() before that does nothing.
    void stop();

    /// Stops at once, if running. Starts with these folders in a later iteration of the main loop. Entries
    /// that arrive between the two stay.
    void restart(std::vector<WatchedFolder> folders);

    /// Returns whether the engine runs. Changes only in the main loop, see start() and stop().
    [[nodiscard]] bool isRunning() const;

    /// Returns the activity log, newest first: at most 200 lines "[HH:mm:ss] message".
    [[nodiscard]] const QStringList& logs() const;

    /// Returns the inotify watch descriptors of the records whose folders are watched now, in the order of
    /// the records.
    [[nodiscard]] std::vector<int> activeFDs() const;

    /// Returns the number of worker threads, idle ones included. The thread that reads events does not count.
    [[nodiscard]] std::size_t threadCount() { return m_pool.threadCount(); }

Q_SIGNALS:
    /// Emitted before each change of isRunning() or logs().
    void objectWillChange();
    void isRunningChanged(bool isRunning);
    void logsChanged();
    /// Internal. Emitted by the thread that adds the first waiting line.
    void logLinesWait(QPrivateSignal);

private:
    using Change = std::function<void()>;

    void addLog(const QString& message);
    void runLater(Change change);
    void runWaitingChanges();
    void setRunning(bool isRunning);
    void appendLog(const QString& message);
    [[nodiscard]] EntryPipeline::Services services();
    void cancelWatches();

    const ThreadRole m_mainThread;

    Mutex m_waitingMutex;
    /// Changes that wait for the main loop.
    std::vector<Change> m_waitingChanges GUARDED_BY(m_waitingMutex);

    bool m_isRunning GUARDED_BY(m_mainThread) = false;
    ActivityLog m_log GUARDED_BY(m_mainThread);

    // Order matters: a member may use the ones above it. The destructor stops the pool's tasks first.
    WorkerPool m_pool;
    FileMove m_fileMove;
    MoveHistory m_history;
    DirectoryEvents m_events;
    /// One watch per URL: records with the same URL share its snapshot.
    std::map<FileUrl, std::shared_ptr<FolderWatch>> m_watches GUARDED_BY(m_mainThread);
    /// The watch of each record, in the order of the records. Records with the same URL have the same watch.
    std::vector<std::shared_ptr<FolderWatch>> m_activeSources GUARDED_BY(m_mainThread);
};

} // namespace harbex
