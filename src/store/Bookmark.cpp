#include "store/Bookmark.h"

#include "base/FileDescriptor.h"
#include "base/FileIdentity.h"

#include <QCryptographicHash>
#include <QDataStream>
#include <QIODevice>

#include <array>
#include <cstddef>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <new>
#include <string_view>
#include <sys/stat.h>

namespace harbex
{

namespace
{

/// The identity of a folder, which survives renames and reboots.
///
/// It lacks the device number, because device numbers can change at every boot. Birth time and file handle
/// (inode and generation, as for NFS exports) may be missing: not every file system and sandbox provides
/// them.
struct FolderIdentity {
    quint64 inode = 0;
    qint64 birthSeconds = 0;
    quint32 birthNanoseconds = 0;
    qint32 handleType = 0;
    QByteArray handle;

    [[nodiscard]] bool hasBirthTime() const { return birthSeconds != 0 || birthNanoseconds != 0; }
    [[nodiscard]] bool hasHandle() const { return !handle.isEmpty(); }
};

enum class Likeness {
    different,
    /// Equal inode numbers and nothing else to compare. Another folder may have got the number of a deleted
    /// one.
    sameNumber,
    same,
};

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

/// Returns the identity of the folder `name` in the open folder `parent`; AT_FDCWD for an absolute path.
Outcome<FolderIdentity> identityOfFolder(int parent, const char* name, int flags = 0)
{
    const FileDescriptor folder(::openat(parent, name, O_PATH | O_DIRECTORY | O_CLOEXEC | flags));
    if (!folder) return SystemError::last();
    const auto file = identityOf(folder.get());
    if (!file) return file.error();
    FolderIdentity identity;
    identity.inode = file->inode;
    identity.birthSeconds = file->birthSeconds;
    identity.birthNanoseconds = file->birthNanoseconds;
    readHandle(folder.get(), identity);
    return identity;
}

/// Returns the path of the direct subfolder of `parent` that is `wanted`, whatever its name.
std::optional<std::string> findInside(const std::string& parent, const FolderIdentity& wanted)
{
    const auto close = [](DIR* directory) { ::closedir(directory); };
    const std::unique_ptr<DIR, decltype(close)> directory(::opendir(parent.c_str()));
    if (!directory) return std::nullopt;
    while (const dirent* entry = ::readdir(directory.get())) {
        // Opens only entries with the right inode number. For a mount point the listing has the number of the
        // folder below the mount, so this search does not find mount roots.
        if (entry->d_ino != wanted.inode) continue;
        const std::string_view name = entry->d_name;
        if (name == "." || name == "..") continue;
        // O_NOFOLLOW and O_DIRECTORY reject everything but folders. d_type may be unknown.
        const auto identity = identityOfFolder(::dirfd(directory.get()), entry->d_name, O_NOFOLLOW);
        if (identity && compare(*identity, wanted) == Likeness::same)
            return (parent == "/" ? std::string() : parent) + '/' + entry->d_name;
    }
    return std::nullopt;
}

struct Bookmark {
    std::string path;
    FolderIdentity folder;
};

/// The first bytes of every bookmark. Another layout needs another number.
constexpr char header[] = "harbex bookmark 1\n";
constexpr qsizetype checksumLength = 32;

QByteArray checksum(QByteArrayView bytes)
{
    return QCryptographicHash::hash(bytes, QCryptographicHash::Sha256);
}

QByteArray encode(const Bookmark& bookmark)
{
    QByteArray bytes = header;
    QDataStream stream(&bytes, QIODevice::WriteOnly | QIODevice::Append);
    stream.setVersion(QDataStream::Qt_6_0);
    const FolderIdentity& folder = bookmark.folder;
    stream << QByteArray::fromStdString(bookmark.path) << folder.inode << folder.birthSeconds
           << folder.birthNanoseconds << folder.handleType << folder.handle;
    return bytes + checksum(bytes);
}

std::optional<Bookmark> decode(const QByteArray& bytes)
{
    if (bytes.size() < checksumLength) return std::nullopt;
    const QByteArray content = bytes.chopped(checksumLength);
    if (!content.startsWith(header) || checksum(content) != bytes.last(checksumLength)) return std::nullopt;

    QDataStream stream(content.sliced(static_cast<qsizetype>(qstrlen(header))));
    stream.setVersion(QDataStream::Qt_6_0);
    QByteArray path;
    FolderIdentity folder;
    stream >> path >> folder.inode >> folder.birthSeconds >> folder.birthNanoseconds >> folder.handleType >>
        folder.handle;
    const bool isWhole = stream.status() == QDataStream::Ok && stream.atEnd();
    if (!isWhole || !path.startsWith('/') || path.contains('\0')) return std::nullopt;
    return Bookmark{path.toStdString(), folder};
}

} // namespace

Outcome<QByteArray> createBookmark(const std::string& path)
{
    // FileUrl gives an empty path for a relative path or one with a NUL, which then fails with ENOENT.
    const std::string folderPath = FileUrl::fromPath(path).path();
    const auto folder = identityOfFolder(AT_FDCWD, folderPath.c_str());
    if (!folder) return folder.error();
    return encode({folderPath, *folder});
}

std::optional<FileUrl> resolveBookmark(const QByteArray& bookmark, const MountTable& mounts)
{
    const auto stored = decode(bookmark);
    if (!stored || mounts.remoteMount(stored->path)) return std::nullopt;

    const auto present = identityOfFolder(AT_FDCWD, stored->path.c_str());
    if (present && compare(*present, stored->folder) != Likeness::different)
        return FileUrl::fromPath(stored->path);

    const size_t slash = stored->path.rfind('/');
    const std::string parent = slash == 0 ? "/" : stored->path.substr(0, slash);
    const auto renamed = findInside(parent, stored->folder);
    if (!renamed) return std::nullopt;
    return FileUrl::fromPath(*renamed);
}

bool isLocalFolder(const std::string& path)
{
    struct stat status = {};
    return !MountTable::read().remoteMount(path) && ::stat(path.c_str(), &status) == 0 &&
           S_ISDIR(status.st_mode);
}

} // namespace harbex
