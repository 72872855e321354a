#pragma once

#include "base/FileIdentity.h"
#include "files/FileMove.h"
#include "model/FileUrl.h"
#include "watcher/RuleMatching.h"
#include "watcher/SerialQueue.h"
#include "watcher/StabilityRound.h"

#include <QString>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace harbex
{

/// Takes the new entries of one folder through the folder's rules: tests, waits, moves, and records what
/// became of them. Everything but the moves runs on the folder's queue; the moves run one after the other on
/// a queue of their own, so that a long one holds up neither a scan nor the samplings of other entries.
/// Nothing blocks while an entry waits. Entries keep it alive until the last of them has arrived.
class EntryWalks : public std::enable_shared_from_this<EntryWalks>
{
public:
    using Token = SerialQueue::Token;
    /// Records one line in the activity log; called on any thread.
    using AddLog = std::function<void(const QString& message)>;

    /// How far apart the two sizes of a stability test are read.
    static constexpr std::chrono::microseconds samplingInterval{150'000};
    /// How long after its failed first test a busy entry gets its one more attempt.
    static constexpr std::chrono::seconds retryDelay{1};

    /// For the folder at `folder` (raw bytes) with these rules, in the order in which they are tried.
    /// `fileMove` must live as long as the pool of the queues runs tasks.
    EntryWalks(std::string folder, const std::vector<FilterRule>& rules, std::shared_ptr<SerialQueue> queue,
               std::shared_ptr<SerialQueue> moves, FileMove& fileMove, AddLog addLog);

    /// Says which folder stands at the path. Entries of another one that took its place are not moved. Once,
    /// before begin().
    void setFolder(const FileIdentity& identity) { m_identity = identity; }

    /// Sets entries of the folder, given by their names (raw bytes), on their way.
    void begin(Token token, const std::vector<std::string>& names);

private:
    struct Entry {
        std::string name;
        std::string path;
        SplitName splitName;
    };
    using EntryPointer = std::shared_ptr<const Entry>;
    using Then = std::function<void()>;

    // All of these run on the folder's queue.
    void tryRules(const EntryPointer& entry, size_t first);
    [[nodiscard]] bool matchesOnDisk(const Entry& entry, const MatchableRule& rule) const;
    void processIfImage(const EntryPointer& entry, size_t ruleIndex);
    void isFileStable(const std::string& path, StabilityRound::Result result);
    void sample();
    void moveImageToPicturesIfPossible(const std::string& path, const FileUrl& destination, Then then);

    /// Whether the entry was moved; what became of it is recorded. On the queue of the moves.
    [[nodiscard]] bool move(const std::string& path, const FileUrl& destination) const;

    const std::string m_folder;
    FileIdentity m_identity;
    const std::vector<MatchableRule> m_rules;
    const std::shared_ptr<SerialQueue> m_queue;
    const std::shared_ptr<SerialQueue> m_moves;
    FileMove& m_fileMove;
    const AddLog m_addLog;

    /// Who waits for the next sampling. Touched on the folder's queue only.
    StabilityRound m_nextRound;
};

} // namespace harbex
