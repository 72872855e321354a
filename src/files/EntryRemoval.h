#pragma once

#include "base/Outcome.h"
#include "files/EntryPlace.h"

#include <functional>
#include <string>

namespace harbex
{

/// Asked about an entry of a tree: its path from the root ("" for the root, "/a/b" below) and what it is
/// like.
using MayRemove = std::function<bool(const std::string& path, const EntryStatus& status)>;

/// Removes the entry at `place`; of a folder first what is in it. Right before each removal, and before a
/// folder is entered, `mayRemove` is asked about what stands there: when it refuses, everything stops with
/// EBUSY. Links are removed, not followed. Any thread.
[[nodiscard]] Outcome<void> removeEntry(const EntryPlace& place, const MayRemove& mayRemove);

} // namespace harbex
