#pragma once

#include "base/Outcome.h"
#include "fs/DirEntry.h"

#include <functional>
#include <string>

namespace harbex
{

/// An entry of a tree.
struct TreeEntry {
    DirEntry place;
    /// Relative to the root of the tree (raw bytes): "" for the root, "/a/b" for its descendants.
    std::string path;
    EntryStatus status;
};

/// Callbacks of a tree walk. A failure ends the walk.
struct TreeVisit {
    /// Called for each entry; for a folder before its content.
    std::function<Outcome<void>(const TreeEntry&)> before;
    /// Called for each folder, open as `folder`, after its content. May be empty.
    std::function<Outcome<void>(const TreeEntry&, int folder)> after;
};

/// Visits the entry at `root` and its content. Does not follow symbolic links. Fails with EMFILE for a tree
/// deeper than maximumTreeDepth, EBUSY when another folder replaces a visited one. Thread-safe.
[[nodiscard]] Outcome<void> walkTree(const DirEntry& root, const TreeVisit& visit);

/// Removes the entry at `root` and its content. Calls `mayRemove` before each removal of a file or link, and
/// before it enters a folder; fails with EBUSY when that returns false. Does not follow symbolic links.
/// Thread-safe.
[[nodiscard]] Outcome<void> removeTree(const DirEntry& root,
                                       const std::function<bool(const TreeEntry&)>& mayRemove);

} // namespace harbex
