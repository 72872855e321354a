#include "store/FolderIdentity.h"

#include "base/FileDescriptor.h"
#include "base/FileIdentity.h"

#include <array>
#include <cstddef>
#include <fcntl.h>
#include <new>

namespace harbex
{

namespace
{

void readHandle(int fd, FolderIdentity& identity)
{
    alignas(file_handle) std::array<std::byte, sizeof(file_handle) + MAX_HANDLE_SZ> buffer = {};
    auto* const handle = new (buffer.data()) file_handle;
    handle->handle_bytes = MAX_HANDLE_SZ;
    int mountId = 0;
    // On any failure the identity has no handle.
    if (::name_to_handle_at(fd, "", handle, &mountId, AT_EMPTY_PATH) != 0) return;
    identity.handleType = handle->handle_type;
    identity.handle = QByteArray(reinterpret_cast<const char*>(buffer.data() + sizeof(file_handle)),
                                 static_cast<qsizetype>(handle->handle_bytes));
}

} // namespace

Likeness compare(const FolderIdentity& a, const FolderIdentity& b)
{
    if (a.inode != b.inode) return Likeness::different;
    Likeness likeness = Likeness::sameNumber;
    if (a.hasBirthTime() && b.hasBirthTime()) {
        if (a.birthSeconds != b.birthSeconds || a.birthNanoseconds != b.birthNanoseconds)
            return Likeness::different;
        likeness = Likeness::same;
    }
    if (a.hasHandle() && b.hasHandle()) {
        if (a.handleType != b.handleType || a.handle != b.handle) return Likeness::different;
        likeness = Likeness::same;
    }
    return likeness;
}

Outcome<FolderIdentity> identityOfFolder(int fd)
{
    const auto file = identityOf(fd);
    if (!file) return file.error();
    FolderIdentity identity;
    identity.inode = file->inode;
    identity.birthSeconds = file->birthSeconds;
    identity.birthNanoseconds = file->birthNanoseconds;
    readHandle(fd, identity);
    return identity;
}

Outcome<FolderIdentity> identityOfFolder(const std::string& path)
{
    const FileDescriptor folder(::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!folder) return SystemError::last();
    return identityOfFolder(folder.get());
}

} // namespace harbex
