#pragma once

#include "base/Outcome.h"
#include "fs/DirEntry.h"

namespace harbex
{

/// Renames an entry of any type on one volume, atomically and without replacing an entry. Fails with EEXIST
/// when `to` exists, EXDEV when `to` is on another volume, EINVAL when a folder would be moved into itself.
/// The entry keeps its name on failure. Exception: if the answer of a server is lost, the entry may have the
/// new name too, or only the new name, or an empty placeholder may have it. Thread-safe.
///
/// Where the file system does not support RENAME_NOREPLACE, a fallback of several calls is used, which is not
/// atomic. A process that is killed during the fallback leaves both names of a file, or an empty placeholder
/// at `to` and the entry at `from`. The fallback has one race for each type of entry and file system. A file
/// with hard links: a file that replaces `from` between the last check and the removal is lost. Without hard
/// links: a file that replaces the placeholder between the last check and the rename is lost. A folder: an
/// empty folder that replaces the placeholder before the rename is lost.
[[nodiscard]] Outcome<void> renameWithoutReplacing(const DirEntry& from, const DirEntry& to);

} // namespace harbex
