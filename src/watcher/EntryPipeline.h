#pragma once

#include "fs/FileMove.h"
#include "watcher/DirectoryEvents.h"
#include "watcher/MoveHistory.h"
#include "watcher/RuleMatching.h"
#include "watcher/SerialQueue.h"
#include "watcher/WatchedDirectory.h"
#include "watcher/WorkerPool.h"

#include <QString>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace harbex
{

/// Takes the new entries of one watched folder through its rules: tests, waits, moves, and records what
/// became of them. An entry is a value that says which step comes next; entries that wait for the same moment
/// are stepped together. Steps run on the folder's queue. Moves run on one queue for each destination, so
/// that a long one holds up neither a scan, nor a sampling, nor a move to anywhere else.
class EntryPipeline : public std::enable_shared_from_this<EntryPipeline>
{
public:
    using Token = SerialQueue::Token;
    using Rules = std::shared_ptr<const std::vector<MatchableRule>>;
    using DirectoryPointer = std::shared_ptr<WatchedDirectory>;

    /// What the folders of an engine share. The references must live as long as the pool runs tasks.
    struct Services {
        WorkerPool& pool;
        DirectoryEvents& events;
        FileMove& fileMove;
        MoveHistory& history;
        /// Records one line in the activity log; called on any thread.
        std::function<void(const QString& message)> addLog;
    };

    /// How far apart two sizes are read that must be the same.
    static constexpr std::chrono::milliseconds samplingInterval{150};
    /// A file whose size changes so soon after its first reading was caught between its creation and its
    /// first write: the reading is taken anew.
    static constexpr std::chrono::milliseconds confirmationDelay{10};
    /// How long after its failed first test a busy entry gets its one more attempt.
    static constexpr std::chrono::seconds retryDelay{1};

    EntryPipeline(const Services& services, std::shared_ptr<SerialQueue> queue);

    /// Sets entries of the directory, given by their names (raw bytes), on their way through these rules.
    /// Destinations are tried in the order of the rules.
    void begin(Token token, const DirectoryPointer& directory, const Rules& rules,
               std::vector<std::string> names);

private:
    using Clock = SerialQueue::Clock;

    /// What comes next for an entry.
    enum class Step {
        /// Find the next rule that takes it, from Entry::rule on.
        tryRules,
        /// Read its size for the first time.
        read,
        /// Shortly after that reading: take it anew if it was too early.
        confirm,
        /// The end of the first stability test, and the beginning of the second.
        firstTest,
        /// The end of the second, right before the move.
        secondTest,
        move,
        moved,
        notMoved,
        /// The one more attempt of a rule whose first test had failed.
        retry,
        done,
    };

    struct Entry {
        std::string name;
        SplitName splitName;
        DirectoryPointer directory;
        Rules rules;
        /// The watched folders that the engine has just moved it out of.
        MoveHistory::Trail trail;

        Step step = Step::tryRules;
        size_t rule = 0;
        /// This is the one more attempt of the rule; later rules have had their turn.
        bool isRetry = false;
        /// A folder, or a link to one: not sampled.
        bool isFolder = false;
        std::optional<uint64_t> size = {};
        bool isLink = false;
        /// Which file it was whose size was read.
        uint64_t inode = 0;
        /// The last reading found another file where there had been an empty one: what a browser has
        /// downloaded, in the place of its placeholder.
        bool isDownloaded = false;
        /// When the size was read; nothing while the readings of a batch are under way.
        std::optional<Clock::time_point> readAt = {};
        /// The rules that get one more attempt, and when.
        std::vector<std::pair<Clock::time_point, size_t>> retries = {};

        [[nodiscard]] std::string path() const { return directory->pathOf(name); }
        [[nodiscard]] const FileUrl& destination() const { return *(*rules)[rule].filter.destination; }

        /// Reads the size. Returns whether it could be read and has not changed since the last sample.
        bool sample();
        /// When it is due for its next step.
        [[nodiscard]] Clock::time_point dueAt() const;
    };
    using Entries = std::vector<Entry>;

    /// Whether an entry is there, as the file manager asks.
    struct Existence {
        /// Through links.
        bool isDirectory = false;
        /// Of the entry itself.
        bool isDirectoryItself = false;
    };

    /// What the downloads in a directory begin with, found out once for all entries of a batch.
    using Downloads = std::map<const WatchedDirectory*, Outcome<std::set<std::string, std::less<>>>>;

    void advance(Token token, Entries entries);
    void step(Token token, Entry& entry, Downloads& downloads) const;
    void tryRules(Entry& entry) const;
    void tryNextRules(Entry& entry) const;
    static void beginRetry(Entry& entry);
    [[nodiscard]] bool processIfImage(const Entry& entry, const MatchableRule& rule,
                                      const Existence& existence) const;
    [[nodiscard]] std::optional<Existence> find(const Entry& entry) const;
    [[nodiscard]] bool isOwnFolder(const Entry& entry) const;
    [[nodiscard]] static bool isPlaceholder(const Entry& entry, Downloads& downloads);
    void logSkipped(const Entry& entry) const;

    [[nodiscard]] SerialQueue& movesTo(const std::string& destination, const std::string& source);
    // On the queue of the destination.
    void moveAll(Entries entries);
    /// `folder` is the destination.
    void move(Entry& entry, const MoveHistory::FolderKey& folder) const;
    /// `target` is the path it gets; empty when the destination is no local folder.
    [[nodiscard]] bool moveImageToPicturesIfPossible(const Entry& entry, const std::string& target,
                                                     const MoveHistory::FolderKey& folder) const;

    const Services m_services;
    const std::shared_ptr<SerialQueue> m_queue;
    /// By the path of the destination. Used on the folder's queue only.
    std::map<std::string, std::shared_ptr<SerialQueue>> m_moves;
};

} // namespace harbex
