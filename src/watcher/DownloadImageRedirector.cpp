#include "watcher/DownloadImageRedirector.h"

#include "base/ReadableText.h"

#include <QTimer>

#include <chrono>
#include <utility>

namespace harbex
{

namespace
{

/// How long lines of the log are gathered before they are recorded.
constexpr std::chrono::milliseconds logDelay{5};

} // namespace

DownloadImageRedirector::DownloadImageRedirector(QObject* parent)
    : QObject(parent), m_fileMove(m_pool.stopToken())
{
}

DownloadImageRedirector::~DownloadImageRedirector()
{
    m_mainThread.assertHere();
    cancelSources();
    // Its tasks use every other member.
    m_pool.stop();
}

void DownloadImageRedirector::start(const std::vector<WatchedFolder>& folders)
{
    m_mainThread.assertHere();
    if (m_isRunning) return;

    // isRunning() turns true only in a later turn. Whoever starts twice before it gets one watch for each
    // folder all the same.
    cancelSources();
    for (const WatchedFolder& folder : folders)
        watch(folder);
    publish([this] {
        setRunning(true);
        appendLog(QStringLiteral("Started watchers."));
    });
}

void DownloadImageRedirector::stop()
{
    m_mainThread.assertHere();
    cancelSources();
    m_knownItemsByFolder.clear();
    publish([this] {
        setRunning(false);
        appendLog(QStringLiteral("Stopped watcher."));
    });
}

void DownloadImageRedirector::restart(std::vector<WatchedFolder> folders)
{
    m_mainThread.assertHere();
    cancelSources();
    m_knownItemsByFolder.clear();
    publish([this, folders = std::move(folders)] {
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
    for (const auto& source : m_activeSources)
        descriptors.push_back(source->descriptor());
    return descriptors;
}

/// Records a line. Any thread.
void DownloadImageRedirector::addLog(const QString& message)
{
    const MutexLock lock(m_publishedMutex);
    m_published.push_back([this, message] { appendLog(message); });
    if (m_published.size() > 1) return;
    // A burst logs thousands of lines. Waking the main loop for each costs as much as half a move.
    const auto runLater = [this] { QTimer::singleShot(logDelay, this, [this] { runPublished(); }); };
    QMetaObject::invokeMethod(this, runLater, Qt::QueuedConnection);
}

/// Has `change` run in the next turn of the main loop, after all that waits already. Any thread.
void DownloadImageRedirector::publish(Change change)
{
    const MutexLock lock(m_publishedMutex);
    m_published.push_back(std::move(change));
    QMetaObject::invokeMethod(this, &DownloadImageRedirector::runPublished, Qt::QueuedConnection);
}

void DownloadImageRedirector::runPublished()
{
    std::vector<Change> changes;
    {
        const MutexLock lock(m_publishedMutex);
        changes.swap(m_published);
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

void DownloadImageRedirector::watch(const WatchedFolder& folder)
{
    m_mainThread.assertHere();
    const auto source = std::make_shared<FolderWatch>(folder, m_pool, m_fileMove,
                                                      [this](const QString& message) { addLog(message); });

    const auto found = m_knownItemsByFolder.find(folder.url);
    // Before the listing: what arrives after it is told, so that no folder needs to be listed twice.
    const Outcome<void> opened = source->open(m_events);
    const auto known = source->list(found == m_knownItemsByFolder.end() ? nullptr : found->second);
    if (!known) return;
    m_knownItemsByFolder.insert_or_assign(folder.url, *known);

    if (!opened) {
        addLog(QStringLiteral("Failed to open folder: ") + readableName(folder.url.lastPathComponent()));
        return;
    }
    source->begin();
    m_activeSources.push_back(source);
}

void DownloadImageRedirector::cancelSources()
{
    m_mainThread.assertHere();
    for (const auto& source : m_activeSources)
        source->cancel();
    m_activeSources.clear();
}

} // namespace harbex
