#include "watcher/FolderWatch.h"

#include "base/ReadableText.h"
#include "fs/DirectoryListing.h"
#include "model/FolderListJson.h"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace harbex
{

namespace
{

using namespace std::chrono_literals;
using Clock = SerialQueue::Clock;

/// Cooldown after a scan: three times the duration of the scan, at most maximumCooldown. A burst causes one
/// event per arrival and per departure. A scan for each event would load a processor and lock the directory
/// against the moves.
constexpr int cooldownFactor = 3;
constexpr auto maximumCooldown = 250ms;

/// Poll interval for folders whose file system reports no changes by others.
constexpr auto pollInterval = 2s;
/// Maximum time between two scans of a remote folder, because a server may keep no modification times.
constexpr auto maximumPollAge = 30s;

/// Delay before the retry of an update that failed for lack of descriptors or memory.
constexpr auto shortageDelay = 1s;

/// Returns whether descriptors or memory are exhausted. Such an error says nothing about the folder.
bool isShortage(SystemError error)
{
    return error.code == EMFILE || error.code == ENFILE || error.code == ENOMEM;
}

/// Returns whether the watched directory is no longer at its path.
bool isGone(SystemError error)
{
    return error.code == ENOENT || error.code == ENOTDIR || error.code == ELOOP;
}

EntryPipeline::Rules matchable(const std::vector<FilterRule>& rules)
{
    return std::make_shared<const std::vector<MatchableRule>>(rules.begin(), rules.end());
}

} // namespace

std::shared_ptr<FolderWatch> FolderWatch::start(const EntryPipeline::Services& services, const FileUrl& url,
                                                const QUuid& id, const std::vector<FilterRule>& rules)
{
    const std::shared_ptr<FolderWatch> watch(new FolderWatch(services, url, id, rules));
    // Weak pointers, because the handlers must not keep their owner alive.
    watch->m_handler = std::make_shared<const std::function<void()>>([weak = watch->weak_from_this()] {
        if (const auto self = weak.lock()) self->requestUpdate();
    });
    watch->m_pathHandler = std::make_shared<const std::function<void()>>([weak = watch->weak_from_this()] {
        const auto self = weak.lock();
        if (!self) return;
        self->m_isPathChanged = true;
        self->requestUpdate();
    });
    watch->m_queue->runHere([watch](Token token) {
        // Never waits for a server: it ends at the first remote mount on the path.
        watch->watchPath();
        if (watch->m_isRemote)
            watch->requestUpdate();
        else
            watch->openDirectory(token);
    });
    return watch;
}

FolderWatch::FolderWatch(const EntryPipeline::Services& services, const FileUrl& url, const QUuid& id,
                         const std::vector<FilterRule>& rules)
    : m_services(services), m_path(url.path()), m_name(url.lastPathComponent()),
      m_queue(services.pool.makeQueue("harbex.watcher." + uuidText(id).toStdString())),
      m_pipeline(std::make_shared<EntryPipeline>(services, m_queue)), m_rules(matchable(rules))
{
}

void FolderWatch::setRules(const std::vector<FilterRule>& rules)
{
    m_queue->async([self = shared_from_this(), rules = matchable(rules)](Token) { self->m_rules = rules; });
}

void FolderWatch::cancel()
{
    m_state = State::cancelled;
    m_descriptor = -1;
    // On the queue, because these members may be in use there, and a remote server can block the queue.
    m_queue->async([self = shared_from_this()](Token) {
        self->m_directory.reset();
        self->m_pathSources.clear();
    });
}

void FolderWatch::setState(State state)
{
    // The main thread may have set `cancelled`, which is final.
    State expected = state == State::watched ? State::waiting : State::watched;
    m_state.compare_exchange_strong(expected, state);
    m_descriptor = m_state == State::watched ? m_directory->descriptor() : -1;
}

void FolderWatch::requestUpdate()
{
    if (!m_isUpdatePending.exchange(true)) updateAt(Clock::time_point::min());
}

void FolderWatch::updateAt(Clock::time_point when)
{
    auto update = [self = shared_from_this()](Token token) { self->update(token); };
    if (when == Clock::time_point::min())
        m_queue->async(std::move(update));
    else
        m_queue->asyncAt(when, std::move(update));
}

void FolderWatch::update(Token token)
{
    if (Clock::now() < m_nextUpdate) return updateAt(m_nextUpdate);
    // Reset before the scan: the scan may miss a later change, which then needs another update.
    m_isUpdatePending = false;
    if (m_state == State::watched) {
        // The path may lead to the same directory on another way, for example through a new link.
        if (m_isPathChanged || *m_mounts != *m_services.events.mounts()) watchPath();
        scanForNewFiles(token);
    }
    if (m_state == State::waiting) {
        // Watch the path first: a change of the path after this line requests another update.
        watchPath();
        openDirectory(token);
    }
}

void FolderWatch::openDirectory(Token)
{
    m_lastModified.reset();
    auto opened = WatchedDirectory::open(m_services.events, m_services.history, m_path, m_handler);
    if (opened) {
        m_directory = *std::move(opened);
        m_isRefusalLogged = false;
        m_lastScan = Clock::now();
        setState(State::watched);
    } else {
        if (opened.error().isWatchRefused && !std::exchange(m_isRefusalLogged, true))
            m_services.addLog(QStringLiteral("Failed to open folder: ") + readableName(m_name));
        if (isShortage(opened.error().error)) retryLater();
    }
    // If the mount table changed before this folder had a source, no handler was called.
    if (*m_mounts != *m_services.events.mounts()) requestUpdate();
}

void FolderWatch::watchPath()
{
    m_isPathChanged = false;
    m_mounts = m_services.events.mounts();
    std::vector<std::unique_ptr<DirectoryEvents::Source>> sources;
    const auto watchName = [&](const std::string& folder, const std::string& name, const std::string& path) {
        // A failure is not an error: the engine then does not notice changes of this name.
        if (auto source = m_services.events.watch(folder, m_pathHandler, name))
            sources.push_back(*std::move(source));
        return m_services.events.isKnownFolder(path);
    };
    m_isRemote = m_mounts->follow(m_path, watchName).has_value();
    m_queue->setMayBlock(m_isRemote);
    if (m_isRemote && !std::exchange(m_isPolling, true)) pollLater();
    // Replace the old sources last: folders in both lists stay watched without a gap.
    m_pathSources.swap(sources);
}

void FolderWatch::scanForNewFiles(Token token)
{
    m_lastScan = Clock::now();
    Outcome<std::vector<std::string>> names = m_directory->takeNewNames(token);
    const Clock::time_point end = Clock::now();
    m_nextUpdate = end + std::min<Clock::duration>(cooldownFactor * (end - m_lastScan), maximumCooldown);
    if (names) {
        if (m_state == State::watched) m_pipeline->begin(token, m_directory, m_rules, *std::move(names));
    } else if (isGone(names.error())) {
        m_directory.reset();
        setState(State::waiting);
    } else if (isShortage(names.error())) {
        // The event is consumed and there may be no further one.
        retryLater();
    }
}

void FolderWatch::retryLater()
{
    if (!m_isUpdatePending.exchange(true)) updateAt(Clock::now() + shortageDelay);
}

void FolderWatch::pollLater()
{
    m_queue->asyncAt(Clock::now() + pollInterval,
                     [self = shared_from_this()](Token token) { self->poll(token); });
}

void FolderWatch::poll(Token token)
{
    m_isPolling = m_isRemote && m_state != State::cancelled;
    if (!m_isPolling) return;
    if (isPollDue()) update(token);
    pollLater();
}

bool FolderWatch::isPollDue()
{
    if (m_state == State::waiting) return true;
    // If this fails, the update handles the failure.
    const Outcome<DirectoryListing> listing = DirectoryListing::open(m_path);
    if (!listing) return true;
    const Outcome<timespec> modified = listing->modificationTime();
    if (!modified) return true;
    const bool isChanged = !m_lastModified || m_lastModified->tv_sec != modified->tv_sec ||
                           m_lastModified->tv_nsec != modified->tv_nsec;
    m_lastModified = *modified;
    // Scan once more after a change: timestamps can have a resolution of two seconds, so a change after that
    // poll can have the same timestamp.
    return std::exchange(m_wasChanged, isChanged) || isChanged || Clock::now() - m_lastScan >= maximumPollAge;
}

} // namespace harbex
