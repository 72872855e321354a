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

/// The move of one entry to another volume.
class CrossDeviceMove
{
public:
    CrossDeviceMove(DirEntry from, DirEntry to, const EntryStatus& targetFolder, const std::stop_token& stop)
        : m_from(std::move(from)), m_to(std::move(to)), m_tree(m_from, targetFolder, stop)
    {
    }

    Outcome<void> run()
    {
        const Outcome<EntryStatus> source = m_tree.checkSource();
        if (!source) return source.error();
        const Outcome<void> possible = StagingDirectory::expectPossible(m_to);
        if (!possible) return possible;
        const Outcome<EntryStatus> copy = makeCopy(*source);
        if (!copy) return copy.error();
        Outcome<void> removed = syncTargetFolder();
        if (removed) removed = m_tree.removeSource();
        // Other programs may already have added entries to a published folder.
        if (removed || copy->isFolder()) return removed;
        // Another program may have moved the original away. The copy would be a duplicate.
        return endAfterFailedRemoval(m_from, removed.error(), m_to, *copy);
    }

private:
    /// Publishes the complete copy under its name and returns its status.
    Outcome<EntryStatus> makeCopy(const EntryStatus& source)
    {
        if (source.isRegularFile()) {
            const std::optional<Outcome<EntryStatus>> copy = copyToUnnamedFile();
            if (copy) return *copy;
        }
        return copyInStagingDirectory();
    }

    /// Copies to an unnamed file and links the complete copy to its name. Returns nullopt where the file
    /// system or the kernel does not support this.
    std::optional<Outcome<EntryStatus>> copyToUnnamedFile()
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
        const Outcome<StagingDirectory> staging = StagingDirectory::create(m_to.folder);
        if (!staging) return staging.error();
        const DirEntry built = staging->content();
        // One syncfs() instead of one fsync() for each file, which would wait for the journal each time.
        // syncfs() reports every write error since the staging directory was opened.
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
        // EINVAL: this file system does not support fsync() on folders.
        if (::fsync(m_to.folder) != 0 && errno != EINVAL) return SystemError::last();
        return {};
    }

    const DirEntry m_from;
    const DirEntry m_to;
    TreeCopy m_tree;
};

/// Fails with EEXIST when `place` exists. Avoids a useless copy; the final link or rename checks again.
Outcome<void> expectFree(const DirEntry& place)
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
    // Descriptors identify both folders even if their paths change during the move.
    const FileDescriptor sourceFolder(::open(parentPath(source).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!sourceFolder) return SystemError::last();
    const Outcome<FileDescriptor> targetFolder = openFolder(parentPath(target));
    if (!targetFolder) return targetFolder.error();
    const DirEntry from{sourceFolder.get(), std::string(lastPathComponent(source))};
    const DirEntry to{targetFolder->get(), std::string(lastPathComponent(target))};

    const Outcome<void> isFree = expectFree(to);
    if (!isFree) return isFree;
    const Outcome<EntryStatus> status = EntryStatus::ofOpen(to.folder);
    if (!status) return status.error();
    return CrossDeviceMove(from, to, *status, stop).run();
}

} // namespace harbex
