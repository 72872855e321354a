#pragma once

#include "base/Outcome.h"
#include "files/EntryPlace.h"

#include <stop_token>
#include <string>
#include <unordered_map>

namespace harbex
{

/// What an entry and, if it is a folder, everything in it was like before it is copied to another volume: the
/// measure by which it is recognised as unchanged before the original is removed. Used by one thread.
class TreeSurvey
{
public:
    /// Looks at the entry at `root`, to be moved into the folder open as `targetFolder`. Refuses what could
    /// not be moved: pipes, sockets and devices (EOPNOTSUPP), mounted file systems (EBUSY), the target folder
    /// itself or one around it (EINVAL), what this process could not remove afterwards (EACCES, EPERM), and
    /// trees too deep (EMFILE). ECANCELED after `stop`.
    [[nodiscard]] static Outcome<TreeSurvey> take(const EntryPlace& root, int targetFolder,
                                                  const std::stop_token& stop);

    /// What the entry itself was like.
    [[nodiscard]] const EntryStatus& root() const { return m_root; }

    /// Whether the survey found the entry at `path` (from the root: "" for the root, "/a/b" below), and
    /// exactly as it is `now`.
    [[nodiscard]] bool holdsUnchanged(const std::string& path, const EntryStatus& now) const;

    /// Looks at the whole tree again: EBUSY when anything was changed, added or taken away; otherwise fails
    /// as take() does.
    [[nodiscard]] Outcome<void> expectUnchanged(const EntryPlace& root, int targetFolder,
                                                const std::stop_token& stop) const;

    /// Removes the tree at `root`, each entry only while it is as the survey found it. EBUSY at the first
    /// that is not: that one and what was not yet removed stay.
    [[nodiscard]] Outcome<void> removeTree(const EntryPlace& root) const;

private:
    // By path and not by inode: some file systems give an entry another inode number after a while.
    std::unordered_map<std::string, EntryStatus> m_entries;
    EntryStatus m_root;
};

} // namespace harbex
