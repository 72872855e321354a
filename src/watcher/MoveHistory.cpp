#include "watcher/MoveHistory.h"

#include <algorithm>

namespace harbex
{

void MoveHistory::addWatched(const FolderKey& folder)
{
    const MutexLock lock(m_mutex);
    ++m_watched[folder];
}

void MoveHistory::removeWatched(const FolderKey& folder)
{
    const MutexLock lock(m_mutex);
    if (--m_watched[folder] == 0) m_watched.erase(folder);
}

bool MoveHistory::isWatched(const FolderKey& folder)
{
    const MutexLock lock(m_mutex);
    return m_watched.contains(folder);
}

void MoveHistory::expect(const FolderKey& folder, const std::string& name, Trail trail)
{
    const Clock::time_point now = Clock::now();
    const MutexLock lock(m_mutex);
    // Remove old trails without a take(), because their folder was no longer watched.
    if (now >= m_nextCleaning) {
        m_nextCleaning = now + memory;
        std::erase_if(m_expected, [now](const auto& entry) { return now - entry.second.second > memory; });
    }
    m_expected.insert_or_assign({folder, name}, std::make_pair(std::move(trail), now));
}

MoveHistory::Trail MoveHistory::take(const FolderKey& folder, const std::string& name)
{
    const MutexLock lock(m_mutex);
    const auto found = m_expected.find({folder, name});
    if (found == m_expected.end()) return {};
    Trail trail = std::move(found->second.first);
    m_expected.erase(found);
    return trail;
}

std::vector<std::string> MoveHistory::expectedBefore(const FolderKey& folder, Clock::time_point time)
{
    const MutexLock lock(m_mutex);
    std::vector<std::string> names;
    for (auto entry = m_expected.lower_bound({folder, {}});
         entry != m_expected.end() && entry->first.first == folder; ++entry)
        if (entry->second.second < time) names.push_back(entry->first.second);
    return names;
}

bool MoveHistory::leadsOutOf(const FolderKey& folder, const Trail& trail)
{
    const Clock::time_point now = Clock::now();
    return std::ranges::any_of(trail, [&](const auto& departure) {
        return departure.first == folder && now - departure.second <= memory;
    });
}

} // namespace harbex
