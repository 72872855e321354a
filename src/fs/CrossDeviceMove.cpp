#include "fs/CrossDeviceMove.h"

#include "fs/DirEntry.h"
#include "fs/EntryName.h"
#include "fs/NoReplaceRename.h"
#include "fs/RemoteVolume.h"
#include "fs/StagingDirectory.h"
#include "fs/TreeCopy.h"

#include <optional>
#include <unistd.h>

namespace harbex
{

namespace
{

/// One entry on its way from one volume to another.
class CrossDeviceMove
{
public:
    CrossDeviceMove(DirEntry from, DirEntry to, const EntryStatus& targetFolder, const std::stop_token& stop)
        : m_from(std::move(from)), m_to(std::move(to)), m_tree(m_from, targetFolder, stop)
    {
    }

    Outcome<void> run()
    {
        const Outcome<EntryStatus> source = m_tree.look();
        if (!source) return source.error();
        const Outcome<void> possible = StagingDirectory::expectPossible(m_to);
        if (!possible) return possible;
        const Outcome<EntryStatus> copy = makeCopy(*source);
        if (!copy) return copy.error();
        Outcome<void> removed = syncTargetFolder();
        if (removed) removed = m_tree.removeSource();
        // A folder that had its name may hold new things of others by now.
        if (removed || copy->isFolder()) return removed;
        // Gone by somebody else's hand, an original must not leave two of it.
        return endAfterFailedRemoval(m_from, removed.error(), m_to, *copy);
    }

private:
    /// Makes the copy appear under its name, whole, and gives what it is like.
    Outcome<EntryStatus> makeCopy(const EntryStatus& source)
    {
        if (source.isRegularFile()) {
            const std::optional<Outcome<EntryStatus>> copy = makeCopyWithoutName();
            if (copy) return *copy;
        }
        return copyInStagingDirectory();
    }

    /// By a file that has no name until it is complete; nothing when this cannot be done here.
    std::optional<Outcome<EntryStatus>> makeCopyWithoutName()
    {
        const FileDescriptor file(::openat(m_to.folder, ".", O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600));
        if (!file) {
            if (errno == EOPNOTSUPP || errno == EISDIR || errno == EINVAL || errno == ENOSYS)
                return std::nullopt;
            return SystemError::last();
        }
        const std::string opened = "/proc/self/fd/" + std::to_string(file.get());
        const Outcome<void> copied = m_tree.make({AT_FDCWD, opened}, ::fsync, file.get());
        if (!copied) return copied.error();
        const Outcome<EntryStatus> status = EntryStatus::ofOpen(file.get());
        if (!status) return status.error();
        if (::linkat(AT_FDCWD, opened.c_str(), m_to.folder, m_to.name.c_str(), AT_SYMLINK_FOLLOW) == 0)
            return *status;
        if (errno == EPERM || errno == EOPNOTSUPP || errno == ENOSYS) return std::nullopt;
        return SystemError::last();
    }

    Outcome<EntryStatus> copyInStagingDirectory()
    {
        const Outcome<StagingDirectory> part = StagingDirectory::create(m_to.folder);
        if (!part) return part.error();
        const DirEntry built = part->content();
        // One call for all files: one for each would take a journal's time for each. It tells of every error
        // since the staging directory was opened.
        const Outcome<void> copied = m_tree.make(built, ::syncfs, built.folder);
        if (!copied) return copied.error();
        const Outcome<EntryStatus> status = EntryStatus::of(built);
        if (!status) return status.error();
        const Outcome<void> published = renameWithoutReplacing(built, m_to);
        if (!published) return published.error();
        return *status;
    }

    Outcome<void> syncTargetFolder() const
    {
        // EINVAL: this file system has nothing to synchronise in a folder.
        if (::fsync(m_to.folder) != 0 && errno != EINVAL) return SystemError::last();
        return {};
    }

    const DirEntry m_from;
    const DirEntry m_to;
    TreeCopy m_tree;
};

/// Saves copying for nothing; whether the name is free in the end is decided when the copy gets it.
Outcome<void> expectNothingAt(const DirEntry& place)
{
    const Outcome<EntryStatus> there = EntryStatus::of(place);
    if (there) return SystemError{EEXIST};
    if (there.error().code != ENOENT) return there.error();
    return {};
}

} // namespace

Outcome<void> moveAcrossDevices(const std::string& source, const std::string& target,
                                const std::stop_token& stop)
{
    // Both folders stay the same ones to the end, whatever becomes of their paths.
    const FileDescriptor sourceFolder(::open(parentPath(source).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!sourceFolder) return SystemError::last();
    const Outcome<FileDescriptor> targetFolder = openFolder(parentPath(target));
    if (!targetFolder) return targetFolder.error();
    const DirEntry from{sourceFolder.get(), std::string(lastPathComponent(source))};
    const DirEntry to{targetFolder->get(), std::string(lastPathComponent(target))};

    const Outcome<void> isFree = expectNothingAt(to);
    if (!isFree) return isFree;
    const Outcome<EntryStatus> status = EntryStatus::ofOpen(to.folder);
    if (!status) return status.error();
    return CrossDeviceMove(from, to, *status, stop).run();
}

} // namespace harbex
