#include "watcher/StabilityRound.h"

#include "files/EntryPlace.h"

#include <utility>

namespace harbex
{

namespace
{

// The size of a link is its own, not that of what it leads to: the link is what would be moved.
std::optional<uint64_t> fileSize(const std::string& path)
{
    const Outcome<EntryStatus> status = EntryStatus::of({AT_FDCWD, path});
    if (!status) return std::nullopt;
    return status->size;
}

} // namespace

void StabilityRound::add(std::string path, Result result)
{
    m_entries.push_back({std::move(path), std::move(result), std::nullopt});
}

void StabilityRound::readFirstSizes()
{
    for (Entry& entry : m_entries)
        entry.firstSize = fileSize(entry.path);
}

void StabilityRound::finish()
{
    std::vector<Entry> stable;
    std::vector<Entry> unstable;
    for (Entry& entry : m_entries) {
        const bool isStable = entry.firstSize && entry.firstSize == fileSize(entry.path);
        (isStable ? stable : unstable).push_back(std::move(entry));
    }
    m_entries.clear();
    for (const Entry& entry : unstable)
        entry.result(false);
    for (const Entry& entry : stable)
        entry.result(true);
}

} // namespace harbex
