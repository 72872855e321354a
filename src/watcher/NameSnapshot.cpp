#include "watcher/NameSnapshot.h"

#include <algorithm>
#include <unordered_set>

namespace harbex
{

namespace
{

/// Takes the first name, without its NUL, off the front of `names`.
std::string_view takeName(std::string_view& names)
{
    const std::string_view name = names.substr(0, names.find('\0'));
    names.remove_prefix(name.size() + 1);
    return name;
}

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

void NameSnapshot::Update::beginCopy()
{
    m_same = false;
    m_current.reserve(m_known.size() + 4096);
    m_current.assign(m_known, 0, m_cursor);
}

std::vector<std::string> NameSnapshot::Update::newNames() const
{
    if (m_same) return {};

    std::string_view known = std::string_view(m_known).substr(m_cursor);
    std::string_view current = std::string_view(m_current).substr(m_cursor);
    const size_t end = commonEnd(known, current);
    known.remove_suffix(end);
    current.remove_suffix(end);

    // What is left is short when one thing changed. A name may still stand on both sides, because the file
    // system may give the rest in another order, and twice on one: a listing of a folder that is being changed
    // can repeat itself.
    std::unordered_set<std::string_view> seen;
    while (!known.empty()) seen.insert(takeName(known));
    std::vector<std::string> names;
    while (!current.empty()) {
        const std::string_view name = takeName(current);
        if (seen.insert(name).second) names.emplace_back(name);
    }
    return names;
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
