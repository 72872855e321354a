#pragma once

#include "base/Outcome.h"
#include "fs/DirEntry.h"

#include <stop_token>

namespace harbex
{

/// Copies the regular file at `source`, which must still be the one that `seen` is about, with the same size
/// and modification time, into the empty file that is open for writing as `target`: content with its holes,
/// then owner, attributes, permissions and times.
///
/// Nothing is synchronised with the disk. Fails with EBUSY when the source is or becomes another, and with
/// ECANCELED soon after `stop`; the target is to be thrown away then. Any thread.
[[nodiscard]] Outcome<void> copyFile(const DirEntry& source, const EntryStatus& seen, int target,
                                     const std::stop_token& stop);

/// Makes sure that the file open for reading as `copy`, which copyFile() made of the one at `source`, still
/// has its content, byte for byte, and gives it everything else again as `seen` and the source say now. EBUSY
/// when the contents differ; otherwise as copyFile().
[[nodiscard]] Outcome<void> takeFileAgain(const DirEntry& source, const EntryStatus& seen, int copy,
                                          const std::stop_token& stop);

} // namespace harbex
