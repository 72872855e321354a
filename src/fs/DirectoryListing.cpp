#include "fs/DirectoryListing.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace harbex
{

Outcome<DirectoryListing> DirectoryListing::open(const std::string& path)
{
    FileDescriptor directory(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory) return SystemError::last();
    return of(std::move(directory));
}

Outcome<DirectoryListing> DirectoryListing::of(FileDescriptor directory)
{
    const Outcome<FileIdentity> identity = identityOf(directory.get());
    if (!identity) return identity.error();
    return DirectoryListing(std::move(directory), *identity);
}

Outcome<DirectoryListing> DirectoryListing::openAgain(int folder)
{
    // Opening "." would need search permission for the folder. A listing needs only read permission.
    return open("/proc/self/fd/" + std::to_string(folder));
}

Outcome<timespec> DirectoryListing::modificationTime() const
{
    struct statx status = {};
    if (::statx(m_directory.get(), "", AT_EMPTY_PATH | AT_STATX_FORCE_SYNC, STATX_MTIME, &status) != 0)
        return SystemError::last();
    return timespec{status.stx_mtime.tv_sec, static_cast<long>(status.stx_mtime.tv_nsec)};
}

Outcome<size_t> DirectoryListing::readRecords(char* buffer, size_t size)
{
    static_assert(offsetof(dirent64, d_ino) == Record::inodeOffset);
    static_assert(offsetof(dirent64, d_type) == Record::typeOffset);
    static_assert(Record::unknownType == DT_UNKNOWN && Record::folderType == DT_DIR);
    static_assert(offsetof(dirent64, d_reclen) == Record::lengthOffset);
    static_assert(offsetof(dirent64, d_name) == Record::nameOffset);
    const ssize_t read = ::getdents64(m_directory.get(), buffer, size);
    if (read < 0) return SystemError::last();
    return static_cast<size_t>(read);
}

} // namespace harbex
