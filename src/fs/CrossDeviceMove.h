#pragma once

#include "base/Outcome.h"

#include <stop_token>
#include <string>

namespace harbex
{

/// Moves the entry (file, link, folder) at `source` to `target` on another volume, never replacing anything.
/// What the target's file system cannot hold of its attributes, owner, permissions and times is left out.
/// The copy is complete, and on the disk, before it gets its name; the source is removed only after that, and
/// only if it is still what was copied. Killed at any moment, the process leaves the source or the whole copy
/// or both, and nothing incomplete under the name; what it had built by then may be left over in a part
/// folder.
///
/// On failure the source stays. A file or link that could not be removed in the end has its copy taken back;
/// of a folder both stay then, the copy complete, the original perhaps in part. A name that the target cannot
/// hold is refused before anything is copied. EBUSY when the content of the source was changed meanwhile, or
/// its change time did not come to rest; ECANCELED when `stop` came before the copy had its name. Any thread.
[[nodiscard]] Outcome<void> moveAcrossDevices(const std::string& source, const std::string& target,
                                              const std::stop_token& stop);

} // namespace harbex
