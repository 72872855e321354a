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

/// Copies an entry with its content, verifies the copy, and removes the source. Copies files, folders and
/// symbolic links with their content, times, owner, permissions and attributes. Preserves hard links where
/// the target supports them. Use from one thread at a time.
class TreeCopy
{
public:
    /// Prepares the copy of `source`, whose folder is open, into the folder with the status `targetFolder`. A
    /// stop request makes checkSource() and make() fail with ECANCELED.
    TreeCopy(DirEntry source, const EntryStatus& targetFolder, std::stop_token stop)
        : m_source(std::move(source)), m_targetFolder(targetFolder), m_stop(std::move(stop))
    {
    }

    /// Walks the source and returns the status of its root. Fails for entries that cannot be moved: pipes,
    /// sockets and devices (EOPNOTSUPP), mount points (EBUSY), the target folder or a folder that contains it
    /// (EINVAL), entries that this process could not remove (EACCES, EPERM), and trees that are too deep
    /// (EMFILE).
    [[nodiscard]] Outcome<EntryStatus> checkSource();

    /// Copies the source to `target`, a free name in a folder that no other program uses, or, for a file, the
    /// path of an existing empty file. Calls `sync` with `fd` after each pass that changes the copy, to write
    /// it to disk.
    ///
    /// Repeats the pass over the source until no entry has changed. If only a change time differs, a program
    /// set an attribute, made a hard link, or wrote and reset the modification time. make() then compares the
    /// contents and copies all attributes again. Fails with EBUSY when content was written, added or removed,
    /// or when change times keep changing; otherwise as checkSource() does. The caller deletes the partial
    /// copy after a failure.
    [[nodiscard]] Outcome<void> make(const DirEntry& target, int (*sync)(int), int fd);

    /// Removes the source. Checks before each removal that the entry is still what make() copied. Fails with
    /// EBUSY at the first entry that is not, and keeps that entry and all that are not yet removed.
    [[nodiscard]] Outcome<void> removeSource() const;

private:
    [[nodiscard]] Outcome<void> checkMovable(const TreeEntry& entry) const;

    /// Copies entries that are not in the copy and checks those that changed. Returns whether it changed the
    /// copy.
    Outcome<bool> runPass();
    // `target` is the place of an entry in the copy. `isCopied`: an earlier visit has copied the entry.
    Outcome<void> visitEntry(const TreeEntry& entry);
    Outcome<void> enterFolder(const DirEntry& target, bool isCopied);
    Outcome<void> leaveFolder(const TreeEntry& entry, int folder);
    Outcome<void> copyOrCheckFile(const TreeEntry& entry, const DirEntry& target, bool isCopied);
    static Outcome<void> copyOrCheckLink(const TreeEntry& entry, const DirEntry& target, bool isCopied);
    /// Creates `target` as a hard link to an earlier copy of the same inode. Returns false if there is none,
    /// or if the file system refuses the link.
    Outcome<bool> linkToEarlierCopy(const TreeEntry& entry, const DirEntry& target);
    /// Records the status that the entry at `path` had when it was copied or checked.
    void remember(const std::string& path, const EntryStatus& status);

    const DirEntry m_source;
    const EntryStatus m_targetFolder;
    const std::stop_token m_stop;
    EntryStatus m_root;
    DirEntry m_target;
    /// Status of each entry at the time of its copy, by path: some file systems change the inode numbers of
    /// entries.
    std::unordered_map<std::string, EntryStatus> m_copied;
    /// Path of the first copy of each file with several hard links, by device and inode.
    std::map<std::pair<uint64_t, uint64_t>, std::string> m_firstCopies;
    /// The first pass has ended, so a new entry means that the source has changed.
    bool m_isFirstPassDone = false;

    // State of one pass: the open folders of the copy, outermost first; the number of visited entries;
    // whether the pass changed the copy.
    std::vector<FileDescriptor> m_folders;
    size_t m_visitedCount = 0;
    bool m_changedCopy = false;
};

} // namespace harbex
