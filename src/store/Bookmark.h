#pragma once

#include "base/Outcome.h"
#include "fs/MountTable.h"
#include "model/FileUrl.h"

#include <QByteArray>

#include <optional>
#include <string>

namespace harbex
{

/// Makes the bytes that find a folder again after it was renamed: its path and what identifies it on its file
/// system. `path` is absolute, in raw bytes; a link to a folder stands for that folder. Fails when no folder
/// stands there. Any thread.
[[nodiscard]] Outcome<QByteArray> createBookmark(const std::string& path);

/// Where the folder of a bookmark stands now: at the path it was made for, or under another name in the same
/// parent folder. Nothing when the folder is at neither place (moved away, deleted, replaced by another one
/// or by a restored copy) and when the bytes are no bookmark; any bytes may be given. Nothing, too, when the
/// path leads to a remote volume by `mounts`: its server may not answer, and no call is made to it. Takes at
/// most one listing of the parent folder. Any thread.
[[nodiscard]] std::optional<FileUrl> resolveBookmark(const QByteArray& bookmark, const MountTable& mounts);

} // namespace harbex
