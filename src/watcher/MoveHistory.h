#pragma once

#include "base/FileIdentity.h"
#include "base/Mutex.h"

#include <chrono>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace harbex
{

/// Which watched folders the engine has just moved an entry out of. Two folders that name each other would
/// otherwise move an entry to and fro for ever. Any thread.
class MoveHistory
{
public:
    using Clock = std::chrono::steady_clock;

    /// How long a move is remembered.
    static constexpr std::chrono::seconds memory{60};

    /// The number of the volume and of the folder on it.
    using FolderKey = std::pair<uint64_t, uint64_t>;
    [[nodiscard]] static FolderKey keyOf(const FileIdentity& folder) { return {folder.device, folder.inode}; }

    /// The folders that one entry was moved out of, and when.
    using Trail = std::vector<std::pair<FolderKey, Clock::time_point>>;

    /// Says of a folder that it is watched, or no longer. Counted: as often as it is added.
    void addWatched(const FolderKey& folder);
    void removeWatched(const FolderKey& folder);

    [[nodiscard]] bool isWatched(const FolderKey& folder);

    /// Called before an entry is moved into a watched folder: it will have this name there.
    void expect(const FolderKey& folder, const std::string& name, Trail trail);

    /// The trail of the entry that has arrived under this name in this folder; empty for one that the engine
    /// did not move there within the last minute. Asked once for each arrival: the next entry of the name is
    /// another one. Also takes back an expect() whose move has failed.
    [[nodiscard]] Trail take(const FolderKey& folder, const std::string& name);

    /// Whether the trail leads out of this folder within the last minute.
    [[nodiscard]] static bool leadsOutOf(const FolderKey& folder, const Trail& trail);

private:
    using Arrival = std::pair<FolderKey, std::string>;

    Mutex m_mutex;
    std::map<FolderKey, int> m_watched GUARDED_BY(m_mutex);
    std::map<Arrival, std::pair<Trail, Clock::time_point>> m_expected GUARDED_BY(m_mutex);
    Clock::time_point m_nextCleaning GUARDED_BY(m_mutex);
};

} // namespace harbex
