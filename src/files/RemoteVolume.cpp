#include "files/RemoteVolume.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <linux/magic.h>
#include <sys/vfs.h>

namespace harbex
{

bool isOnRemoteVolume(int fd)
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
    struct statfs volume = {};
    if (::fstatfs(fd, &volume) != 0) return false;
    // The kernel widens the number with its sign on some machines.
    return std::ranges::find(types, static_cast<uint32_t>(volume.f_type)) != types.end();
}

} // namespace harbex
