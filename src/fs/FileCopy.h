#pragma once

#include "base/Outcome.h"
#include "fs/DirEntry.h"

#include <stop_token>

namespace harbex
{

/// Copies the regular file at `source` into the empty file `target`, which is open for writing: content with
/// its holes, then owner, attributes, permissions and times. Does not synchronize the data to disk.
///
/// `seen` is the status of `source` before the copy. Fails with EBUSY when `source` is another file now or
/// has another size or modification time, or when its size changes during the copy. Fails with ECANCELED when
/// `stop` is requested during the copy. After a failure the caller deletes the target. Thread-safe.
[[nodiscard]] Outcome<void> copyFile(const DirEntry& source, const EntryStatus& seen, int target,
                                     const std::stop_token& stop);

/// Compares the content of `source` with `copy`, an earlier result of copyFile() that is open for reading,
/// and sets the owner, attributes, permissions and times on the copy again. Fails with EBUSY when the
/// contents differ, otherwise as copyFile() does. Thread-safe.
[[nodiscard]] Outcome<void> refreshFileCopy(const DirEntry& source, const EntryStatus& seen, int copy,
                                            const std::stop_token& stop);

} // namespace harbex
