#include "fs/NoReplaceRename.h"

#include "fs/RemoteVolume.h"

#include <cstdio>
#include <unistd.h>

namespace harbex
{

namespace
{

Outcome<void> renameReplacing(const DirEntry& from, const DirEntry& to)
{
    if (::renameat(from.folder, from.name.c_str(), to.folder, to.name.c_str()) != 0)
        return SystemError::last();
    return {};
}

// Reserves the name with an empty folder, which the rename replaces. A folder that is not empty is never
// replaced.
Outcome<void> renameFolder(const DirEntry& from, const DirEntry& to)
{
    if (::mkdirat(to.folder, to.name.c_str(), 0700) != 0) return SystemError::last();
    const Outcome<void> renamed = renameReplacing(from, to);
    if (!renamed && !outcomeUnknown(from, renamed.error()))
        ::unlinkat(to.folder, to.name.c_str(), AT_REMOVEDIR);
    return renamed;
}

/// Fails with EEXIST when the entry at `place` is not the file open as `fd`, or is not empty.
Outcome<void> expectEmptyFile(const DirEntry& place, int fd)
{
    const Outcome<EntryStatus> there = EntryStatus::of(place);
    if (!there) return there.error();
    const Outcome<EntryStatus> ours = EntryStatus::ofOpen(fd);
    if (!ours) return ours.error();
    if (!there->isSameEntry(*ours) || there->size != 0) return SystemError{EEXIST};
    return {};
}

Outcome<void> renameOverPlaceholder(const DirEntry& from, const DirEntry& to)
{
    const FileDescriptor placeholder(
        ::openat(to.folder, to.name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!placeholder) return SystemError::last();

    Outcome<void> renamed = expectEmptyFile(to, placeholder.get());
    if (renamed) renamed = renameReplacing(from, to);
    if (!renamed && expectEmptyFile(to, placeholder.get())) ::unlinkat(to.folder, to.name.c_str(), 0);
    return renamed;
}

bool isLinkUnsupported(int code)
{
    return code == EPERM || code == EOPNOTSUPP || code == ENOSYS || code == EMLINK;
}

Outcome<void> linkAndUnlink(const DirEntry& from, const DirEntry& to, const EntryStatus& entry)
{
    if (::linkat(from.folder, from.name.c_str(), to.folder, to.name.c_str(), 0) != 0) {
        const SystemError refused = SystemError::last();
        if (isLinkUnsupported(refused.code)) return renameOverPlaceholder(from, to);
        return refused;
    }

    // Another program may have saved a new file under the old name. That file must stay.
    const Outcome<EntryStatus> now = EntryStatus::of(from);
    Outcome<void> unlinked;
    if (!now)
        unlinked = now.error();
    else if (!now->isSameEntry(entry))
        unlinked = SystemError{EBUSY};
    else if (::unlinkat(from.folder, from.name.c_str(), 0) != 0)
        unlinked = SystemError::last();
    return unlinked ? unlinked : endAfterFailedRemoval(from, unlinked.error(), to, entry);
}

} // namespace

Outcome<void> renameWithoutReplacing(const DirEntry& from, const DirEntry& to)
{
    if (::renameat2(from.folder, from.name.c_str(), to.folder, to.name.c_str(), RENAME_NOREPLACE) == 0)
        return {};
    const SystemError refused = SystemError::last();
    // EINVAL means that the file system does not support the flag, or that a folder is moved into itself. In
    // the second case the calls below fail with EINVAL again.
    if (refused.code != EINVAL && refused.code != ENOSYS && refused.code != EOPNOTSUPP) return refused;

    const Outcome<EntryStatus> entry = EntryStatus::of(from);
    if (!entry) return entry.error();
    return entry->isFolder() ? renameFolder(from, to) : linkAndUnlink(from, to, *entry);
}

} // namespace harbex
