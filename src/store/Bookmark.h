#pragma once

#include "base/Outcome.h"
#include "fs/MountTable.h"
#include "model/FileUrl.h"
#include "store/FolderSearch.h"

#include <QByteArray>

#include <map>
#include <string>
#include <vector>

namespace harbex
{

/// Returns a bookmark that finds a folder again after a rename or move: its path and its identity on the file
/// system. `path` is absolute; a symbolic link to a folder is followed. Paths and names are raw bytes. In a
/// sandbox it also keeps the real path of the folder. Fails with the error of the system call if `path` is no
/// folder. Waits for the disk or the server. Thread-safe.
[[nodiscard]] Outcome<QByteArray> createBookmark(const std::string& path);

/// Returns the current URLs of bookmarked folders; the keys are the bookmarks. A folder is found at its path,
/// under another name in the same parent folder, or by the search of findLostFolders(). Leaves out a bookmark
/// whose folder is at none of these (deleted, replaced by a copy, on another volume) and bytes that are no
/// bookmark: `bookmarks` can be any bytes. A folder that replaces the original at its path is recognised by
/// birth time or file handle; without both, an equal inode number counts as the same folder.
///
/// Also leaves out a path that leads to a remote volume in `mounts`. No system call touches a remote volume,
/// since its server may not answer. Waits for local disks; one search, within `bounds`, serves all bookmarks.
/// Thread-safe.
[[nodiscard]] std::map<QByteArray, FileUrl> resolveBookmarks(const std::vector<QByteArray>& bookmarks,
                                                             const MountTable& mounts,
                                                             const SearchBounds& bounds = {});

/// Returns the real URL, outside of the sandbox, of the folder that a sandboxed program reaches at `url`.
/// Returns nullopt if `bookmark` does not tell it, or is the bookmark of another path. For showing only: a
/// sandboxed program cannot access it. Accesses no file. Thread-safe.
[[nodiscard]] std::optional<FileUrl> hostUrl(const FileUrl& url, const QByteArray& bookmark);

/// Returns whether the path (raw bytes) leads to a folder on a local volume. No system call touches a remote
/// volume. May wait for a local disk. Thread-safe.
[[nodiscard]] bool isLocalFolder(const std::string& path);

} // namespace harbex
