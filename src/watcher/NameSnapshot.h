#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace harbex
{

/// The set of names of one folder as a listing gave them: exact to the byte, and little larger than the names
/// themselves, because they stand one after the other, each ended by a NUL, in the order of the listing. That
/// order is the same as long as nothing changes, so that a folder is recognised by comparing from front to
/// back.
class NameSnapshot
{
public:
    class Update;

    /// How much memory the names take here, in bytes.
    [[nodiscard]] size_t capacity() const { return m_names.capacity(); }

    [[nodiscard]] bool isEmpty() const { return m_names.empty(); }

    /// Calls `each` with every name.
    template <class Each>
    void forEachName(Each&& each) const
    {
        forEachNameIn(m_names, each);
    }

    /// Takes a name out, if it is there.
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

    std::string m_names;
};

/// Compares a new listing with a snapshot, one name at a time, and makes the new snapshot from the first
/// difference on: an unchanged folder costs no memory. The snapshot must live as long.
class NameSnapshot::Update
{
public:
    explicit Update(const NameSnapshot& known) : m_known(known.m_names) {}

    /// The next name of the listing. Defined here because a listing calls it for every entry.
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

    /// Whether the listing, complete now, gave exactly the names of the snapshot in the same order.
    [[nodiscard]] bool isUnchanged() const { return m_same && m_cursor == m_known.size(); }

    /// The names that the snapshot does not hold. The listing is complete.
    [[nodiscard]] std::vector<std::string> newNames() const;

    /// The snapshot that the complete listing makes. Ends the life of this object.
    [[nodiscard]] NameSnapshot takeCurrent();

private:
    // The snapshot ends every name with a NUL that no name holds, so a longer known name differs there.
    bool nextKnownIs(std::string_view name) const
    {
        return m_known.compare(m_cursor, name.size(), name) == 0 && m_cursor + name.size() < m_known.size() &&
               m_known[m_cursor + name.size()] == '\0';
    }
    void beginCopy();

    const std::string& m_known;
    /// How far listing and snapshot are the same, in bytes.
    size_t m_cursor = 0;
    bool m_same = true;
    std::string m_current;
};

} // namespace harbex
