#include "watcher/FolderWatch.h"

#include "files/DirectoryListing.h"
#include "model/FolderListJson.h"

#include <cerrno>
#include <utility>

namespace harbex
{

namespace
{

/// Whether it says that the process or the system has too much open or in memory, and not what the folder is.
bool isShortage(SystemError error)
{
    return error.code == EMFILE || error.code == ENFILE || error.code == ENOMEM;
}

} // namespace

FolderWatch::FolderWatch(const WatchedFolder& folder, WorkerPool& pool, FileMove& fileMove,
                         EntryWalks::AddLog addLog)
    : m_path(folder.url.path()),
      m_queue(SerialQueue::create(pool, "harbex.watcher." + uuidText(folder.id).toStdString())),
      m_walks(std::make_shared<EntryWalks>(
          m_path, folder.rules, m_queue,
          SerialQueue::create(pool, "harbex.moves." + uuidText(folder.id).toStdString()), fileMove,
          std::move(addLog)))
{
}

Outcome<void> FolderWatch::open(DirectoryEvents& events)
{
    auto source = events.watch(m_path, [this] { requestScan(); });
    if (!source) return source.error();
    m_source = *std::move(source);
    return {};
}

Outcome<std::shared_ptr<KnownItems>> FolderWatch::list(const std::shared_ptr<KnownItems>& known)
{
    Outcome<DirectoryListing> listing = DirectoryListing::open(m_path);
    if (!listing) return listing.error();
    m_identity = listing->identity();
    m_walks->setFolder(m_identity);
    m_isRemote = listing->isRemote();
    m_mayHaveMissed = known && known->folder == m_identity;
    m_known = m_mayHaveMissed ? known : std::make_shared<KnownItems>(m_identity);
    if (m_mayHaveMissed) return m_known;

    const MutexLock lock(m_known->mutex);
    NameSnapshot::Update update(m_known->names);
    if (const Outcome<void> listed = listing->forEachName([&](auto name) { update.add(name); }); !listed)
        return listed.error();
    m_known->names = update.takeCurrent();
    return m_known;
}

void FolderWatch::begin()
{
    if (m_mayHaveMissed) requestScan();
    m_source->resume();
    if (m_isRemote) m_queue->async([self = shared_from_this()](auto token) { self->look(token); });
}

void FolderWatch::cancel()
{
    m_cancelled = true;
    m_source->cancel();
}

void FolderWatch::requestScan()
{
    if (!m_scanWaits.exchange(true)) scanAt(m_nextScan);
}

void FolderWatch::scanAt(SerialQueue::Clock::time_point when)
{
    auto scan = [self = shared_from_this()](SerialQueue::Token token) { self->scanForNewFiles(token); };
    if (when <= SerialQueue::Clock::now())
        m_queue->async(std::move(scan));
    else
        m_queue->asyncAt(when, std::move(scan));
}

void FolderWatch::look(SerialQueue::Token token)
{
    if (m_cancelled) return;
    // A server that does not answer now may do so at the next look.
    if (const Outcome<DirectoryListing> listing = DirectoryListing::open(m_path)) {
        if (const Outcome<timespec> modified = listing->modificationTime()) {
            const bool isChanged = !m_lastModified || m_lastModified->tv_sec != modified->tv_sec ||
                                   m_lastModified->tv_nsec != modified->tv_nsec;
            m_lastModified = *modified;
            // Once more after a change: times can be as coarse as two seconds, and what came after that look
            // may bear the same one.
            if (std::exchange(m_wasChanged, isChanged) || isChanged) scanForNewFiles(token);
        }
    }
    m_queue->asyncAt(SerialQueue::Clock::now() + lookInterval,
                     [self = shared_from_this()](auto next) { self->look(next); });
}

void FolderWatch::scanForNewFiles(SerialQueue::Token token)
{
    const SerialQueue::Clock::time_point begin = SerialQueue::Clock::now();
    if (begin < m_nextScan.load()) {
        // Asked for while the scan before was under way, when the end of its rest was not known yet.
        m_scanWaits = true;
        scanAt(m_nextScan);
        return;
    }
    // Before the listing: what changes from here on may be missed by it and needs the next one.
    m_scanWaits = false;
    const Outcome<std::vector<std::string>> names = takeNewNames();
    const SerialQueue::Clock::time_point end = SerialQueue::Clock::now();
    // Each of ten thousand arrivals and departures is an event of its own. Listing a large folder for every
    // one would keep a processor busy and the folder locked against the very moves that cause them.
    m_nextScan = end + restPerScan * (end - begin);
    if (names) {
        if (!names->empty()) m_walks->begin(token, *names);
    } else if (isShortage(names.error()) && !m_scanWaits.exchange(true)) {
        // The event is used up, and there may be no other for long.
        scanAt(end + shortageDelay);
    }
}

Outcome<std::vector<std::string>> FolderWatch::takeNewNames() const
{
    const MutexLock lock(m_known->mutex);
    if (m_cancelled) return std::vector<std::string>();
    Outcome<DirectoryListing> listing = DirectoryListing::open(m_path);
    if (!listing) return listing.error();
    if (listing->identity() != m_identity) return std::vector<std::string>();

    NameSnapshot::Update update(m_known->names);
    const Outcome<void> listed = listing->forEachName([&](auto name) { update.add(name); });
    if (!listed) return listed.error();
    if (update.isUnchanged() || m_cancelled) return std::vector<std::string>();
    std::vector<std::string> names = update.newNames();
    m_known->names = update.takeCurrent();
    return names;
}

} // namespace harbex
