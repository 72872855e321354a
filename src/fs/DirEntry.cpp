#include "fs/DirEntry.h"

#include "fs/DirectoryListing.h"

#include <sys/sysmacros.h>
#include <unistd.h>

namespace harbex
{

namespace
{

timespec timeOf(const statx_timestamp& time)
{
    return {time.tv_sec, static_cast<long>(time.tv_nsec)};
}

bool isSameTime(const timespec& a, const timespec& b)
{
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

Outcome<EntryStatus> statusAt(int folder, const char* name, int flags)
{
    struct statx data = {};
    flags |= AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT;
    // Cached status of a remote volume may be seconds old, and other computers may write to the entry.
    flags |= AT_STATX_FORCE_SYNC;
    if (::statx(folder, name, flags, STATX_BASIC_STATS, &data) != 0) return SystemError::last();

    EntryStatus status;
    status.device = ::makedev(data.stx_dev_major, data.stx_dev_minor);
    status.inode = data.stx_ino;
    status.mode = data.stx_mode;
    status.links = data.stx_nlink;
    status.owner = data.stx_uid;
    status.group = data.stx_gid;
    status.size = data.stx_size;
    status.accessTime = timeOf(data.stx_atime);
    status.modificationTime = timeOf(data.stx_mtime);
    status.changeTime = timeOf(data.stx_ctime);
    status.isMountPoint = (data.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
    status.isProtected = (data.stx_attributes & (STATX_ATTR_IMMUTABLE | STATX_ATTR_APPEND)) != 0;
    return status;
}

} // namespace

Outcome<EntryStatus> EntryStatus::of(const DirEntry& place)
{
    return statusAt(place.folder, place.name.c_str(), 0);
}

Outcome<EntryStatus> EntryStatus::ofOpen(int fd)
{
    return statusAt(fd, "", AT_EMPTY_PATH);
}

bool EntryStatus::isSameEntry(const EntryStatus& other) const
{
    return device == other.device && inode == other.inode && (mode & S_IFMT) == (other.mode & S_IFMT);
}

bool EntryStatus::hasSameContent(const EntryStatus& other) const
{
    return (mode & S_IFMT) == (other.mode & S_IFMT) && size == other.size &&
           isSameTime(modificationTime, other.modificationTime);
}

bool EntryStatus::isUnchanged(const EntryStatus& other) const
{
    return hasSameContent(other) && isSameTime(changeTime, other.changeTime);
}

Outcome<FileDescriptor> openFolder(const std::string& path)
{
    FileDescriptor folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder) return SystemError::last();
    return folder;
}

Outcome<FileDescriptor> openSubfolder(const DirEntry& place, const EntryStatus& expected)
{
    FileDescriptor folder(
        ::openat(place.folder, place.name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!folder) return SystemError::last();
    const Outcome<EntryStatus> opened = EntryStatus::ofOpen(folder.get());
    if (!opened) return opened.error();
    if (!opened->isSameEntry(expected)) return SystemError{EBUSY};
    return folder;
}

Outcome<std::vector<std::string>> namesIn(int folder)
{
    Outcome<DirectoryListing> listing = DirectoryListing::openAgain(folder);
    if (!listing) return listing.error();
    std::vector<std::string> names;
    const Outcome<void> listed =
        listing->forEachName([&names](std::string_view name) { names.emplace_back(name); });
    if (!listed) return listed.error();
    return names;
}

void unlinkIfOurs(const DirEntry& place, const EntryStatus& ours)
{
    const Outcome<EntryStatus> now = EntryStatus::of(place);
    if (now && now->isSameEntry(ours) && now->hasSameContent(ours))
        ::unlinkat(place.folder, place.name.c_str(), 0);
}

} // namespace harbex
