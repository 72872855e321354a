#pragma once

#include "base/Outcome.h"
#include "fs/MountTable.h"
#include "model/FileUrl.h"

#include <QByteArray>

#include <optional>
#include <string>

namespace harbex
{

/// Returns a bookmark that finds a folder again after a rename: its path and its identity on the file system.
/// `path` is absolute; a symbolic link to a folder is followed. Paths and names are raw bytes. Fails with the
/// error of the system call if `path` is no folder. Thread-safe.
[[nodiscard]] Outcome<QByteArray> createBookmark(const std::string& path);

/// Returns the current URL of the bookmarked folder: its original path, or another name in the same parent
/// folder. Returns nullopt if the folder is at neither (moved away, deleted, replaced) or if the bytes are no
/// bookmark. `bookmark` can be any bytes. A folder that replaces the original at its path is recognised by
/// birth time or file handle; without both, an equal inode number counts as the same folder.
///
/// Also returns nullopt if the path leads to a remote volume in `mounts`: no system call touches it, since
/// its server may not answer. Lists the parent folder at most once. Thread-safe.
[[nodiscard]] std::optional<FileUrl> resolveBookmark(const QByteArray& bookmark, const MountTable& mounts);

/// Returns whether the path leads to a folder that no server holds. No system call touches a remote volume.
/// Thread-safe.
[[nodiscard]] bool isLocalFolder(const std::string& path);

} // namespace harbex
