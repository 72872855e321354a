#include "watcher/NameSnapshot.h"

#include <algorithm>
#include <unordered_set>

namespace harbex
{

namespace
{

/// How many bytes at the ends of both are the same whole names.
size_t commonEnd(std::string_view a, std::string_view b)
{
    const auto [inA, inB] = std::mismatch(a.rbegin(), a.rend(), b.rbegin(), b.rend());
    const auto same = static_cast<size_t>(inA - a.rbegin());
    if (same == a.size() || same == b.size()) {
        // One is wholly the end of the other: the other's next byte tells whether a name begins there.
        const std::string_view longer = a.size() > b.size() ? a : b;
        if (same == longer.size() || longer[longer.size() - same - 1] == '\0') return same;
    }
    // The difference lies within a name; what is the same begins behind that name's NUL.
    const std::string_view end = a.substr(a.size() - same);
    const size_t nul = end.find('\0');
    return nul == std::string_view::npos ? 0 : end.size() - nul - 1;
}

} // namespace

void NameSnapshot::remove(std::string_view name)
{
    const std::string record = std::string(name) + '\0';
    size_t at = m_names.find(record);
    // The end of a longer name is no name.
    while (at != std::string::npos && at != 0 && m_names[at - 1] != '\0')
        at = m_names.find(record, at + 1);
    if (at != std::string::npos) m_names.erase(at, record.size());
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
    const size_t end = commonEnd(known.substr(m_cursor), current.substr(m_cursor));

    // What lies between the common front and the common end is short when one thing changed.
    std::unordered_set<std::string_view> fresh;
    forEachNameIn(current.substr(m_cursor, current.size() - end - m_cursor),
                  [&](auto name) { fresh.insert(name); });
    // All of the known names, because a listing of a folder that is being changed may give the rest in
    // another order, or a name a second time.
    forEachNameIn(known, [&](auto name) { fresh.erase(name); });
    return {fresh.begin(), fresh.end()};
}

NameSnapshot NameSnapshot::Update::takeCurrent()
{
    // Names were only removed from the end.
    if (m_same) m_current.assign(m_known, 0, m_cursor);
    m_current.shrink_to_fit();
    NameSnapshot snapshot;
    snapshot.m_names = std::move(m_current);
    return snapshot;
}

} // namespace harbex
