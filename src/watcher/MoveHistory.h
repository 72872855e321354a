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

/// Remembers for each entry from which watched folders the engine recently moved it. This prevents an endless
/// loop when two folders are each other's destination. Names are raw bytes. Thread-safe.
class MoveHistory
{
public:
    using Clock = std::chrono::steady_clock;

    /// Time for which a move counts as recent.
    static constexpr std::chrono::seconds memory{60};

    /// Device and inode number of a folder.
    using FolderKey = std::pair<uint64_t, uint64_t>;
    [[nodiscard]] static FolderKey keyOf(const FileIdentity& folder) { return {folder.device, folder.inode}; }

    /// The folders out of which one entry was moved, each with the time of the move.
    using Trail = std::vector<std::pair<FolderKey, Clock::time_point>>;

    /// Adds or removes one watch of a folder. A folder can have several; each addWatched() needs its own
    /// removeWatched().
    void addWatched(const FolderKey& folder);
    void removeWatched(const FolderKey& folder);

    /// Returns whether the folder has at least one watch.
    [[nodiscard]] bool isWatched(const FolderKey& folder);

    /// Records the trail of an entry before the engine moves it to `name` in a watched folder.
    void expect(const FolderKey& folder, const std::string& name, Trail trail);

    /// Removes and returns the trail recorded for this name in this folder; empty if there is none. Call once
    /// per new entry, because the next entry of this name is another one. Also undoes expect() after a failed
    /// move.
    [[nodiscard]] Trail take(const FolderKey& folder, const std::string& name);

    /// Returns the names that were recorded for this folder before `time` and not taken since.
    [[nodiscard]] std::vector<std::string> expectedBefore(const FolderKey& folder, Clock::time_point time);

    /// Returns whether the trail contains a recent move out of this folder.
    [[nodiscard]] static bool leadsOutOf(const FolderKey& folder, const Trail& trail);

private:
    using Arrival = std::pair<FolderKey, std::string>;

    Mutex m_mutex;
    std::map<FolderKey, int> m_watched GUARDED_BY(m_mutex);
    std::map<Arrival, std::pair<Trail, Clock::time_point>> m_expected GUARDED_BY(m_mutex);
    Clock::time_point m_nextCleaning GUARDED_BY(m_mutex);
};

} // namespace harbex
