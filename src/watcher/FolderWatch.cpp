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

/// After a listing the folder is left alone for three times as long as it took, and at most this long. Each
/// of ten thousand arrivals and departures is an event of its own: listing a large folder for every one would
/// keep a processor busy, and the directory locked against the very moves that cause them.
constexpr int cooldownFactor = 3;
constexpr auto maximumCooldown = 250ms;

/// Poll interval for folders whose file system reports no changes by others.
constexpr auto pollInterval = 2s;
/// A server may keep no modification times for folders: they are listed at least this often.
constexpr auto maximumPollAge = 30s;

/// When a look is repeated that the system had no descriptor or memory for.
constexpr auto shortageDelay = 1s;

/// Whether it says that the process or the system has too much open or in memory, and not what the folder is.
bool isShortage(SystemError error)
{
    return error.code == EMFILE || error.code == ENFILE || error.code == ENOMEM;
}

/// Whether it says that the directory that was watched does not stand at the path.
bool saysGone(SystemError error)
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
    // Weakly: whoever has the handler must not keep the watch.
    watch->m_handler = std::make_shared<const std::function<void()>>([weak = watch->weak_from_this()] {
        if (const auto self = weak.lock()) self->requestLook();
    });
    const auto open = [watch](Token token) { watch->open(token); };
    if (services.events.mounts()->remoteMount(watch->m_path)) {
        watch->m_queue->setMayBlock(true);
        watch->m_queue->async(open);
    } else {
        watch->m_queue->runHere(open);
    }
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
    // A server that does not answer holds this up, and nothing else.
    m_queue->async([self = shared_from_this()](Token) {
        self->m_directory.reset();
        self->m_pathSources.clear();
    });
}

void FolderWatch::setState(State state)
{
    // Whatever the main thread has said meanwhile is final.
    State expected = state == State::watched ? State::waiting : State::watched;
    m_state.compare_exchange_strong(expected, state);
    m_descriptor = m_state == State::watched ? m_directory->descriptor() : -1;
}

void FolderWatch::requestLook()
{
    if (!m_lookWaits.exchange(true)) lookAt(Clock::time_point::min());
}

void FolderWatch::lookAt(Clock::time_point when)
{
    auto look = [self = shared_from_this()](Token token) { self->look(token); };
    if (when == Clock::time_point::min())
        m_queue->async(std::move(look));
    else
        m_queue->asyncAt(when, std::move(look));
}

void FolderWatch::look(Token token)
{
    if (Clock::now() < m_nextLook) return lookAt(m_nextLook);
    // Before anything is looked at: what changes from here on may be missed and needs the next look.
    m_lookWaits = false;
    if (m_state == State::watched) scanForNewFiles(token);
    if (m_state == State::waiting) open(token);
}

void FolderWatch::open(Token)
{
    m_lastModified.reset();
    // Before the directory is looked for: what changes on the path to it from here on leads to another look.
    watchPath();
    auto opened = WatchedDirectory::open(m_services.events, m_services.history, m_path, m_handler);
    if (opened) {
        m_directory = *std::move(opened);
        m_isRefusalLogged = false;
        m_lastScan = Clock::now();
        setState(State::watched);
    } else if (opened.error().isWatchRefused) {
        if (!std::exchange(m_isRefusalLogged, true))
            m_services.addLog(QStringLiteral("Failed to open folder: ") + readableName(m_name));
    } else if (isShortage(opened.error().error)) {
        retryLater();
    }
    if (m_isRemote && !std::exchange(m_isPolling, true)) pollLater();
}

void FolderWatch::watchPath()
{
    std::vector<std::shared_ptr<DirectoryEvents::Source>> sources;
    const auto watchName = [&](const std::string& folder, const std::string& name) {
        // Where the system refuses this, only what happens to the watched folder itself is noticed.
        if (auto source = m_services.events.watch(folder, m_handler, name)) sources.push_back(*source);
        return m_services.events.isKnownFolder(folder == "/" ? folder + name : folder + '/' + name);
    };
    m_isRemote = m_services.events.mounts()->follow(m_path, watchName).has_value();
    m_queue->setMayBlock(m_isRemote);
    // Only now, so that what both need stays watched.
    m_pathSources.swap(sources);
}

void FolderWatch::scanForNewFiles(Token token)
{
    m_lastScan = Clock::now();
    Outcome<std::vector<std::string>> names = m_directory->takeNewNames(token);
    const Clock::time_point end = Clock::now();
    m_nextLook = end + std::min<Clock::duration>(cooldownFactor * (end - m_lastScan), maximumCooldown);
    if (names) {
        if (m_state == State::watched) m_pipeline->begin(token, m_directory, m_rules, *std::move(names));
    } else if (saysGone(names.error())) {
        m_directory.reset();
        setState(State::waiting);
    } else if (isShortage(names.error())) {
        // The event is used up, and there may be no other for long.
        retryLater();
    }
}

void FolderWatch::retryLater()
{
    if (!m_lookWaits.exchange(true)) lookAt(Clock::now() + shortageDelay);
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
    if (isPollDue()) look(token);
    pollLater();
}

bool FolderWatch::isPollDue()
{
    if (m_state == State::waiting) return true;
    // A server that does not answer now may do so at the next poll.
    const Outcome<DirectoryListing> listing = DirectoryListing::open(m_path);
    if (!listing) return true;
    const Outcome<timespec> modified = listing->modificationTime();
    if (!modified) return true;
    const bool isChanged = !m_lastModified || m_lastModified->tv_sec != modified->tv_sec ||
                           m_lastModified->tv_nsec != modified->tv_nsec;
    m_lastModified = *modified;
    // Once more after a change: times can be as coarse as two seconds, and what came after that poll may bear
    // the same one.
    return std::exchange(m_wasChanged, isChanged) || isChanged || Clock::now() - m_lastScan >= maximumPollAge;
}

} // namespace harbex
