#include "fs/RemoteVolume.h"

#include "fs/EntryName.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <linux/magic.h>
#include <sys/vfs.h>

namespace harbex
{

namespace
{

bool isRemote(const struct statfs& volume)
{
    constexpr uint32_t virtualBoxFolders = 0x786f4256;
    constexpr uint32_t lustre = 0x0bd00bd3;
    constexpr std::array<uint32_t, 14> types{AFS_FS_MAGIC,      AFS_SUPER_MAGIC,
                                             CEPH_SUPER_MAGIC,  CIFS_SUPER_MAGIC,
                                             CODA_SUPER_MAGIC,  FUSE_SUPER_MAGIC,
                                             NCP_SUPER_MAGIC,   NFS_SUPER_MAGIC,
                                             OCFS2_SUPER_MAGIC, SMB2_SUPER_MAGIC,
                                             SMB_SUPER_MAGIC,   V9FS_MAGIC,
                                             virtualBoxFolders, lustre};
    // Some architectures sign-extend the number.
    return std::ranges::find(types, static_cast<uint32_t>(volume.f_type)) != types.end();
}

/// Returns whether the error means that the change was refused, and is not a communication failure.
bool isRefusal(SystemError error)
{
    constexpr std::array refusals{EACCES, EBUSY, EDQUOT, EEXIST, ENOSPC, ENOTEMPTY, EPERM, EROFS, EXDEV};
    return std::ranges::find(refusals, error.code) != refusals.end();
}

} // namespace

bool outcomeUnknown(const DirEntry& place, SystemError error)
{
    if (isRefusal(error)) return false;
    const FileDescriptor folder(
        ::openat(place.folder, parentPath(place.name).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    struct statfs volume = {};
    return !folder || ::fstatfs(folder.get(), &volume) != 0 || isRemote(volume);
}

Outcome<void> endAfterFailedRemoval(const DirEntry& oldName, SystemError error, const DirEntry& newName,
                                    const EntryStatus& ours)
{
    if (!outcomeUnknown(oldName, error))
        unlinkIfOurs(newName, ours);
    else if (error.code == ENOENT)
        return {};
    return error;
}

} // namespace harbex
