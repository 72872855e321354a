#pragma once

#include <string>

namespace harbex
{

/// Returns a free path in `folder` for the entry at `path`: with its own name if that is free, otherwise
/// base-1.ext, base-2.ext and so on without a limit (base-1 for a name without an extension). A name is taken
/// if any entry has it, dangling symbolic links included.
///
/// If a candidate cannot be checked (the folder is missing, the name is too long), returns that candidate,
/// and the move reports the error. Other processes may take the name at any time. Returns an empty path for
/// an empty `folder`. Paths and names are raw bytes. Thread-safe.
[[nodiscard]] std::string uniqueDestination(const std::string& path, const std::string& folder);

} // namespace harbex
