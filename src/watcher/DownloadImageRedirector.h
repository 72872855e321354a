#pragma once

#include "base/Mutex.h"
#include "fs/FileMove.h"
#include "model/WatchedFolder.h"
#include "watcher/ActivityLog.h"
#include "watcher/DirectoryEvents.h"
#include "watcher/FolderWatch.h"
#include "watcher/MoveHistory.h"
#include "watcher/WorkerPool.h"

#include <QObject>
#include <QStringList>

#include <functional>
#include <map>
#include <memory>
#include <vector>

namespace harbex
{

/// The engine: watches folders and moves what newly arrives in them as their rules say. One for the life of
/// the process. Every public function belongs to the main thread. start() and restart() list each folder on a
/// local volume once there; everything else is done on other threads. Destroying it ends everything: a copy
/// under way is given up and its source stays.
class DownloadImageRedirector : public QObject
{
    Q_OBJECT
    Q_PROPERTY(bool isRunning READ isRunning NOTIFY isRunningChanged)
    Q_PROPERTY(QStringList logs READ logs NOTIFY logsChanged)

public:
    explicit DownloadImageRedirector(QObject* parent = nullptr);
    ~DownloadImageRedirector() override;

    /// Begins to watch these folders, unless isRunning() already. What is in them now stays where it is. A
    /// folder that is not there is waited for; one that the system refuses to watch is logged. Records of one
    /// URL are one folder, with the rules of all of them in their order. isRunning() turns true in a later
    /// turn of the main loop.
    void start(const std::vector<WatchedFolder>& folders);

    /// Ends all watching and forgets what was seen. isRunning() turns false in a later turn of the main loop.
    void stop();

    /// Stops, and starts again with these folders in a later turn of the main loop.
    void restart(std::vector<WatchedFolder> folders);

    [[nodiscard]] bool isRunning() const;

    /// What was done, newest first: at most 200 lines "[HH:mm:ss] message".
    [[nodiscard]] const QStringList& logs() const;

    /// The descriptors of the records whose folders are watched at this moment, in the order of the records.
    [[nodiscard]] std::vector<int> activeFDs() const;

    /// How many threads work for the engine now, the one that reads events left out.
    [[nodiscard]] std::size_t threadCount() { return m_pool.threadCount(); }

Q_SIGNALS:
    /// Comes before every change of isRunning() or logs().
    void objectWillChange();
    void isRunningChanged(bool isRunning);
    void logsChanged();

private:
    using Change = std::function<void()>;

    void addLog(const QString& message);
    void publish(Change change);
    void runPublished();
    void setRunning(bool isRunning);
    void appendLog(const QString& message);
    [[nodiscard]] EntryPipeline::Services services();
    void cancelSources();

    const ThreadRole m_mainThread;

    Mutex m_publishedMutex;
    /// Changes that wait for a turn of the main loop.
    std::vector<Change> m_published GUARDED_BY(m_publishedMutex);

    bool m_isRunning GUARDED_BY(m_mainThread) = false;
    ActivityLog m_log GUARDED_BY(m_mainThread);

    // In this order: the folders use the pool, whose tasks use the others.
    WorkerPool m_pool;
    FileMove m_fileMove;
    MoveHistory m_history;
    DirectoryEvents m_events;
    /// One watch for each URL: records of one folder share its snapshot.
    std::map<FileUrl, std::shared_ptr<FolderWatch>> m_watches GUARDED_BY(m_mainThread);
    /// The watch of each record, in the order of the records.
    std::vector<std::shared_ptr<FolderWatch>> m_activeSources GUARDED_BY(m_mainThread);
};

} // namespace harbex
