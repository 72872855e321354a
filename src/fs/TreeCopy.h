#pragma once

#include "base/Outcome.h"
#include "fs/DirEntry.h"
#include "fs/TreeWalk.h"

#include <cstdint>
#include <map>
#include <stop_token>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace harbex
{

/// Copies an entry with everything in it, makes sure that the copy is what the source is, and removes the
/// source: files, folders and links with content, times, owner, permissions and attributes; files that are
/// one inode stay one where the target has hard links. Used by one thread.
class TreeCopy
{
public:
    /// Of the entry at `source`, whose folder is open, into the folder that `targetFolder` is about.
    /// After `stop` look() and make() fail with ECANCELED soon.
    TreeCopy(DirEntry source, const EntryStatus& targetFolder, std::stop_token stop)
        : m_source(std::move(source)), m_targetFolder(targetFolder), m_stop(std::move(stop))
    {
    }

    /// Looks at the whole source and refuses what could not be moved: pipes, sockets and devices
    /// (EOPNOTSUPP), mounted file systems (EBUSY), the target folder itself or one around it (EINVAL), what
    /// this process could not remove afterwards (EACCES, EPERM), and trees too deep (EMFILE). Gives what the
    /// entry itself is like.
    [[nodiscard]] Outcome<EntryStatus> look();

    /// Makes the copy at `target`, where nothing stands yet, in a folder that nobody else works in; or, of a
    /// file, in the empty file to which `target` is a path. `sync`, called with `fd`, puts it on the disk.
    ///
    /// Then looks at the source again until it is what was copied. Where only its change time differs,
    /// somebody set an attribute or made a hard link, or wrote and set the modification time back: the
    /// contents are compared and everything else is taken again. EBUSY when anything was written, added or
    /// taken away, and when the change times do not come to rest; otherwise fails as look() does. What was
    /// copied by then stays, to be thrown away.
    [[nodiscard]] Outcome<void> make(const DirEntry& target, int (*sync)(int), int fd);

    /// Removes the source, each entry only while it is what make() found last. EBUSY at the first that is
    /// not: that one and what was not yet removed stay.
    [[nodiscard]] Outcome<void> removeSource() const;

private:
    [[nodiscard]] Outcome<void> expectMovable(const TreeEntry& entry) const;

    /// Takes into the copy what is not in it or was touched since. Gives whether there was any.
    Outcome<bool> takeAll();
    Outcome<void> take(const TreeEntry& entry);
    Outcome<void> enterFolder(const DirEntry& target, bool isThere);
    Outcome<void> leaveFolder(const TreeEntry& entry, int folder);
    Outcome<void> takeFile(const TreeEntry& entry, const DirEntry& target, bool isThere);
    static Outcome<void> takeLink(const TreeEntry& entry, const DirEntry& target, bool isThere);
    /// Whether `target` has become another name of an entry that was copied before.
    Outcome<bool> linkToEarlierCopy(const TreeEntry& entry, const DirEntry& target);
    void remember(const std::string& path, const EntryStatus& status);

    const DirEntry m_source;
    const EntryStatus m_targetFolder;
    const std::stop_token m_stop;
    EntryStatus m_root;
    DirEntry m_target;
    /// What each entry was like when the copy was made of it, by path and not by inode: some file systems
    /// give an entry another inode number after a while.
    std::unordered_map<std::string, EntryStatus> m_taken;
    /// The path of the first copy of each entry with several names, by device and inode.
    std::map<std::pair<uint64_t, uint64_t>, std::string> m_firstCopies;
    bool m_isMade = false;

    /// Of one pass: the folders of the copy that it is in, and how many entries it met.
    std::vector<FileDescriptor> m_folders;
    size_t m_met = 0;
    bool m_hasTaken = false;
};

} // namespace harbex
