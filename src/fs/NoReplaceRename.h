#pragma once

#include "base/Outcome.h"
#include "fs/DirEntry.h"

namespace harbex
{

/// Gives an entry of any kind another name on the same volume, in one step and never replacing what stands
/// under the new name: EEXIST then. EXDEV when the new name is on another volume; EINVAL when a folder would
/// be moved into itself. On failure the entry stands where it stood; on a remote volume, whose server may
/// have moved it all the same, it may have the new name as well or instead, or something empty has it.
///
/// File systems that cannot refuse to replace within a rename get the same by other means. Killed in the
/// middle of those, the process leaves both names of a file, or an empty file or folder under the new name
/// beside the untouched entry. Only where a file system has no hard links either does a moment remain,
/// between looking at that empty file and renaming over it, in which somebody else's file could be put in its
/// place and be lost.
[[nodiscard]] Outcome<void> renameWithoutReplacing(const DirEntry& from, const DirEntry& to);

} // namespace harbex
