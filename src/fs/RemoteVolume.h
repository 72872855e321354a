#pragma once

#include "base/Outcome.h"
#include "fs/DirEntry.h"

namespace harbex
{

/// Whether a change to the entry at `place` that failed so may have been made all the same: by a server whose
/// answer was lost. Looking again would not tell, because the request may still be on its way.
/// True when the volume cannot be asked what it is.
[[nodiscard]] bool outcomeUnknown(const DirEntry& place, SystemError error);

/// How a move ends whose entry, like `ours`, has its new name while the removal of the old one failed so.
/// Takes the new name away again and gives the error; but where the removal may have been made that name
/// stays, and ENOENT, the answer of a server that was asked again, is success.
[[nodiscard]] Outcome<void> endAfterFailedRemoval(const DirEntry& oldName, SystemError error,
                                                  const DirEntry& newName, const EntryStatus& ours);

} // namespace harbex
