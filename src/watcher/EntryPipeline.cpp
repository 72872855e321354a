#include "watcher/EntryPipeline.h"

#include "base/ReadableText.h"
#include "base/StandardOutput.h"
#include "fs/DirEntry.h"
#include "fs/EntryName.h"
#include "fs/FreeName.h"

#include <QStringList>

#include <cerrno>
#include <iterator>
#include <sys/stat.h>
#include <utility>

namespace harbex
{

namespace
{

void print(const QString& line)
{
    printLine(line.toStdString());
}

/// Returns the pieces in the form ["report", "final", "PDF"].
QString listOf(const std::vector<QString>& pieces)
{
    QStringList quoted;
    for (const QString& piece : pieces)
        quoted << u'"' + readableText(piece) + u'"';
    return u'[' + quoted.join(QStringLiteral(", ")) + u']';
}

QString lowerCasedExtension(const std::string& name)
{
    return ComparableText(textOfName(pathExtension(name))).lowerCased;
}

} // namespace

EntryPipeline::EntryPipeline(const Services& services, std::shared_ptr<SerialQueue> queue)
    : m_services(services), m_queue(std::move(queue))
{
}

void EntryPipeline::begin(Token token, const DirectoryPointer& directory, const Rules& rules,
                          std::vector<std::string> names)
{
    // Batches let the first entries move while the engine still tests the last of many thousands.
    constexpr size_t batchSize = 500;
    if (names.size() > batchSize) {
        const auto rest = names.begin() + batchSize;
        m_queue->async([self = shared_from_this(), directory, rules,
                        later = std::vector<std::string>(std::make_move_iterator(rest),
                                                         std::make_move_iterator(names.end()))](
                           Token next) mutable { self->begin(next, directory, rules, std::move(later)); });
        names.resize(batchSize);
    }
    const MoveHistory::FolderKey folder = MoveHistory::keyOf(directory->identity());
    Entries entries;
    entries.reserve(names.size());
    for (const std::string& name : names) {
        Entry entry{.name = name,
                    .splitName = SplitName(name),
                    .directory = directory,
                    .rules = rules,
                    .trail = m_services.history.take(folder, name),
                    .retries = {}};
        print(listOf(entry.splitName.pieces));
        if (MoveHistory::leadsOutOf(folder, entry.trail))
            print(QStringLiteral("Stays where it was moved back to: ") + readableName(name));
        else
            entries.push_back(std::move(entry));
    }
    advance(token, std::move(entries));
}

bool EntryPipeline::Entry::sample()
{
    sampledAt.reset();
    isDownloaded = false;
    // For a symbolic link this is the size of the link itself, because the engine moves the link.
    const Outcome<EntryStatus> status = EntryStatus::of({AT_FDCWD, path()});
    const std::optional<uint64_t> last = std::exchange(size, std::nullopt);
    if (!status) return false;
    size = status->size;
    isLink = status->isLink();
    isDownloaded = std::exchange(inode, status->inode) != status->inode && last == 0;
    return last && last == size;
}

EntryPipeline::Clock::time_point EntryPipeline::Entry::dueAt() const
{
    switch (step) {
    case Step::confirm:
        return *sampledAt + confirmationDelay;
    case Step::firstTest:
    case Step::secondTest:
        return *sampledAt + samplingInterval;
    case Step::retry:
        return retries.front().first;
    case Step::tryRules:
    case Step::firstSample:
    case Step::move:
    case Step::moved:
    case Step::notMoved:
    case Step::done:
        return Clock::time_point::min();
    }
    Q_UNREACHABLE();
}

void EntryPipeline::advance(Token token, Entries entries)
{
    Downloads downloads;
    for (Entry& entry : entries)
        step(token, entry, downloads);
    // All first samples come last and together: they share one due time for the next sample.
    for (Entry& entry : entries) {
        if (entry.step != Step::firstSample) continue;
        entry.sample();
        entry.step = Step::confirm;
    }

    const Clock::time_point now = Clock::now();
    std::map<Clock::time_point, Entries> waiting;
    std::map<std::string, Entries> moves;
    for (Entry& entry : entries) {
        if (!entry.sampledAt) entry.sampledAt = now;
        if (entry.step == Step::move)
            moves[entry.destination().path()].push_back(std::move(entry));
        else if (entry.step != Step::done)
            waiting[entry.dueAt()].push_back(std::move(entry));
    }
    for (auto& [destination, together] : moves) {
        SerialQueue& queue = moveQueueFor(destination, together.front().directory->path());
        queue.async([self = shared_from_this(), batch = std::move(together)](Token) mutable {
            self->moveAll(std::move(batch));
        });
    }
    for (auto& [due, together] : waiting) {
        m_queue->asyncAt(due, [self = shared_from_this(), batch = std::move(together)](Token later) mutable {
            self->advance(later, std::move(batch));
        });
    }
}

void EntryPipeline::step(Token token, Entry& entry, Downloads& downloads) const
{
    switch (entry.step) {
    case Step::tryRules:
        return tryRules(entry);
    case Step::confirm:
        if (const auto sampledAt = entry.sampledAt; entry.sample()) entry.sampledAt = sampledAt;
        entry.step = Step::firstTest;
        return;
    case Step::firstTest:
        if (entry.sample()) {
            entry.step = Step::secondTest;
            return;
        }
        if (entry.isDownloaded) {
            entry.step = Step::firstSample;
            return;
        }
        entry.retries.emplace_back(Clock::now() + retryDelay, entry.rule);
        return tryNextRules(entry);
    case Step::secondTest:
        if (!entry.sample()) {
            if (entry.isDownloaded) {
                entry.step = Step::firstSample;
                return;
            }
            logSkipped(entry);
            return tryNextRules(entry);
        }
        if (isPlaceholder(entry, downloads)) {
            // The finished download replaces it under the same name and must then count as new.
            entry.directory->forget(token, entry.name);
            entry.step = Step::done;
            return;
        }
        entry.step = Step::move;
        return;
    case Step::moved:
        return retryOrFinish(entry);
    case Step::notMoved:
        return tryNextRules(entry);
    case Step::retry: {
        entry.isRetry = true;
        entry.rule = entry.retries.front().second;
        entry.retries.erase(entry.retries.begin());
        const std::optional<Existence> existence = existenceOf(entry);
        if (!existence) {
            logSkipped(entry);
            return retryOrFinish(entry);
        }
        entry.isFolder = existence->isDirectory;
        entry.step = entry.isFolder ? Step::move : Step::secondTest;
        entry.sample();
        return;
    }
    case Step::firstSample:
    case Step::move:
    case Step::done:
        return;
    }
}

void EntryPipeline::tryRules(Entry& entry) const
{
    for (; entry.rule < entry.rules->size(); ++entry.rule) {
        const MatchableRule& rule = (*entry.rules)[entry.rule];
        if (!passesNameFilter(entry.splitName, rule)) continue;
        const std::optional<Existence> existence = existenceOf(entry);
        if (!existence || !processIfImage(entry, rule, *existence)) continue;
        // The destination is the watched folder: the entry stays. A move would rename it, and the next scan
        // would report the new name.
        if (isOwnFolder(entry)) break;
        entry.isFolder = existence->isDirectory;
        entry.step = entry.isFolder ? Step::move : Step::firstSample;
        return;
    }
    retryOrFinish(entry);
}

void EntryPipeline::tryNextRules(Entry& entry) const
{
    if (entry.isRetry) return retryOrFinish(entry);
    ++entry.rule;
    tryRules(entry);
}

void EntryPipeline::retryOrFinish(Entry& entry)
{
    entry.step = entry.retries.empty() ? Step::done : Step::retry;
}

bool EntryPipeline::processIfImage(const Entry& entry, const MatchableRule& rule,
                                   const Existence& existence) const
{
    if (isPartialDownload(entry.name)) return false;
    const QString extension = lowerCasedExtension(entry.name);
    print(QStringLiteral("Processing: ") + readableName(entry.name));
    print(QStringLiteral("ext ") + readableText(extension));
    print(rawValue(rule.filter.field));
    return matches(rule, extension, existence.isDirectoryItself);
}

std::optional<EntryPipeline::Existence> EntryPipeline::existenceOf(const Entry& entry) const
{
    const std::string path = entry.path();
    struct stat data;
    if (::lstat(path.c_str(), &data) != 0) return std::nullopt;
    if (!S_ISLNK(data.st_mode)) return Existence{S_ISDIR(data.st_mode), S_ISDIR(data.st_mode)};
    // stat() follows the symbolic link. If it could block, only the link itself counts.
    if (isOnOtherServer(path, entry)) return Existence{};
    if (::stat(path.c_str(), &data) != 0) return std::nullopt;
    return Existence{S_ISDIR(data.st_mode), false};
}

/// Returns whether a call with `path` could block on a server that does not have the entry's folder. Such a
/// call must not run on the folder's queue.
bool EntryPipeline::isOnOtherServer(const std::string& path, const Entry& entry) const
{
    const auto mounts = m_services.events.mounts();
    const auto mount = mounts->remoteMount(path);
    return mount && mount != mounts->remoteMount(entry.directory->path());
}

bool EntryPipeline::isOwnFolder(const Entry& entry) const
{
    const std::string destination = entry.destination().path();
    if (isOnOtherServer(destination, entry)) return false;
    const Outcome<FileIdentity> identity = identityOf(destination);
    return identity && MoveHistory::keyOf(*identity) == MoveHistory::keyOf(entry.directory->identity());
}

bool EntryPipeline::isPlaceholder(const Entry& entry, Downloads& downloads)
{
    if (entry.size != 0) return false;
    // If this call or the listing fails, the file counts as a placeholder: the next scan reports it again.
    const Outcome<EntryStatus> status = EntryStatus::of({AT_FDCWD, entry.path()});
    if (!status) return true;
    if (!status->isRegularFile()) return false;
    auto found = downloads.find(entry.directory.get());
    if (found == downloads.end())
        found = downloads.emplace(entry.directory.get(), entry.directory->downloadsUnderWay()).first;
    return !found->second || found->second->contains(downloadBase(entry.name));
}

void EntryPipeline::logSkipped(const Entry& entry) const
{
    m_services.addLog(QStringLiteral("Skipped busy file: ") + readableName(entry.name));
}

SerialQueue& EntryPipeline::moveQueueFor(const std::string& destination, const std::string& source)
{
    std::shared_ptr<SerialQueue>& queue = m_moveQueues[destination];
    if (!queue) queue = m_services.pool.makeQueue("harbex.moves." + destination);
    const auto mounts = m_services.events.mounts();
    queue->setMayBlock(mounts->remoteMount(destination) || mounts->remoteMount(source));
    return *queue;
}

void EntryPipeline::moveAll(Entries entries)
{
    // One lookup for the batch: if another folder replaces this one, only the move history is incomplete.
    const Outcome<FileIdentity> identity = identityOf(entries.front().destination().path());
    const auto folder = identity ? MoveHistory::keyOf(*identity) : MoveHistory::FolderKey();
    for (Entry& entry : entries) {
        if (m_services.pool.stopToken().stop_requested()) return;
        move(entry, folder);
        // Most entries are done here and need no further task on the folder's queue.
        if (entry.step == Step::moved && entry.retries.empty()) continue;
        const Clock::time_point due = entry.dueAt();
        Entries one;
        one.push_back(std::move(entry));
        m_queue->asyncAt(due, [self = shared_from_this(), one = std::move(one)](Token token) mutable {
            self->advance(token, std::move(one));
        });
    }
}

void EntryPipeline::move(Entry& entry, const MoveHistory::FolderKey& folder) const
{
    // This can block on a server, so it comes before the last sample.
    const std::string target = uniqueDestination(entry.path(), entry.destination().path());
    const bool isLate = Clock::now() - *entry.sampledAt >= samplingInterval;
    const bool isUnchanged = entry.isFolder || entry.sample();
    // The entry may be gone after a long wait for another copy. Or another folder has replaced the watched
    // one, and its entries are not new.
    const bool isThere =
        entry.isFolder || entry.isLink ? existenceOf(entry).has_value() : entry.size.has_value();
    if (!isThere || !entry.directory->isAtPath()) {
        logSkipped(entry);
        entry.step = Step::notMoved;
        return;
    }
    // The entry may also have grown, or become the placeholder of a download.
    if (!isUnchanged || (isLate && entry.size == 0)) {
        entry.sampledAt = Clock::now();
        entry.step = Step::secondTest;
        return;
    }
    entry.step = moveImageToPicturesIfPossible(entry, target, folder) ? Step::moved : Step::notMoved;
}

bool EntryPipeline::moveImageToPicturesIfPossible(const Entry& entry, const std::string& target,
                                                  const MoveHistory::FolderKey& folder) const
{
    const QString name = readableName(entry.name);
    const QString folderName = readableName(entry.destination().lastPathComponent());
    print(QStringLiteral("Moving %1 to %2...").arg(name, folderName));

    const std::string targetName(lastPathComponent(target));
    const bool isWatched = m_services.history.isWatched(folder);
    if (isWatched) {
        MoveHistory::Trail trail = entry.trail;
        trail.emplace_back(MoveHistory::keyOf(entry.directory->identity()), Clock::now());
        m_services.history.expect(folder, targetName, std::move(trail));
    }
    // A destination without a local path gives an empty target: fail before any file system call.
    const Outcome<void> moved =
        target.empty() ? SystemError{ENOENT} : m_services.fileMove.moveItem(entry.path(), target);
    if (moved) {
        m_services.addLog(QStringLiteral("Moved ") + name + QStringLiteral(" -> ") +
                          readableName(targetName));
        return true;
    }
    if (isWatched) static_cast<void>(m_services.history.take(folder, targetName));
    m_services.addLog(QStringLiteral("Move failed for ") + name + QStringLiteral(": ") +
                      QString::fromStdString(moved.error().description()));
    return false;
}

} // namespace harbex
