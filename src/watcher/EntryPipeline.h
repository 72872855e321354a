#pragma once

#include "fs/FileMove.h"
#include "watcher/DirectoryEvents.h"
#include "watcher/MoveHistory.h"
#include "watcher/RuleMatching.h"
#include "watcher/SerialQueue.h"
#include "watcher/WatchedDirectory.h"

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

/// Processes the new entries of one watched folder: tests them against the rules, samples their sizes, moves
/// them and logs the result. Each Entry stores its next step. Entries with the same due time form one batch,
/// which a delayed task owns until then. Steps run on the folder's queue. Moves run on one queue per
/// destination: a long move delays no scan, no sample and no move to another destination.
class EntryPipeline : public std::enable_shared_from_this<EntryPipeline>
{
public:
    using Token = SerialQueue::Token;
    using Rules = std::shared_ptr<const std::vector<MatchableRule>>;
    using DirectoryPointer = std::shared_ptr<WatchedDirectory>;

    /// Objects that all folders of an engine share. They must live as long as the pool runs tasks.
    struct Services {
        WorkerPool& pool;
        DirectoryEvents& events;
        FileMove& fileMove;
        MoveHistory& history;
        /// Records one line in the activity log. Thread-safe.
        std::function<void(const QString& message)> addLog;
    };

    /// Time between two size samples that must be equal.
    static constexpr std::chrono::milliseconds samplingInterval{150};
    /// Time between the first sample and its confirmation. A file that changes within this time was sampled
    /// between its creation and its first write: the second sample replaces the first.
    static constexpr std::chrono::milliseconds confirmationDelay{10};
    /// Time between a failed first test and the only retry of that rule.
    static constexpr std::chrono::seconds retryDelay{1};

    /// `queue` is the folder's queue.
    EntryPipeline(const Services& services, std::shared_ptr<SerialQueue> queue);

    /// Starts to process the entries of `directory` with these names (raw bytes). Tries `rules` in their
    /// order. Failures go to the log. Call on the folder's queue.
    void begin(Token token, const DirectoryPointer& directory, const Rules& rules,
               std::vector<std::string> names);

private:
    using Clock = SerialQueue::Clock;

    /// The next step of an entry.
    enum class Step {
        /// Find the next matching rule, starting at Entry::rule.
        tryRules,
        /// Take the first sample.
        firstSample,
        /// Sample again shortly after `firstSample`; a changed size replaces the first sample.
        confirm,
        /// End the first stability test and start the second one.
        firstTest,
        /// End the second stability test, or the only test of a retry.
        secondTest,
        /// Move the entry, on the queue of the destination.
        move,
        /// The move succeeded. Retries that are left find that the entry is gone.
        moved,
        /// The move failed. Try the next rule.
        notMoved,
        /// Retry a rule whose first test failed.
        retry,
        done,
    };

    struct Entry {
        std::string name;
        SplitName splitName;
        DirectoryPointer directory;
        Rules rules;
        /// The watched folders out of which the engine recently moved the entry.
        MoveHistory::Trail trail;

        Step step = Step::tryRules;
        /// Index of the current rule in `rules`.
        size_t rule = 0;
        /// This is the retry of the rule. The later rules have been tried already.
        bool isRetry = false;
        /// The entry is a folder or a symbolic link to one, and needs no stability test.
        bool isFolder = false;
        /// Size in bytes at the last sample; empty if that sample failed.
        std::optional<uint64_t> size = std::nullopt;
        /// The entry was a symbolic link at the last successful sample.
        bool isLink = false;
        /// Inode at the last successful sample.
        uint64_t inode = 0;
        /// The last successful sample found a new inode in place of an empty file: a browser has replaced its
        /// placeholder by the finished download.
        bool isDownloaded = false;
        /// Time from which the next delay counts. sample() clears it; advance() then sets one time for the
        /// whole batch. `confirm` keeps the time of the first sample if the size is the same.
        std::optional<Clock::time_point> sampledAt = std::nullopt;
        /// Due times and indexes of the rules to retry.
        std::vector<std::pair<Clock::time_point, size_t>> retries;

        [[nodiscard]] std::string path() const { return directory->pathOf(name); }
        [[nodiscard]] const FileUrl& destination() const { return *(*rules)[rule].filter.destination; }

        /// Reads the size. Returns whether this succeeds and the size equals that of the last sample.
        bool sample();
        /// Returns the due time of the next step.
        [[nodiscard]] Clock::time_point dueAt() const;
    };
    using Entries = std::vector<Entry>;

    /// The type of an entry that exists.
    struct Existence {
        /// Follows symbolic links.
        bool isDirectory = false;
        /// Does not follow symbolic links.
        bool isDirectoryItself = false;
    };

    /// Cache for one batch: the results of WatchedDirectory::downloadsUnderWay().
    using Downloads = std::map<const WatchedDirectory*, Outcome<std::set<std::string, std::less<>>>>;

    /// Performs the next step of each entry. Then queues the entries for the step after it: on the queue of
    /// their destination if they are to be moved, otherwise on the folder's queue at dueAt().
    void advance(Token token, Entries entries);
    /// Performs one step and sets the next one. advance() performs `firstSample`, and moveAll() `move`.
    void step(Token token, Entry& entry, Downloads& downloads) const;
    /// Finds the first matching rule from Entry::rule on and sets its step. Without one: retryOrFinish().
    void tryRules(Entry& entry) const;
    /// The same for the rules after Entry::rule. A retry tries no further rule.
    void tryNextRules(Entry& entry) const;
    /// Sets `retry` if a retry is left, otherwise `done`.
    static void retryOrFinish(Entry& entry);
    /// Prints the entry to standard output. Returns whether the rule, of any kind, matches it.
    [[nodiscard]] bool processIfImage(const Entry& entry, const MatchableRule& rule,
                                      const Existence& existence) const;
    /// Returns nullopt if the entry is gone, cannot be read, or is a symbolic link to nothing.
    [[nodiscard]] std::optional<Existence> existenceOf(const Entry& entry) const;
    [[nodiscard]] bool isOnOtherServer(const std::string& path, const Entry& entry) const;
    /// Returns whether the destination of the current rule is the watched folder itself.
    [[nodiscard]] bool isOwnFolder(const Entry& entry) const;
    /// Returns whether the entry is the empty file that a browser creates beside a partial download.
    [[nodiscard]] static bool isPlaceholder(const Entry& entry, Downloads& downloads);
    void logSkipped(const Entry& entry) const;

    [[nodiscard]] SerialQueue& moveQueueFor(const std::string& destination, const std::string& source);
    // These run on the queue of the destination.
    void moveAll(Entries entries);
    /// Moves one entry and sets its next step. `folder` identifies the destination.
    void move(Entry& entry, const MoveHistory::FolderKey& folder) const;
    /// Moves an entry of any kind, logs the result and returns whether it succeeded. `target` is the new path
    /// of the entry; empty if the destination URL has no local path.
    [[nodiscard]] bool moveImageToPicturesIfPossible(const Entry& entry, const std::string& target,
                                                     const MoveHistory::FolderKey& folder) const;

    const Services m_services;
    const std::shared_ptr<SerialQueue> m_queue;
    /// Move queues by destination path. Use on the folder's queue only.
    std::map<std::string, std::shared_ptr<SerialQueue>> m_moveQueues;
};

} // namespace harbex
