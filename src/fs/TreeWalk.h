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
    /// From the root of the tree: "" for the root, "/a/b" below.
    std::string path;
    EntryStatus status;
};

/// What is done at the entries of a tree. A failure ends the walk.
struct TreeVisit {
    /// At every entry; at a folder before anything in it.
    std::function<Outcome<void>(const TreeEntry&)> before;
    /// At a folder, which is open as `folder`, after everything in it. May be empty.
    std::function<Outcome<void>(const TreeEntry&, int folder)> after;
};

/// Goes through the entry at `root` with everything in it. Links are not followed. EMFILE for a tree too
/// deep, EBUSY when another folder was put in the place of one. Any thread.
[[nodiscard]] Outcome<void> walkTree(const DirEntry& root, const TreeVisit& visit);

/// Removes the entry at `root`; of a folder first what is in it. Right before each removal, and before a
/// folder is entered, `mayRemove` is asked about what stands there: when it refuses, everything stops with
/// EBUSY. Links are removed, not followed. Any thread.
[[nodiscard]] Outcome<void> removeTree(const DirEntry& root,
                                       const std::function<bool(const TreeEntry&)>& mayRemove);

} // namespace harbex
