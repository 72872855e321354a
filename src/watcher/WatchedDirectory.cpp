#include "watcher/WatchedDirectory.h"

#include "fs/DirEntry.h"
#include "fs/DirectoryListing.h"
#include "watcher/RuleMatching.h"

#include <cerrno>
#include <unordered_set>
#include <utility>

namespace harbex
{

namespace
{

/// Collects the downloadBase() of each partial download.
struct Downloads {
    std::set<std::string, std::less<>> bases;

    void add(std::string_view name)
    {
        if (!isPartialDownload(name)) return;
        // The base of a hidden name is empty. It would make a placeholder of every empty hidden file.
        const std::string_view base = downloadBase(name);
        if (!base.empty()) bases.emplace(base);
    }
};

} // namespace

Outcome<std::shared_ptr<WatchedDirectory>, WatchedDirectory::Failure>
WatchedDirectory::open(DirectoryEvents& events, MoveHistory& history, const std::string& path,
                       DirectoryEvents::Handler handler)
{
    Outcome<DirectoryListing> listing = DirectoryListing::open(path);
    if (!listing) return Failure{listing.error()};
    // Watch before the listing: later entries cause events, so a second listing is not needed. Watch the
    // opened directory: another one may already be at the path.
    auto source = events.watch(listing->descriptorPath(), std::move(handler));
    if (!source) return Failure{source.error(), true};

    const std::shared_ptr<WatchedDirectory> directory(
        new WatchedDirectory(history, path, *std::move(source), listing->identity()));
    NameSnapshot::Update update(directory->m_names);
    Downloads downloads;
    const auto add = [&](std::string_view name) {
        update.add(name);
        downloads.add(name);
    };
    if (const Outcome<void> listed = listing->forEachName(add); !listed) return Failure{listed.error()};
    directory->m_names = update.takeCurrent();
    directory->forgetPlaceholders(downloads.bases);
    return directory;
}

WatchedDirectory::WatchedDirectory(MoveHistory& history, std::string path,
                                   std::unique_ptr<DirectoryEvents::Source> source,
                                   const FileIdentity& identity)
    : m_history(history), m_path(std::move(path)), m_source(std::move(source)), m_identity(identity)
{
    m_history.addWatched(MoveHistory::keyOf(m_identity));
}

WatchedDirectory::~WatchedDirectory()
{
    m_history.removeWatched(MoveHistory::keyOf(m_identity));
}

std::string WatchedDirectory::pathOf(const std::string& name) const
{
    return m_path == "/" ? m_path + name : m_path + '/' + name;
}

Outcome<std::vector<std::string>> WatchedDirectory::takeNewNames(Token)
{
    const auto begin = MoveHistory::Clock::now();
    Outcome<DirectoryListing> listing = DirectoryListing::open(m_path);
    if (!listing) return listing.error();
    // Do not compare the birth time: an overlay file system changes it when it copies a directory up.
    if (MoveHistory::keyOf(listing->identity()) != MoveHistory::keyOf(m_identity) ||
        !m_source->isFor(listing->descriptorPath()))
        return SystemError{ENOENT};

    NameSnapshot::Update update(m_names);
    const Outcome<void> listed = listing->forEachName([&](auto name) { update.add(name); });
    if (!listed) return listed.error();
    std::vector<std::string> names;
    if (!update.isUnchanged()) {
        names = update.newNames();
        m_names = update.takeCurrent();
    }
    dropExpectationsOfKnownNames(begin, names);
    return names;
}

void WatchedDirectory::dropExpectationsOfKnownNames(MoveHistory::Clock::time_point listed,
                                                    const std::vector<std::string>& newNames)
{
    const MoveHistory::FolderKey folder = MoveHistory::keyOf(m_identity);
    const std::vector<std::string> expected = m_history.expectedBefore(folder, listed);
    if (expected.empty()) return;
    // During a burst most of the expected names are new. NameSnapshot::contains() searches the whole
    // snapshot.
    const std::unordered_set<std::string_view> fresh(newNames.begin(), newNames.end());
    for (const std::string& name : expected)
        if (!fresh.contains(name) && m_names.contains(name)) static_cast<void>(m_history.take(folder, name));
}

bool WatchedDirectory::isAtPath() const
{
    return m_source->isFor(m_path);
}

Outcome<std::set<std::string, std::less<>>> WatchedDirectory::downloadsUnderWay() const
{
    Outcome<DirectoryListing> listing = DirectoryListing::open(m_path);
    if (!listing) return listing.error();
    Downloads downloads;
    if (const Outcome<void> listed = listing->forEachName([&](auto name) { downloads.add(name); }); !listed)
        return listed.error();
    return std::move(downloads.bases);
}

void WatchedDirectory::forgetPlaceholders(const std::set<std::string, std::less<>>& downloads)
{
    if (downloads.empty()) return;
    std::vector<std::string> placeholders;
    m_names.forEachName([&](std::string_view name) {
        if (!downloads.contains(downloadBase(name))) return;
        const Outcome<EntryStatus> status = EntryStatus::of({AT_FDCWD, pathOf(std::string(name))});
        if (status && status->isRegularFile() && status->size == 0) placeholders.emplace_back(name);
    });
    for (const std::string& name : placeholders)
        m_names.remove(name);
}

} // namespace harbex
