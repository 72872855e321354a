#pragma once

#include <string>
#include <string_view>

namespace harbex
{

// Paths and names are raw bytes here. All of these are pure functions and may be called from any thread.

/// The name that the entry at `path` has in its folder, trailing slashes left out; "/" for the root and
/// empty for an empty path.
[[nodiscard]] std::string_view lastPathComponent(std::string_view path);

/// The path of the folder that holds the entry at `path`: "/" for what stands in the root, "." for a bare
/// name.
[[nodiscard]] std::string parentPath(std::string_view path);

/// The text after the last dot of a name, without the dot. None (empty) for a name whose only dot leads it
/// (".env") and for one that ends in a dot ("name.", "...").
[[nodiscard]] std::string_view pathExtension(std::string_view name);

} // namespace harbex
