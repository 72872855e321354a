#include "store/Bookmark.h"

#include "store/Document.h"

#include <QCryptographicHash>
#include <QDataStream>
#include <QIODevice>

#include <optional>
#include <sys/stat.h>

namespace harbex
{

namespace
{

struct Bookmark {
    std::string path;
    FolderIdentity folder;
    /// Where the folder is outside of the sandbox. Empty without a sandbox.
    std::string hostPath;
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
    if (!bookmark.hostPath.empty()) stream << QByteArray::fromStdString(bookmark.hostPath);
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
    QByteArray hostPath;
    if (!stream.atEnd()) stream >> hostPath;
    const bool isWhole = stream.status() == QDataStream::Ok && stream.atEnd();
    if (!isWhole || !path.startsWith('/') || path.contains('\0')) return std::nullopt;
    return Bookmark{path.toStdString(), folder, hostPath.toStdString()};
}

} // namespace

Outcome<QByteArray> createBookmark(const std::string& path)
{
    // FileUrl gives an empty path for a relative path or one with a NUL, which then fails with ENOENT.
    const std::string folderPath = FileUrl::fromPath(path).path();
    const auto folder = identityOfFolder(folderPath);
    if (!folder) return folder.error();
    return encode({folderPath, *folder, hostPathOf(folderPath).value_or(std::string())});
}

std::map<QByteArray, FileUrl> resolveBookmarks(const std::vector<QByteArray>& bookmarks,
                                               const MountTable& mounts, const SearchBounds& bounds)
{
    std::map<QByteArray, FileUrl> urls;
    std::map<QByteArray, LostFolder> lost;
    for (const QByteArray& bookmark : bookmarks) {
        const auto stored = decode(bookmark);
        if (!stored || mounts.remoteMount(stored->path)) continue;
        const auto present = identityOfFolder(stored->path);
        if (present && compare(*present, stored->folder) != Likeness::different)
            urls.insert({bookmark, FileUrl::fromPath(stored->path)});
        else
            lost.insert({bookmark, {.path = stored->path, .identity = stored->folder, .foundAt = {}}});
    }
    findLostFolders(lost, mounts, bounds);
    for (const auto& [bookmark, folder] : lost)
        if (folder.foundAt) urls.insert({bookmark, FileUrl::fromPath(*folder.foundAt)});
    return urls;
}

std::optional<FileUrl> hostUrl(const FileUrl& url, const QByteArray& bookmark)
{
    const auto stored = decode(bookmark);
    if (!stored || stored->hostPath.empty() || stored->path != url.path()) return std::nullopt;
    return FileUrl::fromPath(stored->hostPath);
}

bool isLocalFolder(const std::string& path)
{
    struct stat status = {};
    return !MountTable::read().remoteMount(path) && ::stat(path.c_str(), &status) == 0 &&
           S_ISDIR(status.st_mode);
}

} // namespace harbex
