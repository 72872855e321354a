#pragma once

#include <string>

namespace harbex
{

/// The path in `folder` under which the entry at `path` will be stored: its own name when that is free there,
/// else base-1.ext, base-2.ext and so on without a bound (base-1 for a name without an extension). A name is
/// taken when anything stands there, a dangling link too.
///
/// A candidate that cannot be looked at (the folder is missing, the name has grown too long) is given back as
/// the answer: the move then fails with the reason. The answer is free only at this moment. An empty `folder`
/// gives an empty path. Paths are raw bytes; any thread.
[[nodiscard]] std::string uniqueDestination(const std::string& path, const std::string& folder);

} // namespace harbex
