#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace harbex
{

/// Compact set of the names in one folder. Names are raw bytes. One string holds all names in the order of
/// the listing, each with a NUL at its end. The order stays the same while the folder does not change, so one
/// comparison from front to back detects an unchanged folder. Use from one thread at a time.
class NameSnapshot
{
public:
    class Update;

    /// Returns the memory allocated for the names, in bytes.
    [[nodiscard]] size_t capacity() const { return m_names.capacity(); }

    [[nodiscard]] bool isEmpty() const { return m_names.empty(); }

    /// Calls `each` with each name.
    template <class Each>
    void forEachName(Each&& each) const
    {
        forEachNameIn(m_names, each);
    }

    /// Returns whether the name is in the set. Takes time in proportion to the size of the set.
    [[nodiscard]] bool contains(std::string_view name) const { return find(name) != std::string::npos; }

    /// Removes a name. Does nothing if the name is not in the set.
    void remove(std::string_view name);

private:
    template <class Each>
    static void forEachNameIn(std::string_view names, Each&& each)
    {
        while (!names.empty()) {
            const std::string_view name = names.substr(0, names.find('\0'));
            names.remove_prefix(name.size() + 1);
            each(name);
        }
    }

    /// Returns the offset of the name in m_names; npos if the name is not in the set.
    [[nodiscard]] size_t find(std::string_view name) const;

    std::string m_names;
};

/// Compares a new listing with a snapshot, one name at a time. Copies nothing before the first difference, so
/// an unchanged folder needs no memory. The snapshot must outlive this object.
class NameSnapshot::Update
{
public:
    explicit Update(const NameSnapshot& known) : m_known(known.m_names) {}

    /// Adds the next name of the listing. Inline, because a listing calls it for each entry.
    void add(std::string_view name)
    {
        if (m_same && nextKnownIs(name)) {
            m_cursor += name.size() + 1;
            return;
        }
        if (m_same) beginCopy();
        m_current.append(name);
        m_current.push_back('\0');
    }

    /// Returns whether the listing has exactly the names of the snapshot in the same order. Call after the
    /// last add().
    [[nodiscard]] bool isUnchanged() const { return m_same && m_cursor == m_known.size(); }

    /// Returns the names that are not in the snapshot, in no particular order. Call after the last add().
    [[nodiscard]] std::vector<std::string> newNames() const;

    /// Returns the snapshot of the new listing. Call after the last add(); do not use this object afterwards.
    [[nodiscard]] NameSnapshot takeCurrent();

private:
    /// Returns whether the next name of the snapshot is `name`. The check for the NUL excludes a longer name
    /// that begins with `name`.
    bool nextKnownIs(std::string_view name) const
    {
        return m_known.compare(m_cursor, name.size(), name) == 0 && m_cursor + name.size() < m_known.size() &&
               m_known[m_cursor + name.size()] == '\0';
    }
    /// Ends the common prefix and starts to collect the names of the listing.
    void beginCopy();

    const std::string& m_known;
    /// Length of the common prefix of snapshot and listing, in bytes.
    size_t m_cursor = 0;
    /// All names so far are those of the snapshot, in the same order.
    bool m_same = true;
    /// The names of the listing, in the format of the snapshot. Empty while m_same is true.
    std::string m_current;
};

} // namespace harbex
