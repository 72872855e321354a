#pragma once

#include "base/Outcome.h"
#include "fs/DirEntry.h"

namespace harbex
{

// What an entry is besides its name and content. What the target's file system cannot hold, be it an
// attribute that is too large or a time, and what only a more privileged user could set, is left out; every
// other failure is one. Any thread.

/// Gives the file or folder open as `target` what the one open as `source` has, as `seen` says: owner,
/// extended attributes, access lists, permissions, and last the times. Access lists that the target inherited
/// from its folder go.
///
/// An owner that could not be kept takes the set-user-ID and set-group-ID bits along, and a folder that
/// became ours is open to us. An access list that could not be kept takes the permissions of the group along.
[[nodiscard]] Outcome<void> copyAttributes(int source, const EntryStatus& seen, int target);

/// The same for a `copy` that has been given what the source had before: attributes that the source has lost
/// since go.
[[nodiscard]] Outcome<void> takeAttributesAgain(int source, const EntryStatus& seen, int copy);

/// Gives the symbolic link at `target` the owner and the times that `seen` tells of another one. A link has
/// no permissions and no attributes that a user could have set.
[[nodiscard]] Outcome<void> copyLinkAttributes(const EntryStatus& seen, const DirEntry& target);

} // namespace harbex
