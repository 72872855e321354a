#pragma once

#include "base/Outcome.h"
#include "fs/DirEntry.h"

namespace harbex
{

/// Returns whether a change of the entry at `place` that failed with `error` may still have been done, by a
/// server whose answer was lost. A check of the entry cannot tell, because the request may still be pending.
/// Returns true when the type of the volume cannot be read. Thread-safe.
[[nodiscard]] bool outcomeUnknown(const DirEntry& place, SystemError error);

/// Ends a move whose entry `ours` has its new name while the removal of the old name failed with `error`.
/// Removes the new name and returns `error`. If outcomeUnknown(), the new name stays, and ENOENT is success:
/// a server returns it for a repeated request. Thread-safe.
[[nodiscard]] Outcome<void> endAfterFailedRemoval(const DirEntry& oldName, SystemError error,
                                                  const DirEntry& newName, const EntryStatus& ours);

} // namespace harbex
