#include "watcher/EntryWalks.h"

#include "base/ReadableText.h"
#include "base/StandardOutput.h"
#include "files/EntryName.h"
#include "files/FreeName.h"

#include <QStringList>

#include <cerrno>
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

/// ["report", "final", "PDF"]
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

bool areSameFolder(const std::string& a, const std::string& b)
{
    struct stat dataA;
    struct stat dataB;
    return ::stat(a.c_str(), &dataA) == 0 && ::stat(b.c_str(), &dataB) == 0 && dataA.st_dev == dataB.st_dev &&
           dataA.st_ino == dataB.st_ino;
}

/// Through links: one that leads nowhere does not.
bool doesExist(const std::string& path)
{
    struct stat data;
    return ::stat(path.c_str(), &data) == 0;
}

QString nameOf(const std::string& path)
{
    return readableName(lastPathComponent(path));
}

} // namespace

EntryWalks::EntryWalks(std::string folder, const std::vector<FilterRule>& rules,
                       std::shared_ptr<SerialQueue> queue, std::shared_ptr<SerialQueue> moves,
                       FileMove& fileMove, AddLog addLog)
    : m_folder(std::move(folder)), m_rules(rules.begin(), rules.end()), m_queue(std::move(queue)),
      m_moves(std::move(moves)), m_fileMove(fileMove), m_addLog(std::move(addLog))
{
}

void EntryWalks::begin(Token, const std::vector<std::string>& names)
{
    const std::string prefix = m_folder == "/" ? m_folder : m_folder + '/';
    for (const std::string& name : names) {
        const auto entry = std::make_shared<const Entry>(Entry{name, prefix + name, SplitName(name)});
        print(listOf(entry->splitName.pieces));
        tryRules(entry, 0);
    }
}

void EntryWalks::tryRules(const EntryPointer& entry, size_t first)
{
    for (size_t i = first; i < m_rules.size(); ++i) {
        const MatchableRule& rule = m_rules[i];
        if (!passesNameFilter(entry->splitName, rule) || !matchesOnDisk(*entry, rule)) continue;
        // A rule can say "stays here". The entry must not get a new name for it, which would be new again.
        if (areSameFolder(rule.filter.destination->path(), m_folder)) return;
        processIfImage(entry, i);
        return;
    }
}

bool EntryWalks::matchesOnDisk(const Entry& entry, const MatchableRule& rule) const
{
    if (!doesExist(entry.path)) return false;
    const QString extension = lowerCasedExtension(entry.name);
    if (isPartialDownload(extension)) return false;

    print(QStringLiteral("Processing: ") + readableName(entry.name));
    std::optional<bool> isDirectory;
    struct stat data;
    if (::lstat(entry.path.c_str(), &data) == 0) isDirectory = S_ISDIR(data.st_mode);
    print(QStringLiteral("ext ") + readableText(extension));
    print(rawValue(rule.filter.field));
    return matches(rule, extension, isDirectory);
}

// What is put into a queue holds this object; what waits in a round is held by this object and must not hold
// it.
void EntryWalks::processIfImage(const EntryPointer& entry, size_t ruleIndex)
{
    const FileUrl& destination = *m_rules[ruleIndex].filter.destination;
    const Then tryNextRules = [this, entry, ruleIndex] { tryRules(entry, ruleIndex + 1); };

    isFileStable(entry->path, [this, entry, &destination, tryNextRules](bool stable) {
        if (stable) {
            moveImageToPicturesIfPossible(entry->path, destination, tryNextRules);
            return;
        }
        m_queue->asyncAt(SerialQueue::Clock::now() + retryDelay,
                         [self = shared_from_this(), entry, &destination](Token) {
                             self->moveImageToPicturesIfPossible(entry->path, destination, [] {});
                         });
        tryNextRules();
    });
}

void EntryWalks::isFileStable(const std::string& path, StabilityRound::Result result)
{
    struct stat data;
    if (::stat(path.c_str(), &data) != 0) {
        result(false);
    } else if (S_ISDIR(data.st_mode)) {
        result(true);
    } else {
        // The sampling begins behind everything that waits in the queue now, so that it is shared.
        if (m_nextRound.isEmpty()) m_queue->async([self = shared_from_this()](Token) { self->sample(); });
        m_nextRound.add(path, std::move(result));
    }
}

void EntryWalks::sample()
{
    const auto round = std::make_shared<StabilityRound>(std::exchange(m_nextRound, {}));
    round->readFirstSizes();
    m_queue->asyncAt(SerialQueue::Clock::now() + samplingInterval,
                     [self = shared_from_this(), round](Token) { round->finish(); });
}

void EntryWalks::moveImageToPicturesIfPossible(const std::string& path, const FileUrl& destination, Then then)
{
    isFileStable(path, [this, path, &destination, then = std::move(then)](bool stable) {
        if (!stable) {
            m_addLog(QStringLiteral("Skipped busy file: ") + nameOf(path));
            then();
            return;
        }
        m_moves->async([self = shared_from_this(), path, &destination, then](Token) {
            // Of an entry that was moved the next rules would find nothing: most walks end here, without
            // another turn of the queue.
            if (!self->move(path, destination)) self->m_queue->async([self, then](Token) { then(); });
        });
    });
}

bool EntryWalks::move(const std::string& path, const FileUrl& destination) const
{
    const QString name = nameOf(path);
    // While this waited for a copy to end, the copy may have been of this very entry, for an earlier rule. Or
    // another folder stands here now, whose entries were there before.
    const Outcome<FileIdentity> folder = identityOf(m_folder);
    if (!doesExist(path) || !folder || *folder != m_identity) {
        m_addLog(QStringLiteral("Skipped busy file: ") + name);
        return false;
    }
    print(QStringLiteral("Moving %1 to %2...").arg(name, readableName(destination.lastPathComponent())));

    const std::string target = uniqueDestination(path, destination.path());
    // A URL that names no local path must not become a name in the root folder.
    const Outcome<void> moved =
        destination.path().empty() ? SystemError{ENOENT} : m_fileMove.moveItem(path, target);
    if (moved)
        m_addLog(QStringLiteral("Moved ") + name + QStringLiteral(" -> ") + nameOf(target));
    else
        m_addLog(QStringLiteral("Move failed for ") + name + QStringLiteral(": ") +
                 QString::fromStdString(moved.error().description()));
    return bool(moved);
}

} // namespace harbex
