#pragma once

#include "base/Outcome.h"
#include "fs/DirEntry.h"

namespace harbex
{

// Copies owner, permissions, times, extended attributes and ACLs. These functions omit values that the
// target's file system cannot store, and values that need more privileges. They report all other failures.
// Thread-safe.

/// Copies the extended attributes and ACLs of the open file or folder `source` to the open `target`, and sets
/// the owner, permissions and times of `seen`. Removes ACLs that `target` inherited from its folder.
///
/// If the owner or group cannot be kept, the set-user-ID and set-group-ID bits are cleared, and a folder
/// becomes accessible to its new owner. If the access ACL cannot be kept, the permissions of the group are
/// cleared.
[[nodiscard]] Outcome<void> copyAttributes(int source, const EntryStatus& seen, int target);

/// Same as copyAttributes() for a `copy` that already has attributes of `source`. Also removes the "user."
/// and "trusted." attributes that `source` no longer has.
[[nodiscard]] Outcome<void> refreshAttributes(int source, const EntryStatus& seen, int copy);

/// Sets the owner and times of `seen` on the symbolic link at `target`. A link has no permissions and no
/// attributes that a user can set.
[[nodiscard]] Outcome<void> copyLinkAttributes(const EntryStatus& seen, const DirEntry& target);

} // namespace harbex
