#include "files/DirectoryListing.h"

#include <algorithm>
#include <array>
#include <dirent.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace harbex
{

Outcome<DirectoryListing> DirectoryListing::open(const std::string& path)
{
    return openAt(AT_FDCWD, path.c_str());
}

Outcome<DirectoryListing> DirectoryListing::openAgain(int folder)
{
    return openAt(folder, ".");
}

Outcome<DirectoryListing> DirectoryListing::openAt(int folder, const char* path)
{
    FileDescriptor directory(::openat(folder, path, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory) return SystemError::last();
    const Outcome<FileIdentity> identity = identityOf(directory.get());
    if (!identity) return identity.error();
    return DirectoryListing(std::move(directory), *identity);
}

bool DirectoryListing::isRemote() const
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
    if (::fstatfs(m_directory.get(), &volume) != 0) return false;
    // The kernel widens the number with its sign on some machines.
    return std::ranges::find(types, static_cast<uint32_t>(volume.f_type)) != types.end();
}

Outcome<timespec> DirectoryListing::modificationTime() const
{
    struct statx status = {};
    if (::statx(m_directory.get(), "", AT_EMPTY_PATH, STATX_MTIME, &status) != 0) return SystemError::last();
    return timespec{status.stx_mtime.tv_sec, static_cast<long>(status.stx_mtime.tv_nsec)};
}

Outcome<size_t> DirectoryListing::readRecords(char* buffer, size_t size)
{
    static_assert(offsetof(dirent64, d_reclen) == Record::lengthOffset);
    static_assert(offsetof(dirent64, d_name) == Record::nameOffset);
    const ssize_t read = ::getdents64(m_directory.get(), buffer, size);
    if (read < 0) return SystemError::last();
    return static_cast<size_t>(read);
}

} // namespace harbex
