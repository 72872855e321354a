#pragma once

#include "base/Outcome.h"
#include "watcher/EntryPlace.h"

#include <functional>

namespace harbex
{

/// Removes the entry at `place`; of a folder first what is in it. Right before each removal, and before a
/// folder is entered, `mayRemove` is asked about what stands there: when it refuses, everything stops with
/// EBUSY. Links are removed, not followed. Any thread.
[[nodiscard]] Outcome<void> removeEntry(const EntryPlace& place,
                                        const std::function<bool(const EntryStatus&)>& mayRemove);

} // namespace harbex
