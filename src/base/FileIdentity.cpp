#include "base/FileIdentity.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace harbex
{

namespace
{

Outcome<FileIdentity> identityAt(int fd, const char* path, int flags)
{
    struct statx data = {};
    if (::statx(fd, path, flags, STATX_INO | STATX_BTIME, &data) != 0) return SystemError::last();
    FileIdentity identity;
    identity.device = ::makedev(data.stx_dev_major, data.stx_dev_minor);
    identity.inode = data.stx_ino;
    if (data.stx_mask & STATX_BTIME) {
        identity.birthSeconds = data.stx_btime.tv_sec;
        identity.birthNanoseconds = data.stx_btime.tv_nsec;
    }
    return identity;
}

} // namespace

Outcome<FileIdentity> identityOf(int fd)
{
    return identityAt(fd, "", AT_EMPTY_PATH);
}

Outcome<FileIdentity> identityOf(const std::string& path)
{
    return identityAt(AT_FDCWD, path.c_str(), 0);
}

} // namespace harbex
