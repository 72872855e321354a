#include "watcher/DownloadImageRedirector.h"

#include "base/ReadableText.h"

#include <QTimer>

#include <chrono>
#include <utility>

namespace harbex
{

namespace
{

/// Time for which log lines are collected before the main thread records them.
constexpr std::chrono::milliseconds logDelay{20};

} // namespace

DownloadImageRedirector::DownloadImageRedirector(QObject* parent)
    : QObject(parent), m_fileMove(m_pool.stopToken())
{
    const auto startDelay = [this] {
        QTimer::singleShot(logDelay, this, &DownloadImageRedirector::runWaitingChanges);
    };
    // A signal without arguments: ThreadSanitizer cannot follow a function object that Qt hands to another
    // thread.
    connect(this, &DownloadImageRedirector::logLinesWait, this, startDelay, Qt::QueuedConnection);
}

DownloadImageRedirector::~DownloadImageRedirector()
{
    m_mainThread.assertHere();
    cancelWatches();
    // The pool's tasks use every other member.
    m_pool.stop();
}

void DownloadImageRedirector::start(const std::vector<WatchedFolder>& folders)
{
    m_mainThread.assertHere();
    if (m_isRunning) return;

    std::map<FileUrl, std::vector<FilterRule>> rules;
    for (const WatchedFolder& folder : folders) {
        std::vector<FilterRule>& all = rules[folder.url];
        all.insert(all.end(), folder.rules.begin(), folder.rules.end());
    }
    // A second start() can come before isRunning() is true. It keeps existing watches: a new snapshot would
    // contain entries that arrived since the first start.
    const auto earlier = std::exchange(m_watches, {});
    m_activeSources.clear();
    for (const WatchedFolder& folder : folders) {
        std::shared_ptr<FolderWatch>& watch = m_watches[folder.url];
        if (const auto found = earlier.find(folder.url); !watch && found != earlier.end()) {
            watch = found->second;
            watch->setRules(rules[folder.url]);
        }
        if (!watch) watch = FolderWatch::start(services(), folder.url, folder.id, rules[folder.url]);
        m_activeSources.push_back(watch);
    }
    for (const auto& [url, watch] : earlier)
        if (!m_watches.contains(url)) watch->cancel();
    runLater([this] {
        setRunning(true);
        appendLog(QStringLiteral("Started watchers."));
    });
}

void DownloadImageRedirector::stop()
{
    m_mainThread.assertHere();
    cancelWatches();
    runLater([this] {
        setRunning(false);
        appendLog(QStringLiteral("Stopped watcher."));
    });
}

void DownloadImageRedirector::restart(std::vector<WatchedFolder> folders)
{
    m_mainThread.assertHere();
    cancelWatches();
    runLater([this, folders = std::move(folders)] {
        setRunning(false);
        appendLog(QStringLiteral("Stopped watcher."));
        start(folders);
    });
}

bool DownloadImageRedirector::isRunning() const
{
    m_mainThread.assertHere();
    return m_isRunning;
}

const QStringList& DownloadImageRedirector::logs() const
{
    m_mainThread.assertHere();
    return m_log.lines();
}

std::vector<int> DownloadImageRedirector::activeFDs() const
{
    m_mainThread.assertHere();
    std::vector<int> descriptors;
    descriptors.reserve(m_activeSources.size());
    for (const auto& watch : m_activeSources)
        if (const int descriptor = watch->descriptor(); descriptor >= 0) descriptors.push_back(descriptor);
    return descriptors;
}

/// Records a line within about 20 ms. Thread-safe.
void DownloadImageRedirector::addLog(const QString& message)
{
    const MutexLock lock(m_waitingMutex);
    m_waitingChanges.emplace_back([this, message] { appendLog(message); });
    // A burst logs thousands of lines. One wake-up per line would cost as much time as the moves.
    if (m_waitingChanges.size() == 1) Q_EMIT logLinesWait(QPrivateSignal());
}

/// Runs `change` in a later iteration of the main loop, after the changes that wait already. Main thread
/// only.
void DownloadImageRedirector::runLater(Change change)
{
    const MutexLock lock(m_waitingMutex);
    m_waitingChanges.push_back(std::move(change));
    QMetaObject::invokeMethod(this, &DownloadImageRedirector::runWaitingChanges, Qt::QueuedConnection);
}

void DownloadImageRedirector::runWaitingChanges()
{
    std::vector<Change> changes;
    {
        const MutexLock lock(m_waitingMutex);
        changes.swap(m_waitingChanges);
    }
    for (const Change& change : changes)
        change();
}

void DownloadImageRedirector::setRunning(bool isRunning)
{
    m_mainThread.assertHere();
    Q_EMIT objectWillChange();
    m_isRunning = isRunning;
    Q_EMIT isRunningChanged(isRunning);
}

void DownloadImageRedirector::appendLog(const QString& message)
{
    m_mainThread.assertHere();
    Q_EMIT objectWillChange();
    m_log.add(message);
    Q_EMIT logsChanged();
}

EntryPipeline::Services DownloadImageRedirector::services()
{
    return {m_pool, m_events, m_fileMove, m_history, [this](const QString& message) { addLog(message); }};
}

void DownloadImageRedirector::cancelWatches()
{
    m_mainThread.assertHere();
    for (const auto& [url, watch] : m_watches)
        watch->cancel();
    m_watches.clear();
    m_activeSources.clear();
}

} // namespace harbex
