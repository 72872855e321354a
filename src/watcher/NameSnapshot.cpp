#include "watcher/NameSnapshot.h"

#include <algorithm>
#include <unordered_set>

namespace harbex
{

namespace
{

/// Returns the length in bytes of the longest common suffix that consists of whole names.
size_t commonSuffix(std::string_view a, std::string_view b)
{
    const auto [inA, inB] = std::mismatch(a.rbegin(), a.rend(), b.rbegin(), b.rend());
    const auto same = static_cast<size_t>(inA - a.rbegin());
    if (same == a.size() || same == b.size()) {
        // The shorter string is a suffix of the longer one. All of it is common if a name of the longer one
        // begins at the same place.
        const std::string_view longer = a.size() > b.size() ? a : b;
        if (same == longer.size() || longer[longer.size() - same - 1] == '\0') return same;
    }
    // The strings differ inside a name, so the common names begin after its NUL.
    const std::string_view end = a.substr(a.size() - same);
    const size_t nul = end.find('\0');
    return nul == std::string_view::npos ? 0 : end.size() - nul - 1;
}

} // namespace

void NameSnapshot::remove(std::string_view name)
{
    const size_t at = find(name);
    if (at != std::string::npos) m_names.erase(at, name.size() + 1);
}

size_t NameSnapshot::find(std::string_view name) const
{
    const std::string record = std::string(name) + '\0';
    size_t at = m_names.find(record);
    // Skip matches at the end of a longer name.
    while (at != std::string::npos && at != 0 && m_names[at - 1] != '\0')
        at = m_names.find(record, at + 1);
    return at;
}

void NameSnapshot::Update::beginCopy()
{
    m_same = false;
    m_current.reserve(m_known.size() + 4096);
    m_current.assign(m_known, 0, m_cursor);
}

std::vector<std::string> NameSnapshot::Update::newNames() const
{
    if (m_same) return {};

    const std::string_view known = m_known;
    const std::string_view current = m_current;
    const size_t end = commonSuffix(known.substr(m_cursor), current.substr(m_cursor));

    // The range between common prefix and common suffix is short when few names changed.
    std::unordered_set<std::string_view> fresh;
    forEachNameIn(current.substr(m_cursor, current.size() - end - m_cursor),
                  [&](auto name) { fresh.insert(name); });
    // Compare with all known names: the listing of a changing folder can reorder or repeat names.
    forEachNameIn(known, [&](auto name) { fresh.erase(name); });
    return {fresh.begin(), fresh.end()};
}

NameSnapshot NameSnapshot::Update::takeCurrent()
{
    // The listing is a prefix of the old snapshot.
    if (m_same) m_current.assign(m_known, 0, m_cursor);
    m_current.shrink_to_fit();
    NameSnapshot snapshot;
    snapshot.m_names = std::move(m_current);
    return snapshot;
}

} // namespace harbex
