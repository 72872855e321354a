#pragma once

#include "base/Outcome.h"

#include <stop_token>
#include <string>

namespace harbex
{

/// Moves the entry (file, symbolic link or folder) at `source` to `target` on another volume. Never replaces
/// an entry. Omits attributes, owner, permissions and times that the target's file system cannot store.
///
/// The copy gets its name only when it is complete and written to disk. The source is removed after that, and
/// only if it is still what was copied. A process that is killed leaves the source, the complete copy, or
/// both, and never a partial copy at `target`. It may leave a staging directory.
///
/// Fails with EEXIST when `target` exists, EBUSY when the content of the source changes or its change time
/// keeps changing, ECANCELED when `stop` is requested before the copy gets its name. A name that the target's
/// file system rejects fails before the copy. The source stays on failure. If the removal of the source
/// fails, the copy of a file or link is removed again, with the exceptions of endAfterFailedRemoval(). The
/// complete copy of a folder stays, and its original may be partly removed. Paths and names are raw bytes.
/// Thread-safe.
[[nodiscard]] Outcome<void> moveAcrossDevices(const std::string& source, const std::string& target,
                                              const std::stop_token& stop);

} // namespace harbex
